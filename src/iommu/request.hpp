#pragma once

#include <cstdint>

/// The range of one IOMMU request.
struct iommu_mapping_t {
    int64_t start_pa;
    int64_t end_pa; ///< the request carries end_pa - 1
    int32_t start_dma;
    int32_t end_dma; ///< only checked, never sent

    /// Ends the process unless both ranges have one length, so that no request is ever sent for
    /// a range that is not translated linearly.
    iommu_mapping_t(int64_t from_pa, int64_t to_pa, int32_t from_dma, int32_t to_dma);
};

/// Asks the kernel driver to "map" or "unmap" (`op`) a range for one PCI device, with `prot` as
/// its protection mask. Returns 0 when the driver accepted, or has no IOMMU at all; a negative
/// value otherwise, and standard error has a report. errno is then what the last of these steps
/// left, in most cases the driver's answer. Takes no lock.
int tarvo_iommu_act(const char* op, unsigned domain, unsigned bus, unsigned devfn, unsigned prot,
                    iommu_mapping_t* mapping);
