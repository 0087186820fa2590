#include "run.hpp"

#include "common/trouble.hpp"
#include "process/channel.hpp"
#include "process/control.hpp"
#include "process/server.hpp"
#include "process/supervisor.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace sandbox {

namespace {

unique_fd open_log(const std::string& path) {
    if (path.empty()) {
        return {};
    }
    unique_fd log{::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666)};
    if (!log) {
        throw failed_call("--log " + path + ": cannot open it; name a file in an existing folder");
    }
    return log;
}

control_socket open_control(const std::string& path) {
    return path.empty() ? control_socket{} : control_socket{path};
}

/// Starts the sandbox's own process and returns the tool's connection to it.
unique_fd start_server(server_plan& plan) {
    std::array<int, 2> ends{-1, -1};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw failed_call("cannot make a Unix socket");
    }
    unique_fd own{ends[0]};
    plan.first_connection.reset(ends[1]);
    const pid_t child = ::fork();
    if (child < 0) {
        throw failed_call("cannot start a process");
    }
    if (child == 0) {
        own.reset();
        serve(std::move(plan));
        std::_Exit(0);
    }
    // What stays open here as well would hide the end of that process.
    plan.first_connection.reset();
    plan.control.stop_listening();
    return own;
}

void report(const nlohmann::json& answer, bool list) {
    if (answer.contains("error")) {
        throw trouble{answer.value("error", "")};
    }
    if (!list) {
        return;
    }
    for (const auto& line : answer.value("rules", std::vector<std::string>{})) {
        std::printf("%s\n", line.c_str());
    }
}

[[noreturn]] void finish(const command_end& end) {
    if (end.sandbox_died && WIFSIGNALED(end.wait_status)) {
        throw trouble{"the sandbox's own process was killed, and the command with it"};
    }
    end_like(end.wait_status);
}

} // namespace

void run(const run_options& wanted) {
    server_plan plan{wanted.chosen,
                     wanted.rules,
                     open_log(wanted.log_path),
                     open_control(wanted.control_path),
                     {}};
    unique_fd connection = start_server(plan);
    const command_end end = supervise(std::move(connection), &wanted.chosen, wanted.command);
    if (end.sandbox_died) {
        plan.control.remove();
    }
    finish(end);
}

void join(const join_options& wanted) {
    finish(supervise(connect_to(wanted.control_path), nullptr, wanted.command));
}

void change_rules(const rule_options& wanted) {
    const unique_fd connection = connect_to(wanted.control_path);
    send_message(connection.get(),
                 {{"request", "rules"}, {"clear", wanted.clear}, {"add", wanted.rules}});
    const auto answer = receive_message(connection.get());
    if (!answer) {
        throw trouble{"--control " + wanted.control_path + ": the sandbox has ended"};
    }
    report(answer->body, wanted.list);
}

} // namespace sandbox
