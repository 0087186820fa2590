#pragma once

#include "iommu_machine.hpp"
#include "observed.hpp"

using numbers = std::vector<int>;

inline constexpr pci_device first{0, 3, 0};
inline constexpr pci_device second{0, 4, 0x11};
inline constexpr pci_device third{1, 3, 0};
inline const std::vector<pci_device> all_three{first, second, third};

/// Three devices, records 0 to 2 and online, and three chunks of a page, records 2 to 4 and in the
/// order of their addresses, none mapped for any device.
class iommu_scene : public iommu_machine {
  public:
    explicit iommu_scene(const world& chosen, const std::string& trace = "")
        : iommu_machine(chosen, {}, {"setenv ZUL_TRACE \"" + trace + "\""}) {
        for (const pci_device& device : all_three) {
            register_device(device);
        }
        for (int i = 0; i < 3; i++) {
            set_online(i, false);
        }
        for (const char* name : {"rx_ring", "tx_ring", "stats"}) {
            user.alloc(name, page_bytes());
        }
        for (int i = 0; i < 3; i++) {
            set_online(i, true);
        }
        user.new_text();
    }

    chunk_place place(size_t chunk) const {
        return {box.chosen().start + pages(chunk), static_cast<uint32_t>(page_bytes())};
    }
    std::vector<chunk_place> places() const { return {place(0), place(1), place(2)}; }
    std::vector<numbers> devices_of_all() const {
        return {devices_of(2), devices_of(3), devices_of(4)};
    }
    /// Records 0, 1 and 2 of each chunk are then those of devices 0, 1 and 2.
    void map_everything() {
        for (const char* device : {"0", "1", "2"}) {
            call(std::string("map_chunks_to_dev ") + device);
        }
        new_events();
        new_lines();
    }
};
