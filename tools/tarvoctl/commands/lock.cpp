#include "commands/commands.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/lock_state.hpp"
#include "host/site.hpp"
#include "output/json.hpp"
#include "output/lock_text.hpp"
#include "output/process_text.hpp"
#include "output/table.hpp"
#include "output/text.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

const char* role_text(lock_role role) {
    switch (role) {
    case lock_role::holds:
        return "holds";
    case lock_role::shares:
        return "shares";
    case lock_role::keeps:
        return "keeps";
    default:
        return "waits";
    }
}

std::string heading_of(const lock_state& lock, process_table& processes) {
    if (!lock.exists) {
        return "free, because the file is missing";
    }
    if (!lock.held) {
        return "free";
    }
    const auto holder = lock.holder();
    return fmt::format("held{}, {}", holder ? " by " + processes.text(*holder) : "",
                       waiting_text(lock));
}

void print_parties(const lock_state& lock, process_table& processes) {
    table lines{{{"  ROLE"}, {"PID", align::right}, {"COMMAND"}, {"USER"}, {"STATE"}, {"STARTED"}}};
    int position = 0;
    const auto parties = parties_of(lock);
    for (const auto& [role, pid] : parties) {
        const process_info& process = processes.of(pid);
        const std::string place =
            role == lock_role::waits ? fmt::format(" {}", ++position) : std::string{};
        lines.add({fmt::format("  {}{}", role_text(role), place), fmt::format("{}", pid),
                   shown(process.command), shown(process.user), state_text(process.state),
                   start_text(process)});
    }
    fmt::print("{}", parties.empty() ? "" : lines.text());
}

bool is_any_held(const lock_picture& found) {
    return std::ranges::any_of(found.locks, &lock_state::held);
}

void print_as_table(const lock_picture& found, process_table& processes) {
    for (const auto& lock : found.locks) {
        fmt::print("{}: {}\n", lock.file, heading_of(lock, processes));
        print_parties(lock, processes);
        for (const auto& trouble : lock_troubles(lock, processes)) {
            fmt::print("  ! {}\n", trouble.text);
        }
    }
    if (is_any_held(found)) {
        fmt::print("The kernel does not record since when a lock is held or waited for.\n");
    }
    if (!found.unseen.empty()) {
        fmt::print(stderr,
                   "tarvoctl: could not see the open files of {}, which may hold an "
                   "inherited lock: {}\n",
                   counted(found.unseen.size(), "process"),
                   processes_text(found.unseen, processes));
    }
}

json json_of(const lock_party& party, process_table& processes) {
    const process_info& process = processes.of(party.pid);
    json made = json_process(process);
    made["role"] = role_text(party.role);
    made["state"] = std::string(1, process.state);
    made["stopped"] = process.is_stopped();
    made["started"] = start_text(process);
    return made;
}

json json_of(const lock_state& lock, process_table& processes) {
    const auto json_party = [&](const lock_party& each) { return json_of(each, processes); };
    const auto text_of = [](const lock_trouble& each) { return each.text; };
    return {{"file", lock.file},
            {"exists", lock.exists},
            {"held", lock.held},
            {"taker", lock.taker == 0 ? json{} : json(lock.taker)},
            {"processes", json_list(parties_of(lock), json_party)},
            {"troubles", json_list(lock_troubles(lock, processes), text_of)}};
}

void print_as_json(const lock_picture& found, process_table& processes) {
    json document = json_document("lock");
    document["locks"] =
        json_list(found.locks, [&](const lock_state& each) { return json_of(each, processes); });
    document["unseen"] = found.unseen;
    print_json(document);
}

/// Without the kernel's table, a lock that is not seen to be held may be so by a process that
/// cannot be seen.
void check_known(const lock_picture& found) {
    if (!found.table_read && !is_any_held(found) && !found.unseen.empty()) {
        throw failure{exit_status::unreadable, "cannot read /proc/locks, nor the open files of all "
                                               "processes; run it as root"};
    }
}

exit_status lock(bool as_json) {
    const lock_picture found = lock_picture_of(find_site().locks);
    check_known(found);
    process_table processes;
    if (as_json) {
        print_as_json(found, processes);
    } else {
        print_as_table(found, processes);
    }
    return is_any_held(found) ? exit_status::finding : exit_status::good;
}

} // namespace

template <>
action set_up<entry_of("lock")>(command_words& words) {
    const auto as_json = std::make_shared<bool>(false);
    words.json(*as_json);
    return [as_json] { return lock(*as_json); };
}

} // namespace tarvoctl
