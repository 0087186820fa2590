#include "driver_rule.hpp"

#include <cstring>
#include <sstream>
#include <stdexcept>

namespace model {

namespace {

uint64_t hexadecimal_number(const std::string& text) {
    return std::stoull(text, nullptr, 16);
}

/// "dddd:bb:ss.f", all hexadecimal.
auto parse_device(const std::string& text) {
    std::istringstream fields(text);
    uint32_t domain = 0;
    uint32_t bus = 0;
    uint32_t slot = 0;
    uint32_t function = 0;
    char mark = 0;
    fields >> std::hex >> domain >> mark >> bus >> mark >> slot >> mark >> function;
    return std::tuple(domain, bus, slot << 3U | function);
}

/// "n", "n+" or "n-m".
void parse_nth(driver_rule& rule, const std::string& text) {
    rule.first = std::stoull(text);
    const size_t dash = text.find('-');
    if (dash != std::string::npos) {
        rule.last = std::stoull(text.substr(dash + 1));
    } else if (text.back() != '+') {
        rule.last = rule.first;
    }
}

void set_operation(driver_rule& rule, const std::string& op) {
    rule.op = op;
    if (op == "open-read" || op == "open-write") {
        rule.at = "open";
    }
}

void set_listing(driver_rule& rule, const std::string& oddity) {
    set_operation(rule, "open-read");
    rule.file = "proc";
    rule.listing = oddity;
}

bool set_condition(driver_rule& rule, const std::string& key, const std::string& value) {
    if (key == "op") {
        set_operation(rule, value);
    } else if (key == "file") {
        rule.file = value;
    } else if (key == "at") {
        rule.at = value;
    } else if (key == "device") {
        rule.device = parse_device(value);
    } else if (key == "range") {
        const size_t dash = value.find('-');
        rule.range_pa = {hexadecimal_number(value), hexadecimal_number(value.substr(dash + 1))};
    } else if (key == "name") {
        rule.name = value;
    } else if (key == "nth") {
        parse_nth(rule, value);
    } else {
        return false;
    }
    return true;
}

bool set_answer(driver_rule& rule, const std::string& key, const std::string& value) {
    if (key == "errno") {
        rule.error = error_number(value);
    } else if (key == "address") {
        set_operation(rule, "allocate");
        rule.address = hexadecimal_number(value);
    } else if (key == "short") {
        rule.accepted_bytes = std::stoull(value);
    } else if (key == "listing") {
        set_listing(rule, value);
    } else {
        return false;
    }
    return true;
}

bool operation_matches(const std::string& op, const driver_call& call) {
    if (op == "any") {
        return true;
    }
    if (op == "open-read" || op == "open-write") {
        return call.writing == (op == "open-write");
    }
    return call.asked != nullptr && call.asked->op == op;
}

} // namespace

bool driver_rule::matches(const driver_call& call) const {
    if (at != call.event || (!file.empty() && file != call.file) || !operation_matches(op, call)) {
        return false;
    }
    // With a listing the name only says which line to bend.
    const bool name_counts = !name.empty() && listing.empty();
    if (!device && !range_pa && !name_counts) {
        return true;
    }
    const request* const asked = call.asked;
    return asked != nullptr && (!device || *device == asked->device) &&
           (!range_pa ||
            (range_pa->first <= asked->start_pa && asked->start_pa <= range_pa->second)) &&
           (!name_counts || name == asked->name) && (!name_counts || call.file == "proc") &&
           (name_counts || call.file == "sysfs");
}

int error_number(const std::string& name) {
    for (int error = 1; error < 134; error++) {
        const char* const known = strerrorname_np(error);
        if (known != nullptr && name == known) {
            return error;
        }
    }
    throw std::runtime_error("no errno is called " + name);
}

driver_rule parse_rule(const std::string& text) {
    driver_rule rule;
    std::istringstream parts(text);
    for (std::string part; std::getline(parts, part, ',');) {
        const size_t equals = part.find('=');
        const std::string key = part.substr(0, equals);
        const std::string value = part.substr(equals + 1);
        if (!set_condition(rule, key, value) && !set_answer(rule, key, value)) {
            throw std::runtime_error("the model knows no rule " + text);
        }
    }
    return rule;
}

} // namespace model
