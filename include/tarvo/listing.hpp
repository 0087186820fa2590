/* SPDX-License-Identifier: MIT */
#pragma once

#include "tarvo.h"
#include "tarvo/chunk.hpp"
#include "tarvo/device.hpp"
#include "tarvo/region.hpp"

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <ranges>
#include <string_view>
#include <utility>

/// @file
/// What the region holds: ranges over chunks and devices, in one consistent picture.

namespace tarvo {

/// A chunk with all that a listing tells of it.
class listed_chunk : public chunk {
  public:
    listed_chunk() noexcept = default;
    listed_chunk(const chunk& what, int element, std::string_view creator,
                 physical_address pa) noexcept
        : chunk(what), _element(element), _creator(creator), _pa(pa) {}

    /// The number of its record.
    int element() const noexcept { return _element; }
    /// Who allocated it, without blanks at its end.
    std::string_view creator() const noexcept { return _creator.view(); }
    physical_address physical() const noexcept { return _pa; }

  private:
    int _element = 0;
    short_text<112> _creator;
    physical_address _pa;
};

/// A registered device.
class listed_device : public device {
  public:
    listed_device() noexcept = default;
    listed_device(const device& what, bool online) noexcept : device(what), _online(online) {}

    /// Whether chunks made now are mapped for it.
    bool online() const noexcept { return _online; }

  private:
    bool _online = false;
};

namespace detail {

/// The listing of this process. The library keeps its place in one, and so there is one.
struct listing_state {
    bool open = false;
    limits region;
    std::optional<error> damage;
};

inline listing_state the_listing;

/// A line of a listing; longer ones are damaged records.
using listing_line = std::array<char, 512>;

inline std::string_view without_blanks_at_the_end(std::string_view text) noexcept {
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

/// Cuts the last word off `text`, with the blanks before it. It can be empty.
inline std::string_view last_word(std::string_view& text) noexcept {
    const std::string_view word = text.substr(text.find_last_of(' ') + 1);
    text = without_blanks_at_the_end(text.substr(0, text.size() - word.size()));
    return word;
}

template <typename Number>
bool read_number(std::string_view text, Number& value, int base) noexcept {
    const char* end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, value, base);
    return !text.empty() && read.ec == std::errc() && read.ptr == end;
}

/// The fields of a chunk's line. Name and creator can hold blanks, so the line is taken apart from
/// both ends, and what is left is as wide as the two columns.
struct chunk_line {
    int element = 0;
    std::string_view name;
    std::string_view creator;
    uint64_t pa = 0;
    int32_t size = 0; ///< wraps from 2 GiB on

    /// False when `line` is no such line.
    bool read(std::string_view line) noexcept {
        constexpr size_t name_columns = 60;
        constexpr size_t creator_columns = 110;
        const size_t width = name_columns + 1 + creator_columns;
        std::string_view rest = line;
        const std::string_view size_word = last_word(rest);
        const std::string_view pa_word = rest.substr(rest.find_last_of(' ') + 1);
        rest.remove_suffix(pa_word.size());
        if (rest.size() <= width + 2 || !pa_word.starts_with("0x")) {
            return false;
        }
        const std::string_view texts = rest.substr(rest.size() - 1 - width, width);
        std::string_view element_word = rest.substr(0, rest.size() - 2 - width);
        element_word.remove_prefix(element_word.find_last_of(' ') + 1);
        name = without_blanks_at_the_end(texts.substr(0, name_columns));
        creator = without_blanks_at_the_end(texts.substr(name_columns + 1));
        return read_number(element_word, element, 10) && read_number(pa_word.substr(2), pa, 16) &&
               read_number(size_word, size, 10);
    }
};

/// What a line of the library's says; nothing, and the damage noted, when it makes no sense.
inline std::optional<listed_chunk> chunk_of(std::string_view line, listing_state& state) noexcept {
    chunk_line fields;
    if (!fields.read(line)) {
        state.damage.emplace(error_code::damaged, "no chunk's line: '%.*s'",
                             static_cast<int>(line.size()), line.data());
        return std::nullopt;
    }
    const physical_address pa(fields.pa);
    const bytes size(static_cast<uint32_t>(fields.size));
    if (!state.region.holds(pa) || !state.region.holds(pa + size)) {
        state.damage.emplace(error_code::damaged,
                             "chunk %d, '%.*s', has 0x%llx bytes from 0x%llx on: outside the "
                             "region",
                             fields.element, shown(fields.name), fields.name.data(),
                             static_cast<unsigned long long>(size.count()),
                             static_cast<unsigned long long>(pa.value()));
        return std::nullopt;
    }
    const chunk what(fields.name, dma_address(tarvo_pa_to_dma(pa.value())), size);
    return listed_chunk(what, fields.element, fields.creator, pa);
}

inline std::optional<listed_device> device_of(std::string_view line,
                                              listing_state& state) noexcept {
    const size_t colon = line.find_last_of(':');
    const result<device> address = device::parse(line.substr(0, colon));
    const bool online = line.ends_with(": online");
    if (!address || (!online && !line.ends_with(": offline"))) {
        state.damage.emplace(error_code::damaged, "no device's line: '%.*s'",
                             static_cast<int>(line.size()), line.data());
        return std::nullopt;
    }
    return listed_device(*address, online);
}

inline error already_listing() noexcept {
    return {error_code::listing_open, "a listing is open in this program and holds the lock; let "
                                      "it go first"};
}

/// Writes the next chunk's or device's line.
using line_call = bool (*)(char* line, size_t bytes);

/// The next line; nothing at the end. A line that does not fit leaves its beginning behind, and is
/// damage.
inline std::string_view next_line(line_call next, listing_line& room,
                                  listing_state& state) noexcept {
    room[0] = '\0';
    if (!state.open || state.damage) {
        return {};
    }
    if (!next(room.data(), room.size())) {
        if (room[0] != '\0') {
            state.damage.emplace(error_code::damaged, "a line of more than %zu bytes: '%s'",
                                 room.size() - 1, room.data());
        }
        return {};
    }
    return room.data();
}

/// A walk along the listing that is open, or an empty one. A view with an input iterator.
template <typename Record, line_call Next,
          std::optional<Record> (*Parse)(std::string_view, listing_state&) noexcept>
class listed_range : public std::ranges::view_base {
  public:
    class iterator {
      public:
        using value_type = Record;
        using difference_type = std::ptrdiff_t;

        iterator() noexcept = default;
        explicit iterator(listing_state* state) noexcept : _state(state) {}
        const Record& operator*() const noexcept { return *_record; }
        const Record* operator->() const noexcept { return &*_record; }
        iterator& operator++() noexcept {
            listing_line room;
            const std::string_view line = next_line(Next, room, *_state);
            _record = line.empty() ? std::nullopt : Parse(line, *_state);
            return *this;
        }
        void operator++(int) noexcept { ++*this; }
        friend bool operator==(const iterator& at, std::default_sentinel_t /*end*/) noexcept {
            return !at._record.has_value();
        }

      private:
        listing_state* _state = nullptr;
        std::optional<Record> _record;
    };

    explicit listed_range(listing_state* state) noexcept : _state(state) {}

    /// The next record that was not visited yet.
    iterator begin() const noexcept {
        iterator first(_state);
        return _state != nullptr ? ++first : first;
    }
    std::default_sentinel_t end() const noexcept { return {}; }

  private:
    listing_state* _state; ///< null: of a listing that was moved from
};

} // namespace detail

using chunk_range = detail::listed_range<listed_chunk, tarvo_dump_next, detail::chunk_of>;
using device_range =
    detail::listed_range<listed_device, tarvo_dump_next_iommu_device, detail::device_of>;

/// One consistent picture of the region.
///
/// *** THE LOCK OF ALL PROCESSES IS HELD FOR AS LONG AS THE OBJECT LIVES. *** Every process that
/// wants anything of the library waits meanwhile: copy what you need, let it go, then print.
/// No other call may be made while it lives, by this header or by tarvo.h. Those of this header
/// notice and return listing_open; those of tarvo.h would release the lock, and what is listed from
/// then on need not fit what was listed before. Translations, and mappings that end, do no harm.
///
///     std::vector<tarvo::listed_chunk> chunks;
///     if (auto now = tarvo::listing::open()) {
///         for (const tarvo::listed_chunk& chunk : now->chunks()) {
///             chunks.push_back(chunk);
///         }
///     }
class listing {
  public:
    /// Takes the lock, waiting for it without limit.
    ///
    /// @return the listing, move-only; not_started; not_locked; listing_open when this process has
    ///         one already.
    static result<listing> open() noexcept {
        detail::listing_state& state = detail::the_listing;
        if (state.open) {
            return detail::already_listing();
        }
        const result<limits> region = get_limits();
        if (!region) {
            return region.error();
        }
        if (!tarvo_dump_begin()) {
            return error(error_code::not_locked, "the lock cannot be taken; standard error says "
                                                 "why, and a signal's handler is reason enough");
        }
        state = {true, *region, std::nullopt};
        return listing(&state);
    }

    /// The chunks in ascending address. Single pass: a second range goes on where the first ended.
    chunk_range chunks() const noexcept { return chunk_range(_state); }
    /// The registered devices in order of registration; as chunks().
    device_range devices() const noexcept { return device_range(_state); }

    /// Why a range ended before its time: a record that makes no sense. Ask it behind the loop.
    std::optional<error> damage() const noexcept {
        return _state != nullptr ? _state->damage : std::nullopt;
    }

    listing(listing&& other) noexcept : _state(std::exchange(other._state, nullptr)) {}
    listing& operator=(listing&&) = delete;
    listing(const listing&) = delete;
    listing& operator=(const listing&) = delete;
    /// Releases the lock.
    ~listing() {
        if (_state != nullptr) {
            tarvo_dump_end();
            _state->open = false;
        }
    }

  private:
    explicit listing(detail::listing_state* state) noexcept : _state(state) {}

    detail::listing_state* _state; ///< null after it was moved from
};

} // namespace tarvo
