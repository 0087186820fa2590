#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sandbox {

/// The two files through which the library speaks to the kernel driver.
enum class driver_file { proc, sysfs };

/// What one written line asks of the driver.
enum class operation { map, unmap, allocate, release };

/// A PCI device the way a request line names it: devfn is device number << 3 | function.
struct pci_device {
    uint32_t domain = 0;
    uint32_t bus = 0;
    uint32_t devfn = 0;

    bool operator==(const pci_device&) const = default;
};

/// One well-formed line. The device and its range belong to map and unmap, the rest to the CMA
/// commands.
struct request {
    operation op = operation::map;
    pci_device device;
    uint64_t start_pa = 0;
    uint64_t end_pa = 0; ///< as the line gives it
    uint32_t start_dma = 0;
    std::string name;
    uint64_t size_bytes = 0;
};

/// None when the line is not exactly of the form that its file takes, newline included.
std::optional<request> parse_request(driver_file file, std::string_view line);

} // namespace sandbox
