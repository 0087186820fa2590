#include "world.hpp"

#include <unistd.h>

uint64_t page_bytes() {
    return static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

uint64_t pages(uint64_t count) {
    return count * page_bytes();
}

uint64_t rounded_to_pages(uint64_t bytes) {
    return (bytes + page_bytes() - 1) / page_bytes() * page_bytes();
}
