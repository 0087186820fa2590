#pragma once

#include "clause.hpp"
#include "lines.hpp"

#include <cstdint>
#include <string>

namespace driver_check {

/// A name for memory of the contiguous memory allocator that no program has, with that ending.
std::string own_name(const std::string& ending);

/// Memory that a check may map for the device and write to: taken from the contiguous memory
/// allocator and given back, or, in a plain region, its last pages.
class own_memory {
  public:
    explicit own_memory(const subject& all);
    ~own_memory();
    own_memory(const own_memory&) = delete;
    own_memory& operator=(const own_memory&) = delete;

    static constexpr uint64_t page_count = 4;

    uint64_t page_pa(uint64_t number) const;
    /// So many pages from one on, as the library has them for a chunk.
    requested_range chunk(uint64_t first_page, uint64_t pages) const;
    /// The same, to the last byte.
    requested_range exact(uint64_t first_page, uint64_t pages) const;

  private:
    region_line _region;
    std::string _name; ///< empty in a plain region
    uint64_t _pa = 0;
};

/// A mapping that is undone when the object goes.
class device_mapping {
  public:
    /// Throws a breach where the driver refuses it, not_applicable where there is no IOMMU, and
    /// failure where another driver has the device.
    device_mapping(const tarvo::device& device, const requested_range& range,
                   unsigned prot = read_and_write);
    ~device_mapping();
    device_mapping(const device_mapping&) = delete;
    device_mapping& operator=(const device_mapping&) = delete;

    /// Does so now; throws a breach where the driver refuses it.
    void undo(unsigned prot = read_and_write);

  private:
    tarvo::device _device;
    requested_range _range;
    bool _stands = true;
};

/// Throws a breach unless the driver accepts the whole line.
void require_accepted(const std::string& line);

} // namespace driver_check
