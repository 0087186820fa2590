#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

namespace model {

/// What a line that is written to the driver asks for.
struct request {
    std::string op;                                    ///< "map", "unmap", "allocate" or "release"
    std::tuple<uint32_t, uint32_t, uint32_t> device{}; ///< domain, bus, devfn
    uint64_t start_pa = 0;
    std::string name;
    uint32_t size = 0;
    uint64_t last_pa = 0; ///< as the line has it
    uint32_t start_dma = 0;
};

/// One system call on a file of the driver's.
struct driver_call {
    std::string file;               ///< "proc" or "sysfs"
    std::string event;              ///< "open", "write" or "close"
    bool writing;                   ///< or reading: no call does both
    const request* asked = nullptr; ///< at a write, and at the close after it
};

/// A scripted answer, as tarvo-sandbox(1) explains its rules.
struct driver_rule {
    std::string op = "any";
    std::string file;
    std::string at = "write";
    std::optional<std::tuple<uint32_t, uint32_t, uint32_t>> device;
    std::optional<std::pair<uint64_t, uint64_t>> range_pa;
    std::string name;
    uint64_t first = 1;
    uint64_t last = std::numeric_limits<uint64_t>::max();

    int error = 0;
    std::optional<uint64_t> address;
    std::optional<size_t> accepted_bytes;
    std::string listing;

    uint64_t matched = 0;

    bool matches(const driver_call& call) const;
    bool is_due() const { return first <= matched && matched <= last; }
};

driver_rule parse_rule(const std::string& text);

/// The number of an errno, such as "EIO"; std::runtime_error where there is none.
int error_number(const std::string& name);

} // namespace model
