#include "driver/cma_table.hpp"

#include <algorithm>
#include <cerrno>

namespace sandbox {

namespace {

constexpr uint64_t page_bytes = 4096;

/// Wraps to 0 above the last whole page, which no region can hold.
uint64_t round_up_to_page(uint64_t value) {
    return (value + page_bytes - 1) / page_bytes * page_bytes;
}

} // namespace

const cma_allocation* cma_table::overlapped_by(uint64_t pa, uint64_t size_bytes) const {
    const auto overlaps = [=](const cma_allocation& held) {
        return pa < held.first_pa + round_up_to_page(held.size_bytes) &&
               held.first_pa < pa + size_bytes;
    };
    const auto found = std::ranges::find_if(_allocations, overlaps);
    return found == _allocations.end() ? nullptr : &*found;
}

std::optional<uint64_t> cma_table::first_fit(uint64_t size_bytes) const {
    const uint64_t needed = round_up_to_page(size_bytes);
    uint64_t pa = round_up_to_page(_first_pa);
    while (needed != 0 && pa <= _last_pa && needed - 1 <= _last_pa - pa) {
        const cma_allocation* const held = overlapped_by(pa, needed);
        if (held == nullptr) {
            return pa;
        }
        pa = round_up_to_page(held->first_pa + held->size_bytes);
    }
    return std::nullopt;
}

int cma_table::allocate(const std::string& name, uint64_t size_bytes,
                        std::optional<uint64_t> address) {
    if (std::ranges::find(_allocations, name, &cma_allocation::name) != _allocations.end()) {
        return EEXIST;
    }
    if (!address) {
        address = first_fit(size_bytes);
    }
    if (!address) {
        return ENOMEM;
    }
    _allocations.push_back({name, *address, size_bytes});
    return 0;
}

int cma_table::release(const std::string& name, uint64_t size_bytes) {
    const auto held = [&](const cma_allocation& other) {
        return other.name == name && other.size_bytes == size_bytes;
    };
    return std::erase_if(_allocations, held) == 0 ? ENOENT : 0;
}

} // namespace sandbox
