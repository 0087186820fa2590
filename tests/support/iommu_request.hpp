#pragma once

#include "world.hpp"

#include <cstdint>
#include <string>
#include <vector>

/// A PCI device as its owner names it.
struct pci_device {
    uint32_t domain;
    uint32_t bus;
    uint32_t devfn;

    /// Such as "0000:03:00.0".
    std::string name() const;
};

/// One request to the IOMMU's kernel driver, and what is said when it is refused.
struct iommu_request {
    std::string op; ///< "map" or "unmap"
    pci_device device;
    uint64_t start_pa;
    uint64_t last_pa; ///< as the line has it
    uint32_t start_dma;
    uint32_t prot;

    /// The line written, with its newline.
    std::string line() const;
    /// What a refusal with the error of that number is first reported by.
    std::string refusal(int error) const;
};

/// Memory of one chunk.
struct chunk_place {
    uint64_t pa;
    uint32_t size;
};

/// The request for one chunk; its line ends one below the chunk's last byte.
iommu_request chunk_request(const std::string& op, const pci_device& device, const world& chosen,
                            const chunk_place& chunk);

/// The second report of a chunk's failed request, which also shows the chunk's own range.
std::string chunk_failure(const std::string& op, const pci_device& device, const world& chosen,
                          const chunk_place& chunk);

/// Both reports of a chunk's request that the driver refused.
std::string chunk_refusal(const std::string& op, const pci_device& device, const world& chosen,
                          const chunk_place& chunk, int error);

/// The request for the whole region.
iommu_request region_request(const std::string& op, const pci_device& device, const world& chosen,
                             uint32_t prot);

/// The lines of one kind of request: device by device, and for each of them chunk by chunk.
std::vector<std::string> chunk_lines(const std::string& op, const std::vector<pci_device>& devices,
                                     const world& chosen, const std::vector<chunk_place>& chunks);
