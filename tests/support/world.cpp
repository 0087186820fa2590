#include "world.hpp"

#include <unistd.h>

std::uint64_t page_bytes() {
    return static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

std::uint64_t pages(std::uint64_t count) {
    return count * page_bytes();
}

std::uint64_t rounded_to_pages(std::uint64_t bytes) {
    return (bytes + page_bytes() - 1) / page_bytes() * page_bytes();
}
