/* SPDX-License-Identifier: MIT */

// Reads the ring of ring_producer to its end, whichever of the two is started first.

#include "ring.hpp"
#include "tarvo.hpp"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace {

int complain(const char* what) {
    std::fprintf(stderr, "ring_consumer: %s\n", what);
    return 1;
}

/// How many messages came, up to the first one out of order.
uint32_t receive(ring_memory& ring, const shared_number& state) {
    const shared_number read(ring.read);
    const shared_number written(ring.written);
    for (uint32_t number = 0;; ++number) {
        // Closed before the counter is looked at: what was written last is not missed.
        const auto at_end = [&] { return state.seen() == ring_closed && written.seen() == number; };
        if (!wait_until([&] { return written.seen() != number || at_end(); }) || at_end()) {
            return number;
        }
        const ring_memory::slot& slot = ring.slots[number % ring_memory::slot_count];
        const std::string_view text(slot.data());
        if (text != "message " + std::to_string(number)) {
            return number;
        }
        read.publish(number + 1);
    }
}

} // namespace

int main() {
    // The producer may not have made it yet. Each look takes the lock of all processes: not too
    // often.
    auto chunk = tarvo::find_chunk(ring_name);
    const auto there = [&] { return (chunk = tarvo::find_chunk(ring_name)).has_value(); };
    if (!wait_until(there, std::chrono::milliseconds(20))) {
        return complain(chunk.error().message());
    }
    const auto memory = tarvo::map(*chunk);
    if (!memory) {
        return complain(memory.error().message());
    }
    const auto ring = memory->object<ring_memory>();
    if (!ring) {
        return complain(ring.error().message());
    }
    const shared_number state((*ring)->state);
    if (!wait_until([&] { return state.seen() == ring_open || state.seen() == ring_closed; })) {
        return complain("the ring is never opened");
    }
    const uint32_t count = receive(**ring, state);
    const bool complete = count == shared_number((*ring)->written).seen();
    state.publish(ring_drained);
    std::printf("received %u messages, %s\n", count, complete ? "all in order" : "and then not");
    return complete ? 0 : 1;
}
