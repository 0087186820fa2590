#pragma once

#include "driver/rule.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace sandbox {

/// The rules in force, in the order in which they came in.
class rule_book {
  public:
    void add(rule added) { _entries.push_back({std::move(added), 0}); }
    void clear() { _entries.clear(); }

    /// Counts the event with every rule that it matches, also after the one that answers, so that
    /// "the third map" means the third of all. Returns the first that is due, or null.
    const rule* answer_to(const event& seen);

    /// One line per rule: how often it has matched, a tab, its text.
    std::vector<std::string> list() const;

  private:
    struct entry {
        rule wanted;
        uint64_t matched = 0;
    };
    std::vector<entry> _entries;
};

} // namespace sandbox
