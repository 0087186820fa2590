/* SPDX-License-Identifier: MIT */
#pragma once

#include "tarvo.h"
#include "tarvo/chunk.hpp"
#include "tarvo/listing.hpp"
#include "tarvo/region.hpp"

#include <algorithm>
#include <string_view>

/// @file
/// Chunks: allocate or share one, find one, free one.

namespace tarvo {

namespace detail {

/// The first chunk of a listing for which `wanted` holds; the error is `otherwise`, or the damage
/// that ended the search.
template <typename Predicate>
result<listed_chunk> first_chunk(const listing& now, Predicate wanted,
                                 const error& otherwise) noexcept {
    const chunk_range all = now.chunks();
    const auto found = std::ranges::find_if(all.begin(), all.end(), wanted);
    if (found != all.end()) {
        return *found;
    }
    return now.damage().value_or(otherwise);
}

inline error no_chunk(std::string_view name) noexcept {
    return {error_code::not_found, "no chunk is called '%.*s'; tarvo::listing shows what there is",
            shown(name), name.data()};
}

/// The chunk that every call by that name means: the lowest one.
inline result<listed_chunk> lowest_named(const listing& now, std::string_view name) noexcept {
    return first_chunk(
        now, [name](const listed_chunk& chunk) { return chunk.name() == name; }, no_chunk(name));
}

/// Whether calls by the chunk's name still mean this chunk.
inline result<void> check_unchanged(const listing& now, const chunk& known) noexcept {
    const result<listed_chunk> found = lowest_named(now, known.name());
    if (!found) {
        return found.error();
    }
    if (*found != known) {
        return error(error_code::changed,
                     "'%s' was the chunk of %llu bytes at DMA address 0x%x and is another one by "
                     "now, of %llu bytes at 0x%x; look it up again",
                     known.c_name(), static_cast<unsigned long long>(known.size().count()),
                     known.dma().value(), static_cast<unsigned long long>(found->size().count()),
                     found->dma().value());
    }
    return {};
}

/// With a listing open, so that between the look at the chunks and the call nobody comes in: a call
/// that finds the lock held by its own process keeps it until it is done.
inline result<void> free_under_lock(const chunk& known) noexcept {
    if (tarvo_free(known.c_name()) != 0) {
        return error(error_code::refused,
                     "a kernel driver refuses to give up '%s'; standard error says which",
                     known.c_name());
    }
    return {};
}

} // namespace detail

/// Gets the chunk called `name`: the one that exists with that size, or a new one that is zero.
///
/// @param name     1 to 49 bytes, none of them zero, the last one not a blank; not __HEAD, __TAIL.
/// @param size     1 byte to largest_chunk; rounded up to whole pages.
/// @param creator  who allocates, for people; not empty. Of 100 bytes and more both ends are kept.
/// @return the chunk. bad_name, bad_creator, bad_size; size_mismatch when the name is another
///         chunk's (the C call makes a second chunk of that name, which no name leads to); no_room
///         also when the lock is lost or a record lies outside the region; damaged, not_started,
///         not_locked, listing_open.
///
/// Takes the lock. Ends the process when a device or the memory's driver refuses the new chunk, as
/// tarvo_alloc_func() does. Others can find the chunk before it is zeroed.
inline result<chunk> allocate(std::string_view name, bytes size,
                              std::string_view creator) noexcept {
    for (const result<void>& sound :
         {detail::check_name(name), detail::check_creator(creator), detail::check_size(size)}) {
        if (!sound) {
            return sound.error();
        }
    }
    const result<listing> now = listing::open();
    if (!now) {
        return now.error();
    }
    const bytes rounded = rounded_to_pages(size);
    const result<listed_chunk> named = detail::lowest_named(*now, name);
    if (!named && named.error().code() != error_code::not_found) {
        return named.error();
    }
    if (named && named->size() != rounded) {
        return error(error_code::size_mismatch,
                     "'%s' exists with %llu bytes, not %llu; ask for its size or choose a name",
                     named->c_name(), static_cast<unsigned long long>(named->size().count()),
                     static_cast<unsigned long long>(rounded.count()));
    }
    const short_text<detail::name_room> c_name(name);
    const detail::creator_text c_creator(creator);
    const dma_address dma(
        tarvo_alloc_func(c_name.c_str(), static_cast<size_t>(rounded.count()), c_creator.c_str()));
    if (dma == dma_address()) {
        return error(error_code::no_room,
                     "no room for '%s', %llu bytes: no gap is that large, or no record is left, or "
                     "standard error says why",
                     c_name.c_str(), static_cast<unsigned long long>(rounded.count()));
    }
    return chunk(name, dma, rounded);
}

/// The chunk that calls by that name mean: the lowest one.
///
/// @return the chunk; bad_name, not_found, damaged, not_started, not_locked, listing_open. A chunk
///         whose name ends in blanks (made by a C call) is taken for one without them.
///
/// Takes the lock.
inline result<listed_chunk> find_chunk(std::string_view name) noexcept {
    if (const result<void> sound = detail::check_name(name); !sound) {
        return sound.error();
    }
    const result<listing> now = listing::open();
    return now ? detail::lowest_named(*now, name) : now.error();
}

/// The chunk that the byte at a DMA address lies in. Looks at the records under the lock: the text
/// that tarvo_find() returns can change while it is read.
///
/// @return the chunk; bad_address outside the region; not_found, damaged, not_started, not_locked,
///         listing_open. Takes the lock.
inline result<listed_chunk> find_chunk(dma_address dma) noexcept {
    const result<physical_address> pa = dma_to_pa(dma);
    if (!pa) {
        return pa.error();
    }
    const result<listing> now = listing::open();
    if (!now) {
        return now.error();
    }
    return detail::first_chunk(
        *now,
        [pa = *pa](const listed_chunk& chunk) {
            return chunk.physical() <= pa && pa - chunk.physical() < chunk.size();
        },
        error(error_code::not_found, "no chunk holds DMA address 0x%x", dma.value()));
}

/// Frees a chunk, for all processes, if its name still means this one. Its memory is not touched
/// and stays visible through mappings that exist, also of this process.
///
/// @return nothing; not_found, changed; refused by a device, with the chunk still listed but mapped
///         for none, or by the driver of a CMA region; damaged, not_started, not_locked,
///         listing_open. Takes the lock.
inline result<void> free_chunk(const chunk& known) noexcept {
    const result<listing> now = listing::open();
    if (!now) {
        return now.error();
    }
    if (result<void> same = detail::check_unchanged(*now, known); !same) {
        return same;
    }
    return detail::free_under_lock(known);
}

/// Frees the lowest chunk of that name, whatever its size.
///
/// @return as above, and bad_name; never changed. Takes the lock.
inline result<void> free_chunk(std::string_view name) noexcept {
    if (result<void> sound = detail::check_name(name); !sound) {
        return sound;
    }
    const result<listing> now = listing::open();
    if (!now) {
        return now.error();
    }
    const result<listed_chunk> found = detail::lowest_named(*now, name);
    return found ? detail::free_under_lock(*found) : found.error();
}

} // namespace tarvo
