#pragma once

#include "finding.hpp"

#include <array>
#include <cstddef>
#include <fmt/format.h>
#include <string>
#include <string_view>
#include <vector>

namespace tarvoctl {

/// The rules of an area. A rule's name in a finding is that of the list it was applied to and that
/// of the rule: "ref-cycle".
enum class rule {
    /// The area as a whole.
    not_built,
    half_built,
    built_flag_lost,
    region_empty,
    region_differs,
    // Every list.
    end_out_of_range,
    one_end_only,
    link_out_of_range,
    cycle,
    listed_not_allocated,
    back_link_wrong,
    circle_open,
    free_link_out_of_range,
    free_cycle,
    free_and_listed,
    free_but_allocated,
    allocated_on_no_list,
    free_on_no_chain,
    free_not_zero,
    flag_value,
    padding_not_zero,
    // Chunks.
    no_sentinels,
    head_sentinel,
    tail_sentinel,
    sentinel_devices,
    free_with_size,
    name_not_terminated,
    name_empty,
    name_twice,
    creator_not_terminated,
    creator_empty,
    size_zero,
    size_not_pages,
    address_not_page,
    outside_region,
    order,
    overlap,
    overlap_under_cma,
    misses_device,
    // Devices and references to them.
    address_twice,
    online_value,
    device_out_of_range,
    device_not_registered,
    device_twice,
    count_of_rules
};

/// What findings call the rule, applied to that list.
std::string rule_name(rule broken_rule, area_list list);

/// Collects findings: lists some of each rule and counts the others.
class report {
  public:
    explicit report(size_t listed_per_rule) : _listed_per_rule(listed_per_rule) {}

    /// The text is only made of findings that will be listed.
    template <typename... Values>
    void add(rule broken_rule, place where, fmt::format_string<const Values&...> format,
             const Values&... values) {
        if (count(broken_rule, where.list) <= _listed_per_rule) {
            list(broken_rule, where, fmt::format(format, values...));
        }
    }

    /// What was found, in the order in which it was.
    std::vector<finding> take();

  private:
    static constexpr size_t lists = 4;
    static constexpr auto rules = static_cast<size_t>(rule::count_of_rules);
    struct tally {
        size_t found = 0;
        size_t last_listed = 0;
    };

    tally& tally_of(rule broken_rule, area_list list) {
        return _tallies[static_cast<size_t>(list)][static_cast<size_t>(broken_rule)];
    }
    size_t count(rule broken_rule, area_list list) { return ++tally_of(broken_rule, list).found; }
    void list(rule broken_rule, place where, std::string text);

    size_t _listed_per_rule;
    std::vector<finding> _findings;
    std::array<std::array<tally, rules>, lists> _tallies{};
};

} // namespace tarvoctl
