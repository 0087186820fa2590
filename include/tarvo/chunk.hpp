/* SPDX-License-Identifier: MIT */
#pragma once

#include "tarvo/result.hpp"
#include "tarvo/units.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

/// @file
/// What a chunk is for this process: a name, a place and a size. Nothing here calls the library.

namespace tarvo {

/// A text of fewer than `Room` bytes, in the object itself. What does not fit is cut off.
template <size_t Room>
class short_text {
  public:
    short_text() noexcept = default;
    explicit short_text(std::string_view text) noexcept : _length(std::min(text.size(), Room - 1)) {
        std::copy_n(text.data(), _length, _bytes.data());
    }

    std::string_view view() const noexcept { return {_bytes.data(), _length}; }
    /// With a zero byte after it.
    const char* c_str() const noexcept { return _bytes.data(); }

    friend bool operator==(const short_text&, const short_text&) noexcept = default;

  private:
    size_t _length = 0;
    std::array<char, Room> _bytes{};
};

/// A chunk as it was when it was allocated or listed. It is a value: it owns nothing, and the chunk
/// can be freed by any process meanwhile. The calls that take a chunk look at it again.
class chunk {
  public:
    chunk() noexcept = default;
    chunk(std::string_view name, dma_address dma, bytes size) noexcept
        : _name(name), _dma(dma), _size(size) {}

    std::string_view name() const noexcept { return _name.view(); }
    /// The name with a zero byte after it, for the C calls.
    const char* c_name() const noexcept { return _name.c_str(); }
    /// Where devices see its first byte.
    dma_address dma() const noexcept { return _dma; }
    /// Whole pages.
    bytes size() const noexcept { return _size; }

    friend bool operator==(const chunk&, const chunk&) noexcept = default;

  private:
    short_text<64> _name; ///< 60 bytes are what a listing can tell of a damaged one
    dma_address _dma;
    bytes _size;
};

/// The longest name that a chunk can have, in bytes.
inline constexpr size_t longest_name = 49;
/// The longest creator that a record holds, in bytes; the library shortens longer ones.
inline constexpr size_t longest_creator = 99;

/// Larger chunks are refused: the library would end every process that registers a device while one
/// exists.
inline constexpr bytes largest_chunk = 2_GiB;

/// Whether a name bounds the region, so that no chunk can have it.
constexpr bool is_reserved(std::string_view name) noexcept {
    return name == "__HEAD" || name == "__TAIL";
}

namespace detail {

/// As many bytes of a text as a message shows.
inline int shown(std::string_view text) noexcept {
    constexpr size_t most = 60;
    return static_cast<int>(std::min(text.size(), most));
}

inline constexpr size_t name_room = longest_name + 1; ///< with the zero byte

/// A name that the library takes without ending the process, and finds again.
inline result<void> check_name(std::string_view name) noexcept {
    if (name.empty() || name.size() > longest_name) {
        return error(error_code::bad_name, "a name of %zu bytes; give it 1 to %zu ('%.*s')",
                     name.size(), longest_name, shown(name), name.data());
    }
    if (name.find('\0') != std::string_view::npos) {
        return error(error_code::bad_name, "the name '%.*s' has a zero byte in it; leave it out",
                     shown(name), name.data());
    }
    if (is_reserved(name)) {
        return error(error_code::bad_name, "the name %.*s bounds the region; choose another",
                     shown(name), name.data());
    }
    if (name.back() == ' ') {
        return error(error_code::bad_name,
                     "the name '%.*s' ends in a blank, which a listing cannot show; leave it out",
                     shown(name), name.data());
    }
    return {};
}

inline result<void> check_creator(std::string_view creator) noexcept {
    if (creator.empty()) {
        return error(error_code::bad_creator, "an empty creator; say who allocates");
    }
    if (creator.find('\0') != std::string_view::npos) {
        return error(error_code::bad_creator, "the creator '%.*s' has a zero byte in it",
                     shown(creator), creator.data());
    }
    return {};
}

inline result<void> check_size(bytes size) noexcept {
    if (size == bytes() || size > largest_chunk) {
        return error(error_code::bad_size, "a chunk of %llu bytes; ask for 1 to %llu",
                     static_cast<unsigned long long>(size.count()),
                     static_cast<unsigned long long>(largest_chunk.count()));
    }
    return {};
}

/// The creator as it is given to the library. Of one that does not fit the record the library keeps
/// some bytes of both ends, far fewer than these, so that no memory has to be found for the rest.
class creator_text {
  public:
    explicit creator_text(std::string_view creator) noexcept
        : _text(creator.size() < room ? creator : std::string_view()) {
        if (creator.size() >= room) {
            std::array<char, 2 * end_bytes> ends{};
            std::copy_n(creator.begin(), end_bytes, ends.begin());
            std::copy_n(creator.end() - end_bytes, end_bytes, ends.begin() + end_bytes);
            _text = short_text<room>(std::string_view(ends.data(), ends.size()));
        }
    }

    const char* c_str() const noexcept { return _text.c_str(); }

  private:
    static constexpr size_t end_bytes = 100;
    static constexpr size_t room = 2 * end_bytes + 1;

    short_text<room> _text;
};

} // namespace detail

} // namespace tarvo
