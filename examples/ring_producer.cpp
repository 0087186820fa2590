/* SPDX-License-Identifier: MIT */

// Makes a ring in a shared chunk, sends messages through it to ring_consumer, and takes it away
// again when all have been read: usage: ring_producer [MESSAGES]

#include "ring.hpp"
#include "tarvo.hpp"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

int complain(const char* what) {
    std::fprintf(stderr, "ring_producer: %s\n", what);
    return 1;
}

/// False when the consumer stops reading.
bool send(ring_memory& ring, uint32_t count) {
    const shared_number read(ring.read);
    const shared_number written(ring.written);
    for (uint32_t number = 0; number < count; ++number) {
        if (!wait_until([&] { return number - read.seen() < ring_memory::slot_count; })) {
            return false;
        }
        ring_memory::slot& slot = ring.slots[number % ring_memory::slot_count];
        std::snprintf(slot.data(), slot.size(), "message %u", number);
        written.publish(number + 1);
    }
    return true;
}

/// Everything between making the chunk and freeing it; the mapping ends with it.
int use_ring(const tarvo::chunk& chunk, uint32_t count) {
    const auto memory = tarvo::map(chunk);
    if (!memory) {
        return complain(memory.error().message());
    }
    const auto ring = memory->object<ring_memory>();
    if (!ring) {
        return complain(ring.error().message());
    }
    const shared_number state((*ring)->state);
    if (state.seen() != ring_unused) {
        return complain("the ring is another run's; free example_ring if that is gone");
    }
    state.publish(ring_open);
    const bool sent = send(**ring, count);
    state.publish(ring_closed);
    if (!sent || !wait_until([&] { return state.seen() == ring_drained; })) {
        return complain("nobody reads the ring");
    }
    // A chunk can be found before it is zeroed: leave nothing that looks like an open ring.
    state.publish(ring_unused);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const auto count = static_cast<uint32_t>(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1000);
    const auto chunk =
        tarvo::allocate(ring_name, tarvo::bytes(sizeof(ring_memory)), "ring_producer");
    if (!chunk) {
        return complain(chunk.error().message());
    }
    if (const int failed = use_ring(*chunk, count); failed != 0) {
        return failed;
    }
    if (const auto freed = tarvo::free_chunk(*chunk); !freed) {
        return complain(freed.error().message());
    }
    std::printf("sent %u messages\n", count);
    return 0;
}
