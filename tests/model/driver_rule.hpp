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
    std::string op; ///< "map", "unmap", "allocate" or "release"
    std::tuple<std::uint32_t, std::uint32_t, std::uint32_t> device{}; ///< domain, bus, devfn
    std::uint64_t start_pa = 0;
    std::string name;
    std::uint32_t size = 0;
};

/// One system call on a file of the driver's.
struct driver_call {
    std::string file;               ///< "proc" or "sysfs"
    std::string event;              ///< "open", "write" or "close"
    bool writing;                   ///< or reading: no call does both
    const request* asked = nullptr; ///< at a write, and at the close behind it
};

/// A scripted answer, as tarvo-sandbox(1) explains its rules.
struct driver_rule {
    std::string op = "any";
    std::string file;
    std::string at = "write";
    std::optional<std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>> device;
    std::optional<std::pair<std::uint64_t, std::uint64_t>> range_pa;
    std::string name;
    std::uint64_t first = 1;
    std::uint64_t last = std::numeric_limits<std::uint64_t>::max();

    int error = 0;
    std::optional<std::uint64_t> address;
    std::optional<std::size_t> accepted_bytes;
    std::string listing;

    std::uint64_t matched = 0;

    bool matches(const driver_call& call) const;
    bool is_due() const { return first <= matched && matched <= last; }
};

driver_rule parse_rule(const std::string& text);

} // namespace model
