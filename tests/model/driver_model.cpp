#include "driver_model.hpp"

#include "driver_log.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

namespace model {

namespace {

constexpr uint64_t odd_bytes = 4096; // what a wrong size is too large by

/// A command for no bytes is not, so that no rule sees what it asks.
bool is_well_formed(const std::string& file, const request& asked) {
    return file == "sysfs" || asked.size != 0;
}

std::vector<listing_line> bent(const listing_line& line, const std::string& oddity) {
    listing_line wrong_size = line;
    wrong_size.size = line.size.value_or(0) + odd_bytes;
    if (oddity == "missing-field") {
        return {{line.name, line.pa, {}}};
    }
    if (oddity == "garbage") {
        return {{"garbage", {}, {}}};
    }
    if (oddity == "wrong-size") {
        return {wrong_size};
    }
    if (oddity == "address-zero") {
        return {{line.name, 0, line.size}};
    }
    if (oddity == "extra-name") {
        return {{line.name + "_extra", line.pa, line.size}, line};
    }
    if (oddity == "extra-size") {
        return {wrong_size, line};
    }
    return {line};
}

} // namespace

void driver::replace_rules(const std::vector<std::string>& rules) {
    _rules.clear();
    std::ranges::transform(rules, std::back_inserter(_rules), parse_rule);
}

/// Counts the call with every rule it matches; the first that is due answers.
driver_rule* driver::answer_to(const driver_call& call) {
    driver_rule* answer = nullptr;
    for (driver_rule& rule : _rules) {
        if (rule.matches(call)) {
            rule.matched++;
            answer = answer == nullptr && rule.is_due() ? &rule : answer;
        }
    }
    return answer;
}

void driver::note(const driver_call& call, const std::string& bytes, int error) {
    _events.push_back(::shown({0, 0, call.file, call.event, call.writing ? "w" : "r", bytes,
                               error == 0 ? "ok" : strerrorname_np(error)}));
}

std::vector<std::string> driver::take_events() {
    return std::exchange(_events, {});
}

listing driver::listing_now(const driver_rule* bending) const {
    const std::string oddity = bending == nullptr ? "" : bending->listing;
    listing made;
    made.has_region_line = oddity != "empty" && oddity != "no-first-line";
    if (oddity == "empty" || oddity == "first-line-only") {
        return made;
    }
    for (const allocation& held : _allocations) {
        const listing_line line{held.name, held.pa, held.size};
        const bool picked =
            bending != nullptr && (bending->name.empty() || bending->name == held.name);
        for (const listing_line& one : picked ? bent(line, oddity) : std::vector{line}) {
            made.lines.push_back(one);
        }
    }
    return made;
}

int driver::open_for_reading(listing& seen) {
    const driver_call call{"proc", "open", false};
    const driver_rule* const answer = answer_to(call);
    const int error = answer == nullptr ? 0 : answer->error;
    seen = listing_now(answer);
    note(call, "", error);
    return error;
}

int driver::open_for_writing(const std::string& file) {
    const driver_call call{file, "open", true};
    const driver_rule* const answer = answer_to(call);
    const int error = answer == nullptr ? 0 : answer->error;
    note(call, "", error);
    return error;
}

int driver::close(const std::string& file, const request* asked) {
    // How the file was opened does not show in a close.
    const bool counts = asked != nullptr && is_well_formed(file, *asked);
    const driver_call call{file, "close", asked != nullptr, counts ? asked : nullptr};
    const driver_rule* const answer = answer_to(call);
    const int error = answer == nullptr ? 0 : answer->error;
    note(call, "", error);
    return error;
}

int driver::write(const std::string& file, const request& asked, const std::string& line) {
    const bool is_good = is_well_formed(file, asked);
    const driver_call call{file, "write", true, is_good ? &asked : nullptr};
    const driver_rule* const answer = answer_to(call);
    int error = answer == nullptr ? 0 : answer->error;
    if (error == 0) {
        error = is_good ? answer_write(asked, line.size(), answer) : EINVAL;
    }
    note(call, line, error);
    return error;
}

/// In a simulation the driver has no region to compare with.
bool driver::is_possible(const request& asked) const {
    const bool in_region =
        _is_simulated ||
        (_start <= asked.start_pa && asked.start_pa <= asked.last_pa && asked.last_pa < _end);
    constexpr uint32_t last_dma = std::numeric_limits<uint32_t>::max();
    return in_region && asked.last_pa - asked.start_pa <= last_dma - asked.start_dma;
}

int driver::answer_write(const request& asked, size_t length, const driver_rule* answer) {
    const bool is_cut = answer != nullptr && answer->accepted_bytes.value_or(length) < length;
    if (is_cut) {
        return 0;
    }
    if (asked.op == "map" || asked.op == "unmap") {
        return is_possible(asked) ? 0 : EINVAL;
    }
    return asked.op == "allocate" ? allocate(asked, answer) : release(asked);
}

int driver::allocate(const request& asked, const driver_rule* answer) {
    if (std::ranges::find(_allocations, asked.name, &allocation::name) != _allocations.end()) {
        return EEXIST;
    }
    const auto pa = answer != nullptr && answer->address ? answer->address : first_room(asked.size);
    if (!pa) {
        return ENOMEM;
    }
    _allocations.push_back({asked.name, *pa, asked.size});
    return 0;
}

int driver::release(const request& asked) {
    const auto is_meant = [&](const allocation& held) {
        return held.name == asked.name && held.size == asked.size;
    };
    return std::erase_if(_allocations, is_meant) == 0 ? ENOENT : 0;
}

bool driver::is_room(uint64_t pa, uint64_t bytes) const {
    return pa + bytes <= _end && std::ranges::none_of(_allocations, [=](const allocation& held) {
               return pa < held.pa + held.size && held.pa < pa + bytes;
           });
}

/// The lowest place starts where the region starts or after an allocation.
std::optional<uint64_t> driver::first_room(uint32_t size) const {
    std::vector<uint64_t> places{_start};
    for (const allocation& held : _allocations) {
        places.push_back(rounded_to_pages(held.pa + held.size));
    }
    std::ranges::sort(places);
    const auto found = std::ranges::find_if(
        places, [&](uint64_t pa) { return pa >= _start && is_room(pa, size); });
    return found == places.end() ? std::nullopt : std::optional(*found);
}

} // namespace model
