#include "commands.hpp"
#include "own_maps.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <sys/mman.h>

namespace {

unsigned char* place(const arguments& a) {
    return a.address(0) + a.number(1);
}

std::string peek(const arguments& a) {
    std::ostringstream bytes;
    bytes << std::hex << std::setfill('0');
    const unsigned char* const from = place(a);
    for (size_t i = 0; i < a.number(2); i++) {
        bytes << std::setw(2) << unsigned{from[i]};
    }
    return bytes.str();
}

std::string poke(const arguments& a) {
    const char* const text = a.text(2);
    std::memcpy(place(a), text, std::strlen(text));
    return "done";
}

std::string fill(const arguments& a) {
    std::memset(place(a), a.number_int(3), a.size(2));
    return "done";
}

/// "true", or the offset of the first byte that is another one.
std::string filled(const arguments& a) {
    const unsigned char* const from = place(a);
    const unsigned char* const end = from + a.number(2);
    const auto byte = static_cast<unsigned char>(a.number(3));
    const unsigned char* const other =
        std::find_if(from, end, [byte](unsigned char c) { return c != byte; });
    return other == end ? "true" : std::to_string(a.number(1) + static_cast<size_t>(other - from));
}

std::string unmap_memory(const arguments& a) {
    return munmap(a.address(0), a.size(1)) == 0 ? "0" : std::strerror(errno);
}

/// Permissions, file offset, bytes from the address to the mapping's end, and path; or "none".
std::string describe_mapping(const arguments& a) {
    const auto address = reinterpret_cast<uintptr_t>(a.address(0));
    const auto mapping = mapping_at(address);
    if (!mapping) {
        return "none";
    }
    return mapping->permissions + " " +
           hexadecimal(mapping->file_offset + (address - mapping->start)) + " " +
           std::to_string(mapping->end - address) + " " + mapping->path;
}

} // namespace

commands memory_commands() {
    return {
        {"peek ADDRESS OFFSET BYTES", peek},      {"poke ADDRESS OFFSET TEXT", poke},
        {"fill ADDRESS OFFSET BYTES BYTE", fill}, {"filled ADDRESS OFFSET BYTES BYTE", filled},
        {"munmap ADDRESS BYTES", unmap_memory},   {"mapping ADDRESS", describe_mapping},
    };
}
