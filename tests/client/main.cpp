// tarvo-client: an ordinary user of the library that does what it is ordered, one command a line on
// standard input, one reply a line on standard output. "help" lists the commands.

#include "channel.hpp"
#include "commands.hpp"
#include "watch.hpp"

#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <map>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct entry {
    command known;
    bool calls_library;
    size_t least_arguments;
    size_t most_arguments;
};
using command_table = std::map<std::string, entry, std::less<>>;

void add(command_table& table, const commands& some, bool calls_library) {
    for (const command& one : some) {
        std::istringstream words{std::string(one.usage)};
        std::string name;
        words >> name;
        entry known{one, calls_library, 0, 0};
        for (std::string argument; words >> argument;) {
            known.most_arguments++;
            known.least_arguments += argument.front() == '[' ? 0 : 1;
        }
        table.emplace(name, known);
    }
}

const command_table& all_commands() {
    static const command_table table = [] {
        command_table all;
        add(all, chunk_commands(), true);
        add(all, device_commands(), true);
        add(all, record_commands(), true);
        add(all, memory_commands(), false);
        add(all, process_commands(), false);
        return all;
    }();
    return table;
}

std::string help() {
    std::string list;
    for (const auto& [name, known] : all_commands()) {
        list += (list.empty() ? "" : "; ") + std::string(known.known.usage);
    }
    return list;
}

const entry& look_up(const arguments& a) {
    const auto known = all_commands().find(a.name());
    if (known == all_commands().end()) {
        throw command_error("unknown command " + a.name());
    }
    const entry& found = known->second;
    if (a.count() < found.least_arguments || a.count() > found.most_arguments) {
        throw command_error("usage: " + std::string(found.known.usage));
    }
    return found;
}

std::string carry_out(const arguments& a) {
    const entry& known = look_up(a);
    if (!known.calls_library) {
        return known.known.run(a);
    }
    watch::begin();
    std::string reply = known.known.run(a);
    watch::end();
    return reply;
}

std::string answer(std::string_view line);

/// What the library asks of the C library meanwhile is watched.
pid_t watched_fork() {
    watch::begin();
    const pid_t child = fork();
    watch::end();
    return child;
}

/// "in_child COMMAND": a forked child carries the command out and replies; the parent waits.
std::string in_child(std::string_view line) {
    const pid_t child = watched_fork();
    if (child == 0) {
        channel::write_line(answer(line));
        std::_Exit(EXIT_SUCCESS);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? "child ended by signal " + std::to_string(WTERMSIG(status))
                               : "child ended";
}

/// "fork COMMAND": the parent replies at once with the child's pid; the child carries the command
/// out, replies, and stays until nobody reads replies any more.
std::string fork_off(std::string_view line) {
    const pid_t child = watched_fork();
    if (child == 0) {
        channel::write_line(answer(line));
        channel::wait_until_nobody_reads();
        std::_Exit(EXIT_SUCCESS);
    }
    return "forked " + std::to_string(child);
}

std::string answer(std::string_view line) {
    constexpr std::string_view child_prefix = "in_child ";
    constexpr std::string_view fork_prefix = "fork ";
    try {
        if (line.starts_with(child_prefix)) {
            return in_child(line.substr(child_prefix.size()));
        }
        if (line.starts_with(fork_prefix)) {
            return fork_off(line.substr(fork_prefix.size()));
        }
        return line == "help" ? help() : carry_out(arguments(line));
    } catch (const command_error& wrong) {
        watch::end();
        return std::string("error: ") + wrong.what();
    }
}

} // namespace

int main() {
    channel::open();
    while (const auto line = channel::read_line()) {
        channel::write_line(answer(*line));
    }
}
