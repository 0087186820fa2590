#include "output/hex_dump.hpp"

#include "output/progress.hpp"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <iterator>
#include <string>
#include <vector>

namespace tarvoctl {

namespace {

constexpr size_t line_bytes = 16;

char letter_of(std::byte each) {
    const auto code = std::to_integer<unsigned char>(each);
    const bool printable = code >= 0x20 && code < 0x7f;
    return printable ? static_cast<char>(code) : '.';
}

void add_byte(std::string& text, std::byte each) {
    constexpr const char* digits = "0123456789abcdef";
    constexpr unsigned digit_bits = 4;
    constexpr std::byte lower{0xf};
    text += digits[std::to_integer<unsigned>(each >> digit_bits)];
    text += digits[std::to_integer<unsigned>(each & lower)];
}

/// By hand, as a region has tens of millions of lines.
void print_line(std::span<const std::byte> line, uint64_t offset) {
    std::string text = fmt::format("{:08x}", offset);
    for (size_t i = 0; i < line_bytes; ++i) {
        const bool half = i % (line_bytes / 2) == 0;
        text += half ? "  " : " ";
        if (i < line.size()) {
            add_byte(text, line[i]);
        } else {
            text += "  ";
        }
    }
    text += "  |";
    std::transform(line.begin(), line.end(), std::back_inserter(text), letter_of);
    text += "|\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
}

} // namespace

/// The bytes are a device's, too, and may change while they are printed: each is read once.
void print_hex_dump(std::span<const std::byte> bytes, uint64_t offset) {
    progress so_far{bytes.size()};
    std::vector<std::byte> above;
    bool repeating = false;
    for (size_t at = 0; at < bytes.size(); at += line_bytes) {
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
        so_far.reached(at);
    }
    fmt::print("{:08x}\n", offset + bytes.size());
}

} // namespace tarvoctl
