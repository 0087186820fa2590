#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sandbox {

struct cma_allocation {
    std::string name;
    std::uint64_t first_pa = 0;
    std::uint64_t size_bytes = 0;
};

// The named allocations of one region, in the order in which they were made.
class cma_table {
  public:
    // last_pa is the region's last byte, as the region line gives it.
    cma_table(std::uint64_t first_pa, std::uint64_t last_pa)
        : first_pa_{first_pa}, last_pa_{last_pa} {}

    // 0 or an errno. A name that is held already answers EEXIST whatever its size. An address that
    // is handed in is taken as it is, also outside the region or on top of another allocation.
    int allocate(const std::string& name, std::uint64_t size_bytes,
                 std::optional<std::uint64_t> address);

    // 0 or ENOENT. The name alone decides; the size is not compared.
    int release(const std::string& name);

    const std::vector<cma_allocation>& allocations() const { return allocations_; }

  private:
    std::optional<std::uint64_t> first_fit(std::uint64_t size_bytes) const;
    const cma_allocation* overlapped_by(std::uint64_t pa, std::uint64_t size_bytes) const;

    std::uint64_t first_pa_;
    std::uint64_t last_pa_;
    std::vector<cma_allocation> allocations_;
};

} // namespace sandbox
