#include "process/server.hpp"

#include "common/trouble.hpp"
#include "process/process_fd.hpp"

#include <algorithm>
#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <utility>

namespace sandbox {

namespace {

/// The real /proc with all that is mounted in it, cloned before it is covered.
unique_fd clone_proc() {
    unique_fd tree{
        ::open_tree(AT_FDCWD, "/proc", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE)};
    if (!tree) {
        throw failed_call("cannot clone the mount of /proc");
    }
    return tree;
}

} // namespace

server::server(server_plan& plan)
    : _world{plan.chosen}, _driver{_world.region, _world.region_line,
                                   event_log{std::move(plan.log)}},
      _control{plan.control}, _namespaces{namespaces::create()},
      _files{_driver, _real_proc, _real_sysfs, {_world.has_proc_file(), _world.has(item::sysfs)}} {
    for (auto& added : plan.rules) {
        _driver.rules().add(std::move(added));
    }
    _real_proc_mount = clone_proc();
    _files.mount();
    _connections.push_back({std::move(plan.first_connection), {}, true, false, false});
}

namespace {

/// The tool takes the end of a connection without this for the end of a server that was killed.
void send_done(const unique_fd& socket) {
    send_message(socket.get(), {{"done", true}});
}

} // namespace

bool server::is_in_use() const {
    return std::ranges::any_of(_connections, &connection::keeps_alive);
}

void server::run() {
    while (is_in_use()) {
        wait_and_answer();
        remove_ended();
    }
    _real_proc.kill_remaining();
    _control.remove();
    for (const auto& one : _connections) {
        send_done(one.socket);
    }
}

/// A tool takes the end of its connection for "all is gone", so the last ones stay until it is.
void server::remove_ended() {
    if (!is_in_use()) {
        return;
    }
    _connections.remove_if([](const connection& one) {
        const bool ended = !one.keeps_alive && (one.command_ended || one.closed);
        if (ended) {
            send_done(one.socket);
        }
        return ended;
    });
}

void server::wait_and_answer() {
    std::vector<pollfd> watched{{_files.fd(), POLLIN, 0},
                                {_accepts ? _control.fd() : -1, POLLIN, 0}};
    for (const auto& one : _connections) {
        watched.push_back({one.closed ? -1 : one.socket.get(), POLLIN, 0});
        watched.push_back({one.command.get(), POLLIN, 0});
    }
    if (::poll(watched.data(), watched.size(), -1) < 0) {
        return;
    }
    if (watched[0].revents != 0) {
        _files.answer_request();
    }
    auto happened = watched.begin() + 2;
    for (auto& one : _connections) {
        if ((happened++)->revents != 0) {
            receive_from(one);
        }
        if ((happened++)->revents != 0) {
            end_command(one);
        }
    }
    if (watched[1].revents != 0) {
        accept_connection();
    }
}

void server::accept_connection() {
    unique_fd accepted{::accept4(_control.fd(), nullptr, nullptr, SOCK_CLOEXEC)};
    if (accepted) {
        _connections.push_back({std::move(accepted), {}, false, false, false});
    }
}

void server::receive_from(connection& from) {
    auto received = receive_message(from.socket.get());
    if (received) {
        answer(from, *received);
        return;
    }
    // The tool is gone. Its command must not outlive it, with or without the death signal that it
    // asked for: a command that changes its user loses that.
    from.closed = true;
    if (from.command) {
        kill_process(from.command);
    } else {
        from.keeps_alive = false;
    }
}

void server::end_command(connection& of) {
    of.command.reset();
    of.keeps_alive = false;
    of.command_ended = true;
}

void server::answer(connection& from, message& received) {
    const auto asked = received.body.value("request", "");
    if (asked == "member") {
        admit(from, received);
    } else if (asked == "built") {
        _accepts = true;
    } else if (asked == "rules") {
        send_message(from.socket.get(), change_rules(received.body));
    } else {
        send_message(from.socket.get(), {{"error", "unknown request '" + asked + "'"}});
    }
}

/// The command's process asks to come in and brings a descriptor of itself.
void server::admit(connection& from, message& received) {
    if (received.fds.empty()) {
        return;
    }
    from.command = std::move(received.fds[0]);
    from.keeps_alive = true;
    auto fds = _namespaces.fds();
    if (_real_proc_mount) {
        fds.push_back(_real_proc_mount.get());
    }
    send_message(from.socket.get(),
                 {{"simulation", _world.simulation}, {"user", _namespaces.has_user()}}, fds);
    _real_proc_mount.reset();
}

nlohmann::json server::change_rules(const nlohmann::json& wanted) {
    try {
        std::vector<rule> added;
        for (const auto& text : wanted.value("add", std::vector<std::string>{})) {
            added.push_back(parse_rule(text));
        }
        if (wanted.value("clear", false)) {
            _driver.rules().clear();
        }
        for (auto& one : added) {
            _driver.rules().add(std::move(one));
        }
    } catch (const std::exception& wrong) {
        return {{"error", wrong.what()}};
    }
    return {{"rules", _driver.rules().list()}};
}

namespace {

/// Whoever reads the tool's output to its end must not wait for this process, nor may a signal from
/// the terminal end it before the commands.
void detach_from_caller(std::vector<int> kept) {
    ::setsid();
    std::sort(kept.begin(), kept.end());
    unsigned next = 0;
    for (const int fd : kept) {
        if (fd < static_cast<int>(next)) {
            continue;
        }
        ::close_range(next, static_cast<unsigned>(fd) - 1, 0);
        next = static_cast<unsigned>(fd) + 1;
    }
    ::close_range(next, ~0U, 0);
    for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard) {
        static_cast<void>(::open("/dev/null", O_RDWR));
    }
    for (const int number : {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGPIPE}) {
        ::signal(number, SIG_IGN);
    }
}

std::vector<int> descriptors_of(const server_plan& plan) {
    auto fds = plan.control.fds();
    fds.push_back(plan.log.get());
    fds.push_back(plan.first_connection.get());
    return fds;
}

/// Closing with something unread would lose the message on its way, hence the reading.
void send_error(int socket, const std::string& error) {
    send_message(socket, {{"error", error}});
    while (receive_message(socket)) {
    }
}

} // namespace

void serve(server_plan plan) {
    detach_from_caller(descriptors_of(plan));
    try {
        server running{plan};
        running.run();
    } catch (const std::exception& wrong) {
        plan.control.remove();
        if (plan.first_connection) {
            send_error(plan.first_connection.get(), wrong.what());
        }
    }
}

} // namespace sandbox
