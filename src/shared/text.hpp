#pragma once

#include "shared/layout.hpp"

#include <memory>
#include <string>

/// The text of a finished asprintf as a shared string, which takes over `text`; to_string_err
/// where asprintf failed, that is where `length` is negative, or where memory for it is short.
std::shared_ptr<std::string> adopt_text(int length, char* text);

/// A device's PCI address, such as 0000:03:00.0.
std::shared_ptr<std::string> device_name(const iommu_dev_t& dev);
