/* SPDX-License-Identifier: MIT */
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <thread>

// A ring in a shared chunk: one process writes messages, one other reads them, and neither ever
// waits for a lock. examples/python/ring.py is the same ring, byte for byte.

inline constexpr std::string_view ring_name = "example_ring";

/// What the ring's two sides tell each other besides messages. A new chunk is zero, but can be
/// found before that: the other values are such that old memory hardly holds them by chance.
enum ring_state : uint32_t {
    ring_unused = 0,
    ring_open = 0x676e6972,   ///< by the producer: the ring can be read
    ring_closed = 0x736e6972, ///< by the producer: nothing more will be written
    ring_drained =
        0x646e6972, ///< by the consumer: everything was read, nothing is touched any more
};

/// The chunk's bytes. Fixed-width fields and no pointers: each process has the chunk elsewhere. The
/// counters are written by one side each, and lie apart so that they do not share a cache line.
/// They count messages, modulo 2^32, and never go back.
struct ring_memory {
    static constexpr uint32_t slot_count = 64;
    static constexpr size_t slot_bytes = 64;
    using slot = std::array<char, slot_bytes>;

    alignas(64) uint32_t state;
    alignas(64) uint32_t written; ///< by the producer
    alignas(64) uint32_t read;    ///< by the consumer
    alignas(64) std::array<slot, slot_count> slots;
};

static_assert(sizeof(ring_memory) == 3 * 64 + 64 * 64);

/// A field that both processes use. Only loads and stores, which every kind of memory can do: a
/// region that is mapped uncached need not know read-modify-write instructions.
class shared_number {
  public:
    explicit shared_number(uint32_t& field) : _field(field) {
        // A lock would be in this process alone.
        static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);
    }

    /// What the other side wrote before it published this number can be read from here on.
    uint32_t seen() const { return _field.load(std::memory_order_acquire); }
    /// Whoever sees this number also sees all that was written before.
    void publish(uint32_t value) const { _field.store(value, std::memory_order_release); }

  private:
    std::atomic_ref<uint32_t> _field;
};

/// Waits until `condition` holds; false when it does not come true in time. Asks again and again:
/// a write to device memory does not wake a process.
template <typename Condition>
bool wait_until(Condition condition,
                std::chrono::microseconds pause = std::chrono::microseconds(200)) {
    constexpr std::chrono::seconds patience{30};
    const auto last_moment = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > last_moment) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}
