#pragma once

#include "clause.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace driver_check {

/// What a request is about: physical addresses as its line has them, and the first DMA address.
struct requested_range {
    uint64_t first_pa;
    uint64_t last_pa;
    uint32_t first_dma;
};

/// As the library has it for a chunk: the line ends one below the last byte.
requested_range range_of_chunk(const region_line& region, uint64_t pa, uint64_t bytes);
/// As the library has it for the whole region: the line ends with the last byte.
requested_range range_to_the_end(const region_line& region, uint64_t pa, uint64_t bytes);

inline constexpr unsigned read_and_write = 3;

/// Longer than a page, which is what the kernel hands a driver at most.
inline constexpr size_t longest_garbage_bytes = 8000;

/// The library's request lines, newline included.
std::string request_line_of(const char* op, const tarvo::device& device,
                            const requested_range& range, unsigned prot = read_and_write);

/// The library's commands to the contiguous memory allocator.
std::string allocate_line(const std::string& name, uint64_t bytes);
std::string release_line(const std::string& name, uint64_t bytes);

struct allocation {
    std::string name;
    uint64_t pa;
    uint64_t bytes;
};

/// The lines after the first one; throws a breach at one that the library could not read.
std::vector<allocation> allocations_in(const std::string& listing);

/// The one of that name and size, as the library looks for it.
std::optional<allocation> find_allocation(const std::vector<allocation>& all,
                                          const std::string& name, uint64_t bytes);

} // namespace driver_check
