#include "region.hpp"

#include "clause.hpp"
#include "common/quantities.hpp"
#include "common/shown.hpp"
#include "driver_files.hpp"
#include "shared/dma_window.hpp"

#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <unistd.h>

namespace driver_check {

namespace {

/// The line of the driver that is there, whether the region it describes is possible or not.
region_line described_region() {
    const std::string text = first_line_of(read_listing());
    region_line line{};
    require(text.size() < sizeof line.text,
            fmt::format("the first line has {}; at most {} are read", counted(text.size(), "byte"),
                        sizeof line.text - 1));
    std::memcpy(line.text, text.data(), text.size());
    require(parse(line), fmt::format("the first line is \"{}\"; it must have four fields: first, "
                                     "last, number and name",
                                     shown(text)));
    return line;
}

bool is_possible(const region_line& line) {
    return line.first_pa != 0 && line.last_pa > line.first_pa;
}

bool is_whole_pages(const region_line& line) {
    return line.first_pa % page_size() == 0 && (line.last_pa + 1) % page_size() == 0;
}

void check_first_line(const subject& /*all*/) {
    const std::string listing = read_listing();
    const auto end = listing.find('\n');
    require(!listing.empty(), "the file is empty");
    require(end != std::string::npos, "the first line does not end in a newline");
    require(end < driver_line_bytes - 1,
            fmt::format("the first line has {} with its newline; at most {} are read",
                        counted(end + 1, "byte"), driver_line_bytes - 1));
}

void check_fields(const subject& /*all*/) {
    described_region();
}

void check_bounds(const subject& /*all*/) {
    const region_line line = described_region();
    require(is_possible(line),
            fmt::format("the region is {} to {}; the first address must not be 0, and the last "
                        "must be above it",
                        pa_text(line.first_pa), pa_text(line.last_pa)));
}

void check_pages(const subject& /*all*/) {
    const region_line line = described_region();
    require(is_whole_pages(line),
            fmt::format("the region is {} to {}; it must be whole pages of {}",
                        pa_text(line.first_pa), pa_text(line.last_pa), size_text(page_size())));
}

void check_dma_addresses(const subject& all) {
    const dma_window window = window_of(*all.region);
    const uint64_t first_dma = window.is_high() ? dma_window::high_region_dma : window.first_pa;
    constexpr uint64_t end_of_dma = uint64_t{std::numeric_limits<uint32_t>::max()} + 1;
    const uint64_t bytes = window.end_pa - window.first_pa;
    require(bytes < end_of_dma - first_dma,
            fmt::format("the region has {}; devices see it from DMA address {} on, so that it must "
                        "be smaller than {}",
                        size_text(bytes), dma_text(static_cast<uint32_t>(first_dma)),
                        size_text(end_of_dma - first_dma)));
}

void check_steadiness(const subject& /*all*/) {
    const std::string before = first_line_of(read_listing());
    const std::string after = first_line_of(read_listing());
    require(before == after, fmt::format(R"(the first line was "{}", and "{}" at the next open)",
                                         shown(before), shown(after)));
}

} // namespace

uint64_t page_size() {
    return static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
}

dma_window window_of(const region_line& region) {
    return {region.first_pa, region.last_pa + 1};
}

std::optional<region_line> find_region() {
    try {
        const region_line line = described_region();
        return is_possible(line) && is_whole_pages(line) ? std::optional{line} : std::nullopt;
    } catch (const breach&) {
        return std::nullopt; // clause by clause the checks say why
    }
}

std::span<const clause> region_clauses() {
    static constexpr clause clauses[] = {
        {"1.1", "The region file has a first line", need::nothing, check_first_line},
        {"1.2", "The line has four fields", need::nothing, check_fields},
        {"1.3", "The region has a start and an end above it", need::nothing, check_bounds},
        {"1.4", "The region is whole pages", need::nothing, check_pages},
        {"1.5", "Every byte has a DMA address of 32 bits", need::region, check_dma_addresses},
        {"1.6", "The line stays the same", need::nothing, check_steadiness},
    };
    return clauses;
}

} // namespace driver_check
