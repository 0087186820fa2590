#pragma once

#include <filesystem>
#include <string>
#include <vector>

/// One request that the kernel driver's double was made.
struct driver_event {
    unsigned long seq;
    int pid;
    std::string file;   ///< "proc" or "sysfs"
    std::string event;  ///< "open", "write" or "close"
    std::string flags;  ///< "r", "w" or "rw"
    std::string bytes;  ///< exactly those written
    std::string answer; ///< "ok" or the name of an errno
};

/// Everything the driver was asked, in order.
std::vector<driver_event> driver_events(const std::filesystem::path& log);

/// Such as "sysfs open w", "sysfs write ENODEV: map 0 3 0 ...", "proc close".
std::string shown(const driver_event& event);
