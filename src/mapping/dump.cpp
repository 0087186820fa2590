#include "shared/init.hpp"
#include "shared/lock.hpp"
#include "shared/process_state.hpp"
#include "shared/text.hpp"
#include "tarvo.h"

#include <cstdio>

// The lists, line by line. The lock is held from tarvo_dump_begin to tarvo_dump_end, so that a
// listing is one consistent picture.

namespace {

constexpr int name_columns = 60;
constexpr int creator_columns = 110;

/// What is listed next; null when the listing is over, or none is open.
dma_chunk_t* dump_chunk_cursor = nullptr;
iommu_dev_t* dump_device_cursor = nullptr;

/// Whether a line of which snprintf tells this length is whole in `n` bytes.
bool line_fits(int length, size_t n) {
    return length >= 1 && static_cast<size_t>(length) < n;
}

} // namespace

bool tarvo_dump_begin() {
    if (!library_is_ready() || tarvo_lock() != 0) {
        return false;
    }
    dump_chunk_cursor = dma_chunks->next(dma_chunk_head);
    dump_device_cursor = shm_base->devices.arr_elem(shm_base->devices._head);
    return true;
}

bool tarvo_dump_next(char* dst, size_t n) {
    const dma_chunk_t* chunk = dump_chunk_cursor;
    if (chunk == nullptr || chunk == dma_chunk_tail) {
        return false;
    }
    const int length = snprintf(
        dst, n, "%3d %-*s %-*s 0x%012llx %9zd", dma_chunks->index(dump_chunk_cursor), name_columns,
        chunk->name, creator_columns, chunk->creator, static_cast<unsigned long long>(chunk->pa),
        ssize_t{static_cast<int32_t>(chunk->size)});
    if (!line_fits(length, n)) {
        return false;
    }
    dump_chunk_cursor = dma_chunks->next(dump_chunk_cursor);
    return true;
}

bool tarvo_dump_next_iommu_device(char* dst, size_t n) {
    if (dump_device_cursor == nullptr) {
        return false;
    }
    const std::shared_ptr<std::string> address = device_name(*dump_device_cursor);
    const int length = snprintf(dst, n, "%s: %s", address->c_str(),
                                dump_device_cursor->online ? "online" : "offline");
    if (!line_fits(length, n)) {
        return false;
    }
    dump_device_cursor = shm_base->devices.next(dump_device_cursor);
    return true;
}

int tarvo_dump_end() {
    dump_chunk_cursor = nullptr;
    dump_device_cursor = nullptr;
    return tarvo_unlock();
}
