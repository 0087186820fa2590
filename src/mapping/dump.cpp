#include "mapping/line.hpp"
#include "shared/chunk_walk.hpp"
#include "shared/init.hpp"
#include "shared/lock.hpp"
#include "shared/process_state.hpp"
#include "shared/text.hpp"
#include "tarvo.h"

#include <cstddef>
#include <cstdint>
#include <pthread.h>

// The lists, line by line. The lock is held from tarvo_dump_begin to tarvo_dump_end, so that a
// listing is one consistent picture.

namespace {

constexpr size_t index_columns = 3;
constexpr size_t name_columns = 60;
constexpr size_t creator_columns = 110;
constexpr size_t pa_columns = 12; // hexadecimal digits
constexpr size_t size_columns = 9;

/// What is listed next; at the end when the listing is over, or none is open.
chunk_walk::iterator dump_chunk_cursor;
device_list::iterator dump_device_cursor;

void forget_listing() {
    dump_chunk_cursor = {};
    dump_device_cursor = {};
}

/// A listing is that of the process that began it, as is the lock: a child of it has neither.
void keep_listing_from_children() {
    [[maybe_unused]] static const int registered = pthread_atfork(nullptr, nullptr, forget_listing);
}

} // namespace

bool tarvo_dump_begin() {
    if (!library_is_ready() || tarvo_lock() != 0) {
        return false;
    }
    keep_listing_from_children();
    dump_chunk_cursor = chunks_between_sentinels().begin();
    dump_device_cursor = shm_base->devices.begin();
    return true;
}

bool tarvo_dump_next(char* dst, size_t n) {
    if (dump_chunk_cursor.at_end()) {
        return false;
    }
    dma_chunk_t& chunk = *dump_chunk_cursor;
    line written(dst, n);
    written.decimal(dma_chunks->index(&chunk), index_columns);
    written.text(" ");
    written.text(chunk.name, name_columns);
    written.text(" ");
    written.text(chunk.creator, creator_columns);
    written.text(" 0x");
    written.hexadecimal(chunk.pa, pa_columns);
    written.text(" ");
    written.decimal(static_cast<int32_t>(chunk.size), size_columns);
    if (!written.finish()) {
        return false;
    }
    ++dump_chunk_cursor;
    return true;
}

bool tarvo_dump_next_iommu_device(char* dst, size_t n) {
    if (dump_device_cursor.at_end()) {
        return false;
    }
    const iommu_dev_t& device = *dump_device_cursor;
    const std::shared_ptr<std::string> address = device_name(device);
    line written(dst, n);
    written.text(address->c_str());
    written.text(device.online ? ": online" : ": offline");
    if (!written.finish()) {
        return false;
    }
    ++dump_device_cursor;
    return true;
}

int tarvo_dump_end() {
    forget_listing();
    return tarvo_unlock();
}
