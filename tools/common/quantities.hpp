#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// How addresses, sizes, times and counts are written: the one form of each in all texts for people.

/// A physical address: "0x0080000000".
std::string pa_text(uint64_t pa);
/// A DMA address: "0x80000000".
std::string dma_text(uint32_t dma);

/// From the first byte to the last one: "0x0080000000-0x0080000fff".
std::string pa_range(uint64_t first_pa, uint64_t end_pa);

/// Nothing is rounded: in the largest unit of which it is a whole number. "64 KiB", "100 bytes".
std::string size_text(uint64_t bytes);
/// The same in a given unit: bytes, KiB, MiB or GiB by number, of which it must be a whole number.
std::string size_text(uint64_t bytes, size_t unit);
/// The largest unit of which each is a whole number.
size_t common_unit(std::span<const uint64_t> sizes);
/// Sizes of one sentence, so that they compare: in the largest unit of which each is a whole
/// number.
template <size_t count>
std::array<std::string, count> size_texts(const std::array<uint64_t, count>& sizes) {
    const size_t unit = common_unit(sizes);
    std::array<std::string, count> texts;
    std::transform(sizes.begin(), sizes.end(), texts.begin(),
                   [unit](uint64_t bytes) { return size_text(bytes, unit); });
    return texts;
}
/// With the number of bytes, where a person may want to type it: "64 KiB (65536 bytes)".
std::string size_with_bytes(uint64_t bytes);

/// Local time and how far it is from UTC: "2024-05-31T02:13:07+02:00".
std::string time_text(std::chrono::system_clock::time_point when);
/// The same to the millisecond: "2024-05-31T02:13:07.125+02:00".
std::string exact_time_text(std::chrono::system_clock::time_point when);
/// The same in UTC, for programs: "2024-05-31T00:13:07.125Z".
std::string utc_time_text(std::chrono::system_clock::time_point when);
/// The same time for a file's name, without colons: "20240531T021307+0200".
std::string file_time_text(std::chrono::system_clock::time_point when);

/// "1 chunk", "2 chunks", "0 processes".
std::string counted(uint64_t count, std::string_view thing);
