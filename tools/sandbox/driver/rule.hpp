#pragma once

#include "driver/request.hpp"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace sandbox {

/// The system calls on the driver's files at which a rule can answer.
enum class moment { open, write, close };

/// One such system call. At a close, asked is what was last written through the same open file.
struct event {
    driver_file file = driver_file::proc;
    moment at = moment::open;
    bool reads = false;
    bool writes = false;
    const request* asked = nullptr;
};

enum class rule_operation { any, map, unmap, allocate, release, open_read, open_write };

enum class listing_fault {
    missing_field,
    garbage,
    wrong_size,
    address_zero,
    empty,
    no_first_line,
    first_line_only,
    extra_name,
    extra_size
};

/// What a rule does when it is due.
struct refusal {
    int error = 0;
};
struct handed_out_address {
    uint64_t pa = 0;
};
struct altered_listing {
    listing_fault fault = listing_fault::empty;
};
struct short_write {
    size_t bytes = 0;
};
using rule_answer = std::variant<refusal, handed_out_address, altered_listing, short_write>;

/// One scripted refusal or fault. With an altered_listing, name selects the
/// line to alter; otherwise it selects the CMA commands.
struct rule {
    std::string text;
    rule_operation op = rule_operation::any;
    std::optional<driver_file> file;
    moment at = moment::write;
    std::optional<pci_device> device;
    std::optional<std::pair<uint64_t, uint64_t>> range_pa;
    std::optional<std::string> name;
    uint64_t first_due = 1;
    uint64_t last_due = std::numeric_limits<uint64_t>::max();
    rule_answer answer;
};

bool matches(const rule& wanted, const event& seen);

/// Throws trouble, naming the key or value that is wrong.
rule parse_rule(std::string_view text);

} // namespace sandbox
