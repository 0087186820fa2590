#include "driver/rule_book.hpp"

namespace sandbox {

const rule* rule_book::answer_to(const event& seen) {
    const rule* answering = nullptr;
    for (auto& [wanted, matched] : _entries) {
        if (!matches(wanted, seen)) {
            continue;
        }
        ++matched;
        const bool due = wanted.first_due <= matched && matched <= wanted.last_due;
        if (due && answering == nullptr) {
            answering = &wanted;
        }
    }
    return answering;
}

std::vector<std::string> rule_book::list() const {
    std::vector<std::string> lines;
    lines.reserve(_entries.size());
    for (const auto& [wanted, matched] : _entries) {
        lines.push_back(std::to_string(matched) + "\t" + wanted.text);
    }
    return lines;
}

} // namespace sandbox
