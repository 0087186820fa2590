#include "assertion.hpp"
#include "iommu/registry.hpp"
#include "iommu/request.hpp"
#include "tarvo.h"

// Requests for the whole region at once, for a device that is to see all of it. No record is kept
// and no lock taken.

namespace {

constexpr unsigned no_access = 0;

/// The region with an exclusive end. There is no error value for a library that cannot start:
/// the process ends, with the line and signature that the exported call is known by.
iommu_mapping_t whole_region(unsigned line, const char* signature) {
    uint32_t start_dma = 0;
    uint32_t end_dma = 0;
    TARVO_ASSERT_AT(tarvo_get_limits(&start_dma, &end_dma) == 0,
                    "tarvo_get_limits(&start_dma, &end_dma) == 0", "tarvo", line, signature);
    const uint64_t end_pa = tarvo_dma_to_pa(end_dma);
    const uint64_t start_pa = tarvo_dma_to_pa(start_dma);
    return {static_cast<int64_t>(start_pa), static_cast<int64_t>(end_pa),
            static_cast<int32_t>(start_dma), static_cast<int32_t>(end_dma)};
}

} // namespace

int tarvo_iommu_map(uint32_t domain, uint32_t bus, uint32_t devfn, uint32_t prot) {
    iommu_mapping_t range = whole_region(982, "int tarvo_iommu_map(uint, uint, uint, uint)");
    return tarvo_iommu_act("map", domain, bus, devfn, prot, &range);
}

int tarvo_iommu_unmap(uint32_t domain, uint32_t bus, uint32_t devfn) {
    // Before the registry is asked: a region that cannot be described ends the process even for a
    // device whose chunks alone would be unmapped.
    iommu_mapping_t range = whole_region(995, "int tarvo_iommu_unmap(uint, uint, uint)");
    const int result = tarvo_unregister_device(domain, bus, devfn);
    if (result != not_registered) {
        return result;
    }
    return tarvo_iommu_act("unmap", domain, bus, devfn, no_access, &range);
}
