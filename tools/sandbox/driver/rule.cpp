#include "driver/rule.hpp"

namespace sandbox {

namespace {

bool asks_for(const event& seen, operation op) {
    return seen.asked != nullptr && seen.asked->op == op;
}

bool operation_matches(rule_operation op, const event& seen) {
    switch (op) {
    case rule_operation::map:
        return asks_for(seen, operation::map);
    case rule_operation::unmap:
        return asks_for(seen, operation::unmap);
    case rule_operation::allocate:
        return asks_for(seen, operation::allocate);
    case rule_operation::release:
        return asks_for(seen, operation::release);
    case rule_operation::open_read:
        return seen.reads;
    case rule_operation::open_write:
        return seen.writes;
    case rule_operation::any:
        break;
    }
    return true;
}

bool range_matches(const rule& wanted, const request& asked) {
    return !wanted.range_pa ||
           (wanted.range_pa->first <= asked.start_pa && asked.start_pa <= wanted.range_pa->second);
}

/// The keys that look into the written line.
bool request_matches(const rule& wanted, const event& seen) {
    const bool name_counts =
        wanted.name.has_value() && !std::holds_alternative<altered_listing>(wanted.answer);
    if (!wanted.device && !wanted.range_pa && !name_counts) {
        return true;
    }
    if (seen.asked == nullptr) {
        return false;
    }
    return (!wanted.device || *wanted.device == seen.asked->device) &&
           range_matches(wanted, *seen.asked) && (!name_counts || *wanted.name == seen.asked->name);
}

} // namespace

bool matches(const rule& wanted, const event& seen) {
    return wanted.at == seen.at && (!wanted.file || *wanted.file == seen.file) &&
           operation_matches(wanted.op, seen) && request_matches(wanted, seen);
}

} // namespace sandbox
