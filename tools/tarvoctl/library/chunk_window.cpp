#include "library/chunk_window.hpp"

#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "library/arguments.hpp"
#include "output/text.hpp"
#include "tarvo.h"

#include <fmt/format.h>
#include <unistd.h>

namespace tarvoctl {

chunk_window parse_window(const chunk_record& chunk, const std::string& offset,
                          const std::string& size) {
    const uint64_t first = offset.empty() ? 0 : parse_size(offset, "--offset");
    if (first >= chunk.size) {
        throw failure{exit_status::usage,
                      fmt::format("--offset {} is not in '{}', which has {}", offset,
                                  shown(chunk.name), size_text(chunk.size))};
    }
    const uint64_t left = chunk.size - first;
    const uint64_t wanted = size.empty() ? left : parse_size(size, "--size");
    if (wanted == 0 || wanted > left) {
        throw failure{exit_status::usage,
                      fmt::format("--size {} is not 1 to {}: '{}' has {} from offset {:#x} on",
                                  size, left, shown(chunk.name), size_text(left), first)};
    }
    return {chunk.name, first, wanted};
}

std::span<std::byte> map_window(const chunk_window& window, bool writable) {
    const auto page_bytes = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    const uint64_t inset = window.offset % page_bytes; // only whole pages can be mapped
    void* const start =
        tarvo_map(window.name.c_str(), writable, window.offset - inset, window.size + inset);
    if (start == nullptr) {
        throw failure{exit_status::finding,
                      fmt::format("'{}' could not be mapped: it was freed or changed meanwhile, or "
                                  "the system refuses; run it with ZUL_TRACE=tarvo=5 to see which",
                                  shown(window.name))};
    }
    return {static_cast<std::byte*>(start) + inset, window.size};
}

} // namespace tarvoctl
