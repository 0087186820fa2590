#include "check_report.hpp"

#include <utility>

namespace tarvoctl {

namespace {

struct rule_entry {
    finding_class cls;
    std::string_view name;
    remedy out = remedy::remove_file;
};

/// In the order of the enumeration.
constexpr rule_entry rule_table[] = {
    {finding_class::note, "not-built"},
    {finding_class::note, "half-built"},
    {finding_class::broken, "built-flag-lost"},
    {finding_class::broken, "region-empty"},
    {finding_class::broken, "region-differs"},

    {finding_class::broken, "end-out-of-range"},
    {finding_class::broken, "one-end-only"},
    {finding_class::broken, "link-out-of-range"},
    {finding_class::broken, "cycle"},
    {finding_class::broken, "listed-not-allocated"},
    {finding_class::broken, "back-link-wrong"},
    {finding_class::broken, "circle-open"},
    {finding_class::broken, "free-link-out-of-range"},
    {finding_class::broken, "free-cycle"},
    {finding_class::broken, "free-and-listed"},
    {finding_class::broken, "free-but-allocated"},
    {finding_class::leaked, "allocated-on-no-list"},
    {finding_class::leaked, "free-on-no-chain"},
    {finding_class::tolerated, "free-not-zero"},
    {finding_class::broken, "flag-value"},
    {finding_class::tolerated, "padding-not-zero"},

    {finding_class::broken, "no-sentinels"},
    {finding_class::broken, "head-sentinel"},
    {finding_class::broken, "tail-sentinel"},
    {finding_class::tolerated, "sentinel-devices"},
    {finding_class::broken, "free-with-size"},
    {finding_class::broken, "name-not-terminated"},
    {finding_class::broken, "name-empty"},
    {finding_class::tolerated, "name-twice"},
    {finding_class::broken, "creator-not-terminated", remedy::free_chunk},
    {finding_class::broken, "creator-empty", remedy::free_chunk},
    {finding_class::broken, "size-zero", remedy::free_chunk},
    {finding_class::broken, "size-not-pages", remedy::free_chunk},
    {finding_class::tolerated, "address-not-page"},
    {finding_class::broken, "outside-region"},
    {finding_class::broken, "order"},
    {finding_class::broken, "overlap", remedy::free_chunk},
    {finding_class::tolerated, "overlap-under-cma"},
    {finding_class::note, "misses-device"},

    {finding_class::broken, "address-twice", remedy::unregister_device},
    {finding_class::broken, "online-value"},
    {finding_class::broken, "device-out-of-range"},
    {finding_class::tolerated, "device-not-registered"},
    {finding_class::broken, "device-twice"},
};
static_assert(std::size(rule_table) == static_cast<size_t>(rule::count_of_rules));

const rule_entry& entry_of(rule broken_rule) {
    return rule_table[static_cast<size_t>(broken_rule)];
}

/// In the order of the enumeration.
constexpr std::string_view list_names[] = {"area", "chunk", "ref", "device"};

} // namespace

std::string rule_name(rule broken_rule, area_list list) {
    std::string name(list_names[static_cast<size_t>(list)]);
    name += '-';
    name += entry_of(broken_rule).name;
    return name;
}

void report::list(rule broken_rule, place where, std::string text) {
    tally_of(broken_rule, where.list).last_listed = _findings.size();
    const rule_entry& entry = entry_of(broken_rule);
    _findings.push_back(
        {entry.cls, rule_name(broken_rule, where.list), where, std::move(text), 0, entry.out});
}

std::vector<finding> report::take() {
    for (const auto& of_list : _tallies) {
        for (const tally& one : of_list) {
            if (one.found > _listed_per_rule && _listed_per_rule > 0) {
                _findings[one.last_listed].unlisted = one.found - _listed_per_rule;
            }
        }
    }
    return std::move(_findings);
}

} // namespace tarvoctl
