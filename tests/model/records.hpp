#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

// What the shared area holds, as plain lists. Links are not kept: a list's order gives them. Free
// elements are numbers in the order in which they will be handed out.

namespace model {

inline constexpr int chunk_capacity = 16384;
inline constexpr int device_capacity = 256;
inline constexpr int ref_capacity = 256; ///< of each chunk

/// Free elements of a container that was just built.
std::deque<int> all_free(int capacity);

struct reference {
    int element; ///< within its chunk
    int dev;     ///< element of the device, which may have been forgotten
};

struct ref_list {
    std::vector<reference> on_list;
    std::deque<int> free = all_free(ref_capacity);
};

struct chunk {
    int element = 0;
    std::string name;
    uint64_t pa = 0;
    uint32_t size = 0;
    std::string creator;
    /// Nothing while it was never built and is all zero bytes: of the sentinels, and of a chunk
    /// that was given up. Read as a list, those bytes have element 0 at both ends.
    std::optional<ref_list> devs;

    uint64_t end() const { return pa + size; }
};

struct device {
    int element = 0;
    uint32_t domain = 0;
    uint32_t bus = 0;
    uint32_t devfn = 0;
    bool online = false;
};

struct shared_area {
    std::optional<uint64_t> file_bytes; ///< the length of its file, once there is one
    bool built = false;                 ///< before that, all bytes are 0
    std::vector<chunk> chunks;          ///< with both sentinels, once built
    std::deque<int> free_chunks = all_free(chunk_capacity);
    std::vector<device> devices;
    std::deque<int> free_devices = all_free(device_capacity);
    int ever_used = 0; ///< chunk elements from here on are as they were built

    chunk& head() { return chunks.front(); }
    chunk& tail() { return chunks.back(); }
    const chunk& head() const { return chunks.front(); }
    const chunk& tail() const { return chunks.back(); }

    /// What the element holds if it is on its list, else null.
    chunk* chunk_at(int element);
    device* device_at(int element);

    /// Takes a chunk element off the free chain; there must be one.
    int take_chunk();
    /// Takes the element off its list and puts it back on its free chain.
    void give_back_chunk(int element);
    void give_back_device(int element);
};

} // namespace model
