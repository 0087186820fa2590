/* SPDX-License-Identifier: MIT */
#pragma once

#include "tarvo.h"
#include "tarvo/device.hpp"
#include "tarvo/listing.hpp"
#include "tarvo/region.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>

/// @file
/// Which devices see the chunks, and the region.

namespace tarvo {

/// As many devices as can be registered.
inline constexpr size_t most_devices = 256;

/// What a device may do with the whole region.
enum class access : uint32_t { none = 0, read = 1, write = 2, read_write = 3 };

namespace detail {

/// The region, for calls that must not be made under a listing.
inline result<limits> unlisted_region() noexcept {
    if (the_listing.open) {
        return already_listing();
    }
    return get_limits();
}

/// Whether one more registration of `wanted` ends well.
inline result<void> check_registrable(const listing& now, const device& wanted) noexcept {
    const chunk_range chunks = now.chunks();
    const auto too_large = [](const listed_chunk& chunk) { return chunk.size() > largest_chunk; };
    if (const auto found = std::ranges::find_if(chunks.begin(), chunks.end(), too_large);
        found != chunks.end()) {
        return error(error_code::bad_size,
                     "'%s' has more than %llu bytes, which no device can be given; free it first",
                     found->c_name(), static_cast<unsigned long long>(largest_chunk.count()));
    }
    size_t others = 0;
    for (const listed_device& known : now.devices()) {
        others += known == wanted ? 0U : 1U;
    }
    if (now.damage()) {
        return *now.damage();
    }
    if (others >= most_devices) {
        return error(error_code::too_many_devices,
                     "no place for %s: %zu devices are registered; unregister one",
                     wanted.text().c_str(), others);
    }
    return {};
}

/// One request for the whole region can have less than 2 GiB.
inline result<void> check_whole_region() noexcept {
    const result<limits> region = unlisted_region();
    if (!region) {
        return region.error();
    }
    if (region->size >= 2_GiB) {
        return error(error_code::bad_size,
                     "a region of 0x%llx bytes cannot be mapped at once; register the device",
                     static_cast<unsigned long long>(region->size.count()));
    }
    return {};
}

inline constexpr int not_registered = -2; ///< of tarvo_unregister_device()

inline error request_refused(const char* what, const device& known) noexcept {
    return {error_code::refused, "the kernel driver refuses to %s %s; standard error says why",
            what, known.text().c_str()};
}

} // namespace detail

/// Registers a device, or revives one that is registered, and maps every chunk for it. The
/// registration outlives the process.
///
/// @return nothing; too_many_devices; bad_size when a chunk of more than 2 GiB exists; refused when
///         a chunk could not be mapped, with the device registered all the same; damaged,
///         not_started, not_locked, listing_open.
///
/// Takes the lock, also while the requests are sent.
inline result<void> register_device(const device& wanted) noexcept {
    const result<listing> now = listing::open();
    if (!now) {
        return now.error();
    }
    if (result<void> possible = detail::check_registrable(*now, wanted); !possible) {
        return possible;
    }
    if (tarvo_register_device(wanted.domain(), wanted.bus(), wanted.devfn()) != 0) {
        return detail::request_refused("map the chunks for", wanted);
    }
    return {};
}

/// Unmaps every chunk for a device and forgets it.
///
/// @return nothing; not_registered; refused, also when the lock cannot be taken, with the device
///         still registered; not_started, listing_open.
///
/// Takes the lock, also while the requests are sent.
inline result<void> unregister_device(const device& known) noexcept {
    if (const result<limits> region = detail::unlisted_region(); !region) {
        return region.error();
    }
    switch (tarvo_unregister_device(known.domain(), known.bus(), known.devfn())) {
    case 0:
        return {};
    case detail::not_registered:
        return error(error_code::not_registered, "%s is not registered", known.text().c_str());
    default:
        return detail::request_refused("unmap the chunks for", known);
    }
}

/// Maps the whole region for a device by one request; nothing is recorded, no lock taken.
///
/// @return nothing; bad_size for a region of 2 GiB and more; refused, not_started, listing_open.
inline result<void> iommu_map(const device& known, access allowed) noexcept {
    if (result<void> possible = detail::check_whole_region(); !possible) {
        return possible;
    }
    if (tarvo_iommu_map(known.domain(), known.bus(), known.devfn(),
                        static_cast<uint32_t>(allowed)) != 0) {
        return detail::request_refused("map the region for", known);
    }
    return {};
}

/// Undoes iommu_map(). A registered device is unregistered instead. Takes the lock.
///
/// @return as iommu_map().
inline result<void> iommu_unmap(const device& known) noexcept {
    if (result<void> possible = detail::check_whole_region(); !possible) {
        return possible;
    }
    if (tarvo_iommu_unmap(known.domain(), known.bus(), known.devfn()) != 0) {
        return detail::request_refused("unmap the region for", known);
    }
    return {};
}

} // namespace tarvo
