#include "prediction.hpp"

#include "verbs.hpp"

#include <csignal>
#include <utility>

namespace model {

prediction::prediction(const playground& where) : _machine(where.place()) {
    for (int number = 0; number < where.processes; number++) {
        _processes.emplace_back(number);
    }
}

bool prediction::waits_for_ever(const step& one) const {
    const auto holder = _machine.lock_holder;
    const bool is_started = process(one.who).started;
    const lock_use use = find_verb(one.verb)->uses;
    const bool takes_lock = use == lock_use::always || (use == lock_use::to_start && !is_started);
    return takes_lock && holder && *holder != one.who;
}

bool prediction::is_applicable(const step& one) const {
    if (one.who == the_machine) {
        return one.verb == "rules";
    }
    if (one.who >= process_count()) {
        return false;
    }
    if (one.verb == "kill" || one.verb == "quit") {
        return true;
    }
    const verb* const known = find_verb(one.verb);
    return known != nullptr && known->words == one.words.size() && !waits_for_ever(one) &&
           makes_sense(_machine, process(one.who), one);
}

void prediction::end_process(int number) {
    if (_machine.lock_holder == number) {
        _machine.lock_holder.reset();
    }
    process_state& ended = _processes.at(static_cast<size_t>(number));
    process_state next(number);
    next.calls = std::move(ended.calls);
    ended = std::move(next);
}

std::string prediction::reply_of_client(const step& one, outcome& result) {
    process_state& caller = _processes.at(static_cast<size_t>(one.who));
    try {
        if (one.verb == "kill") {
            throw process_end{SIGKILL};
        }
        if (one.verb == "quit") {
            end_process(one.who);
            return "ended";
        }
        library tarvo(_machine, caller);
        std::string reply = find_verb(one.verb)->carry_out({_machine, caller, tarvo, one});
        result.error_text = std::exchange(caller.error_text, {});
        return reply;
    } catch (const process_end& end) {
        result.error_text = std::exchange(caller.error_text, {});
        result.signal = end.signal;
        end_process(one.who);
        return {};
    }
}

outcome prediction::carry_out(const step& one) {
    outcome result;
    if (one.who != the_machine) {
        result.reply = reply_of_client(one, result);
        result.events = _machine.kernel.take_events();
        return result;
    }
    std::vector<std::string> rules;
    for (const auto& rule : one.words) {
        rules.push_back(rule.value());
    }
    _machine.kernel.replace_rules(rules);
    return result;
}

} // namespace model
