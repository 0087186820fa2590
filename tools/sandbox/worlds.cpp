#include "worlds.hpp"

#include "common/trouble.hpp"
#include "driver/text.hpp"
#include "shared/paths.hpp"

#include <array>
#include <fmt/format.h>
#include <utility>

namespace sandbox {

namespace {

constexpr std::string_view simulation_name = "simulation";

struct hardware_world {
    std::string_view name;
    const char* about;
    uint64_t first_pa;
    uint64_t last_pa;
    const char* region_name;
};

constexpr std::array<hardware_world, 4> hardware_worlds{{
    {"low", "a region", 0x80000000, 0x8fffffff, "tarvo"},
    {"high", "a region above 4 GiB", 0x200000000, 0x23fffffff, "tarvo"},
    {"crossing", "a region across 4 GiB", 0xf0000000, 0x10fffffff, "tarvo"},
    {"cma", "the allocator's region", 0x100000000, 0x13fffffff, "CMA"},
}};

constexpr std::array<std::pair<std::string_view, item>, 5> item_names{{
    {"proc", item::proc},
    {"sysfs", item::sysfs},
    {"mem", item::mem},
    {"shmem", item::shmem},
    {"lockdir", item::lockdir},
}};

/// \t, \n and \\; other characters after a backslash stand for themselves.
char escaped(char letter) {
    switch (letter) {
    case 't':
        return '\t';
    case 'n':
        return '\n';
    default:
        return letter;
    }
}

std::string unescape(std::string_view text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            plain += escaped(text[++i]);
        } else {
            plain += text[i];
        }
    }
    return plain;
}

} // namespace

world named_world(std::string_view name) {
    world made;
    if (name == simulation_name) {
        made.simulation = true;
        return made;
    }
    for (const auto& known : hardware_worlds) {
        if (known.name == name) {
            set_region(made, {known.first_pa, known.last_pa, known.region_name});
            return made;
        }
    }
    throw trouble{"--world " + std::string{name} +
                  ": unknown world; choose simulation, low, high, crossing or cma"};
}

std::string world_list() {
    std::string list = fmt::format("{:<12}{} is set, no {} (the default)", simulation_name,
                                   simulation_variable, paths::region_driver);
    for (const auto& known : hardware_worlds) {
        list += fmt::format("\n{:<12}{} at {:x}-{:x}", known.name, known.about, known.first_pa,
                            known.last_pa);
    }
    return list;
}

region parse_region(std::string_view text) {
    const auto colon = text.find(':');
    const auto ends = split(text.substr(0, colon), '-');
    const auto first = parse_hex(ends.front());
    const auto last = parse_hex(ends.back());
    const std::string name{colon == std::string_view::npos ? "tarvo" : text.substr(colon + 1)};
    if (ends.size() != 2 || !first || !last || name.empty()) {
        throw trouble{
            "--region " + std::string{text} +
            ": write START-END or START-END:NAME, addresses in hexadecimal, END inclusive"};
    }
    region made{*first, *last, name};
    if (!made.is_usable()) {
        throw trouble{"--region " + std::string{text} +
                      ": END must be at or above START and at most " + to_hex(largest_pa) +
                      "; for an impossible line use --region-line"};
    }
    return made;
}

item parse_item(std::string_view name) {
    for (const auto& [known, meaning] : item_names) {
        if (known == name) {
            return meaning;
        }
    }
    throw trouble{"--without " + std::string{name} +
                  ": unknown item; choose proc, sysfs, mem, shmem or lockdir"};
}

void set_region(world& changed, const region& wanted) {
    changed.region = wanted;
    changed.region_line = region_line(wanted);
}

void set_region_line(world& changed, std::string_view text) {
    changed.region_line = unescape(text);
    if (!changed.region_line.ends_with('\n')) {
        changed.region_line += '\n';
    }
    if (const auto found = region_of_line(changed.region_line)) {
        changed.region = found;
    }
}

} // namespace sandbox
