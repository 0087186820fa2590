#pragma once

#include "iommu_request.hpp"
#include "sandbox.hpp"

#include <cstdint>
#include <string>
#include <vector>

/// A sandbox with one program in it, and what tests of devices look at after each step.
class iommu_machine {
  public:
    explicit iommu_machine(const world& chosen, const std::vector<std::string>& options = {},
                           const std::vector<std::string>& first_commands = {})
        : box(chosen, options), user(box.start(first_commands)) {}

    sandbox box;
    client user;

    std::string call(const std::string& command) { return user.call(command); }
    int register_device(const pci_device& device);
    int unregister_device(const pci_device& device);
    /// Writes the flag into the shared area, without the library.
    void set_online(int device, bool online) const;

    /// Request lines, and all that the request file was asked as shown() says it, since the last
    /// time.
    std::vector<std::string> new_lines();
    std::vector<std::string> new_events();

    /// The devices a chunk is mapped for, by record number in the order of its list.
    std::vector<int> devices_of(int chunk) const;
    /// The flags of the registered devices in the order of their list.
    std::vector<int> online() const;

  private:
    size_t _lines_reported = 0;
    size_t _events_reported = 0;
};
