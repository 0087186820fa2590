#pragma once

#include "shared/dma_window.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct iommu_dev_t;
struct shared_area_t;

namespace tarvoctl {

/// A registered PCI device.
struct device_record {
    int index; ///< element number, by which chunks refer to it
    uint32_t domain;
    uint32_t bus;
    uint32_t devfn; ///< slot * 8 + function
    bool online;
};

/// "0000:03:00.0"
std::string device_text(const device_record& device);

/// A device as its record has it, whatever that is.
device_record record_of(int index, const iommu_dev_t& device);

/// A chunk; the sentinels are not among them.
struct chunk_record {
    int index; ///< element number
    std::string name;
    uint64_t pa; ///< of the first byte
    uint32_t size;
    std::string creator;
    std::vector<int> devices; ///< element numbers of the devices it is mapped for

    uint64_t end_pa() const { return pa + size; } ///< one past the last byte
    /// By element number, so only for a device that is registered.
    bool is_mapped_for(const device_record& device) const;
};

/// Why it is unknown which memory is a chunk's: all that the library makes have bytes, and begin
/// and end on a page. A copy may come from a machine with larger pages: the smallest that there are
/// count.
std::optional<std::string> damage_to_bounds(const chunk_record& chunk);

/// What is on record, at one moment.
struct picture {
    dma_window region;                  ///< empty where the records do not say
    std::vector<chunk_record> chunks;   ///< in list order, which is that of their addresses
    std::vector<device_record> devices; ///< in order of registration
    /// Why the region is unknown, or a list could not be read to its end; what was read before
    /// is above.
    std::vector<std::string> damage;
    /// Whether the list of chunks led to its end, each link with its counterpart, and each chunk
    /// fills whole pages. Only then is what lies in no chunk free.
    bool all_chunks = true;
    /// False: read while others changed it, so parts may be of different moments.
    bool consistent = true;

    bool has_region() const { return region.first_pa < region.end_pa; }
    /// The registered device with that element number; null if there is none.
    const device_record* device_at(int index) const;
    /// The registered device with that one's address; null if there is none.
    const device_record* registered(const device_record& device) const;
    /// The chunk that calls by that name find: the lowest one; null if there is none.
    const chunk_record* find(const std::string& name) const;
    /// For each chunk in turn, whether there is another one of its name.
    std::vector<bool> duplicates() const;
};

/// Of an area's copy, whatever its bytes are: a list that runs in circles or out of the array is
/// left where it does so.
picture picture_of(const shared_area_t& area);

} // namespace tarvoctl
