#include "world.hpp"

#include "failure.hpp"
#include "text.hpp"

#include <array>
#include <utility>

namespace sandbox {

namespace {

/// /dev/mem is a sparse file that reaches to the region's end; no file system here holds a larger
/// one than this, and no processor of today has more physical address bits.
constexpr uint64_t largest_pa = (uint64_t{1} << 52) - 1;

struct world_name {
    std::string_view name;
    std::string_view region;
};

constexpr std::array<world_name, 5> world_names{{
    {"simulation", ""},
    {"low", "80000000-8fffffff:tarvo"},
    {"high", "200000000-23fffffff:tarvo"},
    {"crossing", "f0000000-10fffffff:tarvo"},
    {"cma", "100000000-13fffffff:CMA"},
}};

constexpr std::array<std::pair<std::string_view, item>, 5> item_names{{
    {"proc", item::proc},
    {"sysfs", item::sysfs},
    {"mem", item::mem},
    {"shmem", item::shmem},
    {"lockdir", item::lockdir},
}};

bool is_usable(const region& wanted) {
    return wanted.first_pa <= wanted.last_pa && wanted.last_pa <= largest_pa;
}

std::optional<region> region_of_line(std::string_view line) {
    const auto fields = split(line.substr(0, line.find('\n')), '\t');
    if (fields.size() != 4) {
        return std::nullopt;
    }
    const auto first = parse_hex(fields[0]);
    const auto last = parse_hex(fields[1]);
    if (!first || !last) {
        return std::nullopt;
    }
    region found{*first, *last, std::string{fields[3]}};
    return is_usable(found) ? std::optional{found} : std::nullopt;
}

} // namespace

world named_world(std::string_view name) {
    for (const auto& known : world_names) {
        if (known.name != name) {
            continue;
        }
        world made;
        made.simulation = known.region.empty();
        if (!made.simulation) {
            set_region(made, parse_region(known.region));
        }
        return made;
    }
    throw failure{"--world " + std::string{name} +
                  ": no such world; choose simulation, low, high, crossing or cma"};
}

region parse_region(std::string_view text) {
    const auto colon = text.find(':');
    const auto ends = split(text.substr(0, colon), '-');
    const auto first = parse_hex(ends.front());
    const auto last = parse_hex(ends.back());
    const std::string name{colon == std::string_view::npos ? "tarvo" : text.substr(colon + 1)};
    if (ends.size() != 2 || !first || !last || name.empty()) {
        throw failure{
            "--region " + std::string{text} +
            ": write START-END or START-END:NAME, addresses in hexadecimal, END inclusive"};
    }
    region made{*first, *last, name};
    if (!is_usable(made)) {
        throw failure{"--region " + std::string{text} +
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
    throw failure{"--without " + std::string{name} +
                  ": no such item; choose proc, sysfs, mem, shmem or lockdir"};
}

void set_region(world& changed, const region& wanted) {
    changed.region = wanted;
    changed.region_line =
        to_hex(wanted.first_pa) + "\t" + to_hex(wanted.last_pa) + "\t0\t" + wanted.name + "\n";
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
