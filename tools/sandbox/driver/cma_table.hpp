#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sandbox {

struct cma_allocation {
    std::string name;
    uint64_t first_pa = 0;
    uint64_t size_bytes = 0;
};

/// The named allocations of one region, in the order in which they were made.
class cma_table {
  public:
    /// last_pa is the region's last byte, as the region line gives it.
    cma_table(uint64_t first_pa, uint64_t last_pa) : _first_pa{first_pa}, _last_pa{last_pa} {}

    /// 0 or an errno. A name that is held already answers EEXIST whatever its size. An address
    /// that a rule gives is used as it is, also outside the region or over another allocation.
    int allocate(const std::string& name, uint64_t size_bytes, std::optional<uint64_t> address);

    /// 0, or ENOENT where the name is not held with this size.
    int release(const std::string& name, uint64_t size_bytes);

    const std::vector<cma_allocation>& allocations() const { return _allocations; }

  private:
    std::optional<uint64_t> first_fit(uint64_t size_bytes) const;
    const cma_allocation* overlapped_by(uint64_t pa, uint64_t size_bytes) const;

    uint64_t _first_pa;
    uint64_t _last_pa;
    std::vector<cma_allocation> _allocations;
};

} // namespace sandbox
