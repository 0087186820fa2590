#pragma once

#include "area/records.hpp"
#include "exit_status.hpp"
#include "shown.hpp"

#include <cstdint>
#include <string>

namespace tarvoctl {

/// A device as "0000:03:00.0".
std::string device_text(const device_record& device);

/// The devices a chunk is mapped for, such as "0000:03:00.0 (offline)", or "-" for none. What
/// points at no registered device reads "?7", with the element number.
std::string devices_text(const chunk_record& chunk, const picture& records);

/// "0x80000000-0x80000fff": the first and the last byte.
std::string pa_range(const chunk_record& chunk);
/// The same for devices; "?" where it is not known where the region lies.
std::string dma_range(const chunk_record& chunk, const picture& records);

/// A size in bytes as it is, or for people: "64K", "2M", "1.5G", "100".
std::string size_text(uint64_t bytes, bool human);

/// Tells of lists that could not be read to their end, on standard error, and what that means for
/// how the command ends: damaged, or good.
exit_status told_damage(const std::vector<std::string>& damage);

/// Where the region lies. Throws failure where the records do not tell.
const dma_window& known_region(const picture& records);

} // namespace tarvoctl
