#include "output/process_text.hpp"

#include "common/quantities.hpp"
#include "output/text.hpp"

#include <chrono>
#include <ctime>
#include <fmt/format.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

std::chrono::system_clock::time_point start_of(const process_info& process) {
    const auto now_by = [](clockid_t id) {
        timespec now{};
        ::clock_gettime(id, &now);
        return std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec};
    };
    const auto ticks_per_second = static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
    const std::chrono::milliseconds since_boot{process.start_ticks * 1000 / ticks_per_second};
    const auto start = now_by(CLOCK_REALTIME) - now_by(CLOCK_BOOTTIME) + since_boot;
    return std::chrono::system_clock::time_point{start};
}

} // namespace

std::string state_text(char state) {
    switch (state) {
    case 'R':
        return "running";
    case 'S':
        return "sleeping";
    case 'D':
        return "waiting, cannot be interrupted";
    case 'T':
        return "STOPPED";
    case 't':
        return "STOPPED by a debugger";
    case 'Z':
        return "ended, not yet reaped";
    default:
        return "unknown";
    }
}

std::string start_text(const process_info& process) {
    if (process.state == '?') {
        return "-";
    }
    return time_text(start_of(process));
}

const process_info& process_table::of(pid_t pid) {
    const auto [at, is_new] = _known.try_emplace(pid);
    if (is_new) {
        at->second = process_of(pid).value_or(process_info{});
        at->second.pid = pid;
    }
    return at->second;
}

std::string process_table::text(pid_t pid) {
    const std::string& command = of(pid).command;
    return command.empty() ? fmt::format("{}", pid) : fmt::format("{} ({})", pid, shown(command));
}

std::string processes_text(const std::vector<pid_t>& pids, process_table& processes) {
    constexpr size_t most_named = 5;
    return first_few(pids, most_named, [&](pid_t each) { return processes.text(each); });
}

const char* seen_only_text(const mapped_memory& memory) {
    return memory.is_complete() ? "" : " that can be seen";
}

std::string unseen_text(const mapped_memory& memory, process_table& processes) {
    const bool is_one = memory.unseen.size() == 1 && !memory.others_hidden;
    const char* const help = memory.root_would_see_more() ? "run it as root to see more"
                             : is_one ? "it is kept even from root on this machine"
                                      : "they are kept even from root on this machine";
    std::string made;
    if (!memory.unseen.empty()) {
        made =
            fmt::format("could not look into {}: {}; {}", counted(memory.unseen.size(), "process"),
                        processes_text(memory.unseen, processes), help);
    }
    if (memory.others_hidden) {
        made +=
            fmt::format("{}/proc hides other users' processes; {}", made.empty() ? "" : "; ", help);
    }
    return made;
}

json json_process(const process_info& process) {
    return {{"pid", process.pid}, {"command", process.command}, {"user", process.user}};
}

json json_unseen(const mapped_memory& memory) {
    return {{"processes", memory.unseen}, {"others_hidden", memory.others_hidden}};
}

} // namespace tarvoctl
