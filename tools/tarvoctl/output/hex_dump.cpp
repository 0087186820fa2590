#include "output/hex_dump.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <vector>

namespace tarvoctl {

namespace {

constexpr std::size_t line_bytes = 16;

char letter_of(std::byte each) {
    const auto code = std::to_integer<unsigned char>(each);
    const bool printable = code >= 0x20 && code < 0x7f;
    return printable ? static_cast<char>(code) : '.';
}

void print_line(std::span<const std::byte> line, uint64_t offset) {
    fmt::memory_buffer text;
    const auto out = std::back_inserter(text);
    fmt::format_to(out, "{:08x}", offset);
    for (std::size_t i = 0; i < line_bytes; ++i) {
        const bool half = i % (line_bytes / 2) == 0;
        fmt::format_to(out, "{}", half ? "  " : " ");
        if (i < line.size()) {
            fmt::format_to(out, "{:02x}", std::to_integer<unsigned>(line[i]));
        } else {
            fmt::format_to(out, "  ");
        }
    }
    fmt::format_to(out, "  |");
    std::transform(line.begin(), line.end(), out, letter_of);
    fmt::print("{}|\n", fmt::to_string(text));
}

} // namespace

// The bytes are a device's, too, and may change while they are printed: each is read once.
void print_hex_dump(std::span<const std::byte> bytes, uint64_t offset) {
    std::vector<std::byte> above;
    bool repeating = false;
    for (std::size_t at = 0; at < bytes.size(); at += line_bytes) {
        const auto part = bytes.subspan(at, std::min(line_bytes, bytes.size() - at));
        std::vector<std::byte> line(part.begin(), part.end());
        const bool repeats = line == above;
        if (!repeats) {
            print_line(line, offset + at);
        } else if (!repeating) {
            fmt::print("*\n");
        }
        repeating = repeats;
        above = std::move(line);
    }
    fmt::print("{:08x}\n", offset + bytes.size());
}

} // namespace tarvoctl
