#include "check_report.hpp"

#include <utility>

namespace tarvoctl {

namespace {

/// In the order of the enumeration.
constexpr std::string_view list_names[] = {"area", "chunk", "ref", "device"};

} // namespace

std::string rule_name(const rule& broken_rule, area_list list) {
    return fmt::format("{}-{}", list_names[static_cast<size_t>(list)], broken_rule.name);
}

void report::list(const rule& broken_rule, place where, std::string text) {
    tally_of(broken_rule, where.list).last_listed = _findings.size();
    _findings.push_back({broken_rule.cls, rule_name(broken_rule, where.list), where,
                         std::move(text), 0, broken_rule.out});
}

std::vector<finding> report::take() {
    for (const auto& [broken_rule, of_lists] : _tallies) {
        for (const tally& one : of_lists) {
            if (one.found > _listed_per_rule && _listed_per_rule > 0) {
                _findings[one.last_listed].unlisted = one.found - _listed_per_rule;
            }
        }
    }
    return std::move(_findings);
}

} // namespace tarvoctl
