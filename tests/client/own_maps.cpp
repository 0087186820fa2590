#include "own_maps.hpp"

#include <fstream>
#include <sstream>

namespace {

own_mapping parse(const std::string& line) {
    own_mapping mapping{};
    std::istringstream fields(line);
    char dash = 0;
    std::string device;
    uint64_t inode = 0;
    fields >> std::hex >> mapping.start >> dash >> mapping.end >> mapping.permissions >>
        mapping.file_offset >> device >> std::dec >> inode >> std::ws;
    std::getline(fields, mapping.path);
    return mapping;
}

template <typename Predicate>
std::optional<own_mapping> first_mapping(Predicate wanted) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        own_mapping mapping = parse(line);
        if (wanted(mapping)) {
            return mapping;
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<own_mapping> mapping_at(uintptr_t address) {
    return first_mapping(
        [=](const own_mapping& m) { return m.start <= address && address < m.end; });
}

uint64_t bytes_mapped_of(const std::string& path) {
    uint64_t bytes = 0;
    first_mapping([&](const own_mapping& m) {
        bytes += m.path == path ? m.end - m.start : 0;
        return false;
    });
    return bytes;
}

std::optional<own_mapping> mapping_of(const std::string& end_of_path) {
    return first_mapping([&](const own_mapping& m) { return m.path.ends_with(end_of_path); });
}
