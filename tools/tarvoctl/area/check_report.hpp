#pragma once

#include "rules.hpp"

#include <array>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace tarvoctl {

/// What findings call the rule, applied to that list.
std::string rule_name(const rule& broken_rule, area_list list);

/// Collects findings: lists some of each rule and counts the others.
class report {
  public:
    explicit report(size_t listed_per_rule) : _listed_per_rule(listed_per_rule) {}

    /// The text is only made of findings that will be listed.
    template <typename... Values>
    void add(const rule_with<Values...>& broken_rule, place where,
             const std::type_identity_t<Values>&... values) {
        if (count(broken_rule, where.list) <= _listed_per_rule) {
            list(broken_rule, where, fmt::format(broken_rule.text, values...));
        }
    }

    /// What was found, in the order in which it was.
    std::vector<finding> take();

  private:
    struct tally {
        size_t found = 0;
        size_t last_listed = 0;
    };
    /// One for each list. In a ruined area findings are counted by the million.
    using tallies = std::array<tally, 4>;

    tally& tally_of(const rule& broken_rule, area_list list) {
        return _tallies[&broken_rule][static_cast<size_t>(list)];
    }
    size_t count(const rule& broken_rule, area_list list) {
        return ++tally_of(broken_rule, list).found;
    }
    void list(const rule& broken_rule, place where, std::string text);

    size_t _listed_per_rule;
    std::vector<finding> _findings;
    std::unordered_map<const rule*, tallies> _tallies;
};

} // namespace tarvoctl
