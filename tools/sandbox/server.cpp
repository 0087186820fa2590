#include "server.hpp"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <utility>

#include "failure.hpp"
#include "process_fd.hpp"

namespace sandbox {

namespace {

// The real /proc with all that is mounted in it, taken along before it is covered.
unique_fd clone_proc() {
    unique_fd tree{
        ::open_tree(AT_FDCWD, "/proc", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE)};
    if (!tree)
        throw failed_call("cannot take the real /proc along");
    return tree;
}

} // namespace

server::server(server_plan& plan)
    : played_{plan.played}, driver_{played_, event_log{std::move(plan.log)}},
      control_{plan.control}, namespaces_{namespaces::create()},
      files_{
          driver_, real_proc_, real_sysfs_, {played_.has_proc_file(), played_.has(item::sysfs)}} {
    for (auto& added : plan.rules)
        driver_.rules().add(std::move(added));
    real_proc_mount_ = clone_proc();
    files_.mount();
    connections_.push_back({std::move(plan.first_connection), {}, true, false, false});
}

namespace {

// The tool takes the end of a connection without this for the end of a server that was killed.
void say_done(const unique_fd& socket) {
    send_message(socket.get(), {{"done", true}});
}

} // namespace

bool server::goes_on() const {
    return std::any_of(connections_.begin(), connections_.end(),
                       [](const connection& one) { return one.keeps_alive; });
}

void server::run() {
    while (goes_on()) {
        wait_and_answer();
        forget_the_ended();
    }
    real_proc_.kill_stragglers();
    control_.remove();
    for (const auto& one : connections_)
        say_done(one.socket);
}

// The tool behind a connection takes its end for "all is gone", so the last ones stay until it is.
void server::forget_the_ended() {
    if (!goes_on())
        return;
    connections_.remove_if([](const connection& one) {
        const bool ended = !one.keeps_alive && (one.command_ended || one.hung_up);
        if (ended)
            say_done(one.socket);
        return ended;
    });
}

void server::wait_and_answer() {
    std::vector<pollfd> watched{{files_.fd(), POLLIN, 0},
                                {accepts_ ? control_.fd() : -1, POLLIN, 0}};
    for (const auto& one : connections_) {
        watched.push_back({one.hung_up ? -1 : one.socket.get(), POLLIN, 0});
        watched.push_back({one.command.get(), POLLIN, 0});
    }
    if (::poll(watched.data(), watched.size(), -1) < 0)
        return;
    if (watched[0].revents != 0)
        files_.answer_one();
    auto happened = watched.begin() + 2;
    for (auto& one : connections_) {
        if ((happened++)->revents != 0)
            hear(one);
        if ((happened++)->revents != 0)
            end_command(one);
    }
    if (watched[1].revents != 0)
        accept_one();
}

void server::accept_one() {
    unique_fd accepted{::accept4(control_.fd(), nullptr, nullptr, SOCK_CLOEXEC)};
    if (accepted)
        connections_.push_back({std::move(accepted), {}, false, false, false});
}

void server::hear(connection& from) {
    auto received = receive_message(from.socket.get());
    if (received) {
        answer(from, *received);
        return;
    }
    // The tool is gone. Its command must not outlive it, whatever became of the death signal that
    // it asked for: a command that changes its user loses that.
    from.hung_up = true;
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
        welcome(from, received);
    } else if (asked == "built") {
        accepts_ = true;
    } else if (asked == "rules") {
        send_message(from.socket.get(), change_rules(received.body));
    } else {
        send_message(from.socket.get(), {{"error", "unknown request '" + asked + "'"}});
    }
}

// The command's process asks to come in and brings a descriptor of itself.
void server::welcome(connection& from, message& received) {
    if (received.fds.empty())
        return;
    from.command = std::move(received.fds[0]);
    from.keeps_alive = true;
    auto fds = namespaces_.fds();
    if (real_proc_mount_)
        fds.push_back(real_proc_mount_.get());
    send_message(from.socket.get(),
                 {{"simulation", played_.simulation}, {"user", namespaces_.has_user()}}, fds);
    real_proc_mount_.reset();
}

nlohmann::json server::change_rules(const nlohmann::json& wanted) {
    try {
        std::vector<rule> added;
        for (const auto& text : wanted.value("add", std::vector<std::string>{}))
            added.push_back(parse_rule(text));
        if (wanted.value("clear", false))
            driver_.rules().clear();
        for (auto& one : added)
            driver_.rules().add(std::move(one));
    } catch (const std::exception& wrong) {
        return {{"error", wrong.what()}};
    }
    return {{"rules", driver_.rules().list()}};
}

namespace {

// Whoever reads the tool's output to its end must not wait for this process, nor may a signal from
// the terminal end it before the commands.
void detach_from_caller(std::vector<int> kept) {
    ::setsid();
    std::sort(kept.begin(), kept.end());
    unsigned next = 0;
    for (const int fd : kept) {
        if (fd < static_cast<int>(next))
            continue;
        ::close_range(next, static_cast<unsigned>(fd) - 1, 0);
        next = static_cast<unsigned>(fd) + 1;
    }
    ::close_range(next, ~0U, 0);
    for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard)
        static_cast<void>(::open("/dev/null", O_RDWR));
    for (const int number : {SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGPIPE})
        ::signal(number, SIG_IGN);
}

std::vector<int> descriptors_of(const server_plan& plan) {
    auto fds = plan.control.fds();
    fds.push_back(plan.log.get());
    fds.push_back(plan.first_connection.get());
    return fds;
}

// Closing with something unread would lose the message on its way, hence the reading.
void tell(int socket, const std::string& error) {
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
        if (plan.first_connection)
            tell(plan.first_connection.get(), wrong.what());
    }
}

} // namespace sandbox
