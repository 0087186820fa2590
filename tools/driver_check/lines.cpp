#include "lines.hpp"

#include "common/shown.hpp"
#include "region.hpp"
#include "shared/driver_lines.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fmt/format.h>
#include <sstream>

namespace driver_check {

namespace {

/// Longer than any line the library sends.
constexpr size_t longest_line_bytes = 256;

/// A line by one of the library's formats.
template <typename Format, typename... Values>
std::string formatted(const Format& format, Values... values) {
    std::array<char, longest_line_bytes> line{};
    const int length = std::snprintf(line.data(), line.size(), format, values...);
    return {line.data(), static_cast<size_t>(length)};
}

} // namespace

requested_range range_to_the_end(const region_line& region, uint64_t pa, uint64_t bytes) {
    return {pa, pa + bytes - 1, window_of(region).dma_of(pa)};
}

requested_range range_of_chunk(const region_line& region, uint64_t pa, uint64_t bytes) {
    requested_range range = range_to_the_end(region, pa, bytes);
    --range.last_pa;
    return range;
}

std::string request_line_of(const char* op, const tarvo::device& device,
                            const requested_range& range, unsigned prot) {
    return formatted(request_format, op, static_cast<int>(device.domain()),
                     static_cast<int>(device.bus()), static_cast<int>(device.devfn()),
                     static_cast<unsigned long long>(range.first_pa),
                     static_cast<unsigned long long>(range.last_pa),
                     static_cast<unsigned long>(range.first_dma), static_cast<int>(prot));
}

std::string allocate_line(const std::string& name, uint64_t bytes) {
    return formatted(allocate_format, name.c_str(), static_cast<size_t>(bytes));
}

std::string release_line(const std::string& name, uint64_t bytes) {
    return formatted(release_format, name.c_str(), static_cast<size_t>(bytes));
}

std::vector<allocation> allocations_in(const std::string& listing) {
    std::istringstream lines{listing};
    std::string text;
    std::getline(lines, text); // the region's
    std::vector<allocation> all;
    while (std::getline(lines, text)) {
        allocation_line line;
        require(text.size() < driver_line_bytes && parse(line, text.c_str()),
                fmt::format("a line of the listing is \"{}\"; it must have three fields: name, "
                            "address and size",
                            shown(text)));
        all.push_back({line.name, line.pa, line.bytes});
    }
    return all;
}

std::optional<allocation> find_allocation(const std::vector<allocation>& all,
                                          const std::string& name, uint64_t bytes) {
    const auto found = std::ranges::find_if(
        all, [&](const allocation& each) { return each.name == name && each.bytes == bytes; });
    return found == all.end() ? std::nullopt : std::optional{*found};
}

} // namespace driver_check
