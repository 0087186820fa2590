#include "iommu_request.hpp"

#include "texts.hpp"

#include <algorithm>

namespace {

constexpr uint32_t read_and_write = 3;

/// In the 32 bits and with the sign that both the line and its report have.
std::string with_sign(uint32_t number) {
    return std::to_string(static_cast<int32_t>(number));
}

std::string padded_hex(uint32_t number, size_t digits) {
    const std::string shown = hex(number);
    return std::string(digits - std::min(digits, shown.size()), '0') + shown;
}

} // namespace

std::string pci_device::name() const {
    return padded_hex(domain, 4) + ":" + padded_hex(bus, 2) + ":" + padded_hex(devfn / 8 % 32, 2) +
           "." + hex(devfn % 8);
}

std::string iommu_request::line() const {
    return op + " " + with_sign(device.domain) + " " + with_sign(device.bus) + " " +
           with_sign(device.devfn) + " " + std::to_string(start_pa) + " " +
           std::to_string(last_pa) + " " + std::to_string(start_dma) + " " + with_sign(prot) + "\n";
}

std::string iommu_request::refusal(int error) const {
    return "tarvo: failed to iommu " + op + " domain " + with_sign(device.domain) + " bus " +
           with_sign(device.bus) + " devfn " + with_sign(device.devfn) + " startpa 0x" +
           hex(start_pa) + " endpa 0x" + hex(last_pa) + " startdma 0x" + hex(start_dma) + " prot " +
           with_sign(prot) + " errno " + std::to_string(error) + "\n";
}

iommu_request chunk_request(const std::string& op, const pci_device& device, const world& chosen,
                            const chunk_place& chunk) {
    return {op, device, chunk.pa, chunk.pa + chunk.size - 2, chosen.dma(chunk.pa), read_and_write};
}

std::string chunk_failure(const std::string& op, const pci_device& device, const world& chosen,
                          const chunk_place& chunk) {
    const uint64_t last = chunk.pa + chunk.size - 1;
    return "map_unmap_chunk: " + op + " on dev " + device.name() + " failed: -1, DMA(0x" +
           hex(chosen.dma(chunk.pa)) + " - 0x" + hex(chosen.dma(last)) + ") -> PA(0x" +
           hex(chunk.pa) + " - 0x" + hex(last) + ")\n";
}

std::string chunk_refusal(const std::string& op, const pci_device& device, const world& chosen,
                          const chunk_place& chunk, int error) {
    return chunk_request(op, device, chosen, chunk).refusal(error) +
           chunk_failure(op, device, chosen, chunk);
}

iommu_request region_request(const std::string& op, const pci_device& device, const world& chosen,
                             uint32_t prot) {
    return {op, device, chosen.start, chosen.end() - 1, chosen.start_dma, prot};
}

std::vector<std::string> chunk_lines(const std::string& op, const std::vector<pci_device>& devices,
                                     const world& chosen, const std::vector<chunk_place>& chunks) {
    std::vector<std::string> lines;
    for (const pci_device& device : devices) {
        for (const chunk_place& chunk : chunks) {
            lines.push_back(chunk_request(op, device, chosen, chunk).line());
        }
    }
    return lines;
}
