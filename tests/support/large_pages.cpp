// Pages of 2 MB for what is about as large as an area: a copy of one in small pages has 17,000
// faults, which take longer than its bytes.

#include <cstdint>
#include <cstdlib>
#include <new>
#include <sys/mman.h>

void* operator new(size_t size) {
    constexpr size_t large_page = 0x200000;
    constexpr size_t large = 16 * large_page;
    const bool is_large = size >= large && size <= PTRDIFF_MAX;
    void* start = is_large
                      ? std::aligned_alloc(large_page, (size + large_page - 1) & ~(large_page - 1))
                      : std::malloc(size == 0 ? 1 : size);
    if (start == nullptr) {
        throw std::bad_alloc();
    }
    if (is_large) {
        madvise(start, size, MADV_HUGEPAGE);
    }
    return start;
}

void operator delete(void* start) noexcept {
    std::free(start);
}

void operator delete(void* start, size_t /*size*/) noexcept {
    std::free(start);
}
