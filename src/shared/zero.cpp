#include "shared/zero.hpp"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

#if defined(__SSE2__)

/// From here on the lines are not wanted in the cache, where they would only displace others.
constexpr size_t uncached_bytes = size_t{32} << 20U;

void fill_uncached(void* memory, size_t bytes) {
    const __m128i zeros = _mm_setzero_si128();
    auto* end = static_cast<__m128i*>(memory) + bytes / sizeof zeros;
    for (auto* place = static_cast<__m128i*>(memory); place != end; ++place) {
        _mm_stream_si128(place, zeros);
    }
    memset(end, 0, bytes % sizeof zeros);
    _mm_sfence();
}

void fill(void* memory, size_t bytes) {
    if (bytes < uncached_bytes) {
        memset(memory, 0, bytes);
    } else {
        fill_uncached(memory, bytes);
    }
}

#elif defined(__aarch64__)

/// Physical memory can be mapped as device memory here, on which memset may fault: it is free to
/// zero whole lines of the cache, or to store where nothing is aligned.
void fill(void* memory, size_t bytes) {
    auto* words = static_cast<volatile uint64_t*>(memory);
    for (size_t i = 0; i < bytes / sizeof *words; ++i) {
        words[i] = 0;
    }
    auto* rest = static_cast<volatile unsigned char*>(memory);
    for (size_t i = bytes - bytes % sizeof *words; i < bytes; ++i) {
        rest[i] = 0;
    }
}

#else

void fill(void* memory, size_t bytes) {
    memset(memory, 0, bytes);
}

#endif

/// Gets all pages at once instead of by one fault for each. EFAULT says that the access would be a
/// SIGBUS. Some mappings and older systems refuse for other reasons: then the faults do it.
bool populate(void* memory, size_t bytes, int advice) {
    return madvise(memory, bytes, advice) == 0 || errno != EFAULT;
}

} // namespace

bool can_be_read(void* memory, size_t bytes) {
    return populate(memory, bytes, MADV_POPULATE_READ);
}

bool zero_mapping(void* memory, size_t bytes) {
    if (!populate(memory, bytes, MADV_POPULATE_WRITE)) {
        return false;
    }
    fill(memory, bytes);
    return true;
}
