#include "process/supervisor.hpp"

#include "common/trouble.hpp"
#include "machine/proc_view.hpp"
#include "process/channel.hpp"
#include "process/namespaces.hpp"
#include "process/report.hpp"

#include <array>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace sandbox {

namespace {

/// How long a command may still run when its sandbox has gone.
constexpr int grace_milliseconds = 1000;

/// The signals that end a process on request and have no other meaning here.
constexpr std::array<int, 7> forwarded_signals{SIGHUP,  SIGINT,  SIGQUIT, SIGTERM,
                                               SIGUSR1, SIGUSR2, SIGALRM};

/// Takes the signals of the supervisor as a descriptor; the command gets back what the caller had.
class watched_signals {
  public:
    watched_signals() {
        sigset_t watched{};
        ::sigemptyset(&watched);
        ::sigaddset(&watched, SIGCHLD);
        for (const int number : forwarded_signals) {
            ::sigaddset(&watched, number);
        }
        ::sigprocmask(SIG_BLOCK, &watched, &_mask_of_caller);
        // Ignored, the children's ends would not wait to be asked for.
        struct sigaction standard {};
        standard.sa_handler = SIG_DFL;
        ::sigaction(SIGCHLD, &standard, &_child_action_of_caller);
        _fd.reset(::signalfd(-1, &watched, SFD_CLOEXEC | SFD_NONBLOCK));
        if (!_fd) {
            throw failed_call("cannot watch signals");
        }
    }

    void give_back() const {
        ::sigaction(SIGCHLD, &_child_action_of_caller, nullptr);
        ::sigprocmask(SIG_SETMASK, &_mask_of_caller, nullptr);
    }

    int fd() const { return _fd.get(); }

    /// The terminal's signals go to the whole foreground group, so the command has them already.
    void forward_to(pid_t command) const {
        signalfd_siginfo came{};
        while (::read(_fd.get(), &came, sizeof came) == sizeof came) {
            if (came.ssi_signo != SIGCHLD && came.ssi_code <= 0) {
                ::kill(command, static_cast<int>(came.ssi_signo));
            }
        }
    }

  private:
    sigset_t _mask_of_caller{};
    struct sigaction _child_action_of_caller {};
    unique_fd _fd;
};

[[noreturn]] void run_member(const member_origin& origin, const world* built,
                             const std::vector<std::string>& command) {
    try {
        become_member(origin, built, command);
    } catch (const std::exception& wrong) {
        // Nothing of the tool's may run twice, buffered output least of all.
        std::_Exit(report(wrong));
    }
}

std::optional<int> end_of(pid_t child) {
    int status = 0;
    if (::waitpid(child, &status, WNOHANG) != child) {
        return std::nullopt;
    }
    return status;
}

int wait_for(pid_t command, const watched_signals& signals, int connection) {
    // Without events asked for, the connection is ready only when the other side is gone.
    std::array<pollfd, 2> watched{{{signals.fd(), POLLIN, 0}, {connection, 0, 0}}};
    bool sandbox_died = false;
    for (;;) {
        const int ready =
            ::poll(watched.data(), watched.size(), sandbox_died ? grace_milliseconds : -1);
        signals.forward_to(command);
        if (const auto status = end_of(command)) {
            return *status;
        }
        if (watched[1].revents != 0) {
            sandbox_died = true;
            watched[1].fd = -1;
        } else if (ready == 0) {
            ::kill(command, SIGKILL);
        }
    }
}

/// Whether the sandbox confirms that it has finished with the command and, if that was the last
/// one, with everything. A sandbox that was killed closes the connection without a message.
bool has_confirmed_end(int connection) {
    ::shutdown(connection, SHUT_WR);
    bool done = false;
    while (const auto received = receive_message(connection)) {
        done = done || received->body.value("done", false);
    }
    return done;
}

/// Where a command leaves the mount namespace that it has entered. As long as it is kept here, the
/// kernel gives its number to no other, whose processes would be killed in place of ours.
class entered_namespace {
  public:
    entered_namespace() {
        std::array<int, 2> ends{-1, -1};
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) !=
            0) {
            throw failed_call("cannot make a Unix socket");
        }
        _reader.reset(ends[0]);
        _writer.reset(ends[1]);
    }

    int writer() const { return _writer.get(); }

    void kill_all() const {
        if (auto received = receive_message(_reader.get())) {
            const auto entered = namespaces::from_message(*received);
            _processes.kill_all_in(entered.mount_name());
        }
    }

  private:
    proc_view _processes; // as it is before a sandbox covers it
    unique_fd _reader;
    unique_fd _writer;
};

} // namespace

command_end supervise(unique_fd connection, const world* built,
                      const std::vector<std::string>& command) {
    const pid_t self = ::getpid();
    const watched_signals signals;
    const entered_namespace entered;
    const pid_t child = ::fork();
    if (child < 0) {
        throw failed_call("cannot start a process");
    }
    if (child == 0) {
        signals.give_back();
        run_member({self, connection.get(), entered.writer()}, built, command);
    }
    const int status = wait_for(child, signals, connection.get());
    const bool sandbox_died = !has_confirmed_end(connection.get());
    if (sandbox_died) {
        entered.kill_all();
    }
    signals.give_back();
    return {status, sandbox_died};
}

void end_like(int wait_status) {
    if (WIFEXITED(wait_status)) {
        std::exit(WEXITSTATUS(wait_status));
    }
    const int number = WTERMSIG(wait_status);
    // The command has left its core dump, if any; this process has nothing to add.
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    ::prctl(PR_SET_DUMPABLE, 0);
    ::signal(number, SIG_DFL);
    sigset_t raised{};
    ::sigemptyset(&raised);
    ::sigaddset(&raised, number);
    ::sigprocmask(SIG_UNBLOCK, &raised, nullptr);
    ::raise(number);
    std::_Exit(static_cast<int>(exit_status::trouble));
}

} // namespace sandbox
