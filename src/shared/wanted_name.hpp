#pragma once

#include "shared/chunk_walk.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>

/// A name that chunks are compared with. Nearly all have another one, and most of those show it in
/// the last bytes, because people number things: these are compared in place, the terminator among
/// them, and strcmp has the last word.
class wanted_name {
  public:
    explicit wanted_name(const char* name) : _name(name) {
        const size_t bytes = std::min(strlen(name) + 1, name_bytes);
        if (bytes >= sizeof _end) {
            _end_at = bytes - sizeof _end;
            memcpy(&_end, name + _end_at, sizeof _end);
        } else {
            memcpy(&_end, name, bytes);
            _counts >>= 8 * (sizeof _end - bytes);
        }
    }

    bool matches(const dma_chunk_t& chunk) const {
        uint64_t end;
        memcpy(&end, chunk.name + _end_at, sizeof end);
        return (end & _counts) == _end && strcmp(chunk.name, _name) == 0;
    }

  private:
    const char* _name;
    size_t _end_at = 0; ///< where in a name the bytes lie that are compared in place
    uint64_t _end = 0;
    uint64_t _counts = ~uint64_t{0}; ///< ones where _end has bytes of the name
};

/// The first chunk of `chunks` that is called `name`; null when there is none. Where several
/// chunks share a name this is the lowest one.
dma_chunk_t* first_named(const char* name, chunk_walk chunks);
