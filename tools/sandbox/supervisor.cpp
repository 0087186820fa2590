#include "supervisor.hpp"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>

#include "channel.hpp"
#include "failure.hpp"

namespace sandbox {

namespace {

// How long a command may still run when its sandbox has gone.
constexpr int grace_milliseconds = 1000;

// The signals that end a process on request and have no other meaning here.
constexpr std::array<int, 7> forwarded_signals{SIGHUP,  SIGINT,  SIGQUIT, SIGTERM,
                                               SIGUSR1, SIGUSR2, SIGALRM};

// Takes the signals of the supervisor as a descriptor; the command gets back what the caller had.
class watched_signals {
  public:
    watched_signals() {
        sigset_t watched{};
        ::sigemptyset(&watched);
        ::sigaddset(&watched, SIGCHLD);
        for (const int number : forwarded_signals)
            ::sigaddset(&watched, number);
        ::sigprocmask(SIG_BLOCK, &watched, &mask_of_caller_);
        // Ignored, the children's ends would not wait to be asked for.
        struct sigaction standard {};
        standard.sa_handler = SIG_DFL;
        ::sigaction(SIGCHLD, &standard, &child_action_of_caller_);
        fd_.reset(::signalfd(-1, &watched, SFD_CLOEXEC | SFD_NONBLOCK));
        if (!fd_)
            throw failed_call("cannot watch signals");
    }

    void give_back() const {
        ::sigaction(SIGCHLD, &child_action_of_caller_, nullptr);
        ::sigprocmask(SIG_SETMASK, &mask_of_caller_, nullptr);
    }

    int fd() const { return fd_.get(); }

    // The terminal's signals go to the whole foreground group, so the command has them already.
    void forward_to(pid_t command) const {
        signalfd_siginfo came{};
        while (::read(fd_.get(), &came, sizeof came) == sizeof came) {
            if (came.ssi_signo != SIGCHLD && came.ssi_code <= 0)
                ::kill(command, static_cast<int>(came.ssi_signo));
        }
    }

  private:
    sigset_t mask_of_caller_{};
    struct sigaction child_action_of_caller_ {};
    unique_fd fd_;
};

[[noreturn]] void run_member(int socket, const world* built, const command_words& command,
                             pid_t parent) {
    int status = exit_trouble;
    try {
        status = become_member(socket, built, command, parent);
    } catch (const std::exception& wrong) {
        std::fprintf(stderr, "tarvo-sandbox: %s\n", wrong.what());
    }
    // Nothing of the tool's may run twice, buffered output least of all.
    std::_Exit(status);
}

std::optional<int> end_of(pid_t child) {
    int status = 0;
    if (::waitpid(child, &status, WNOHANG) != child)
        return std::nullopt;
    return status;
}

command_end wait_for(pid_t command, const watched_signals& signals, int connection) {
    // Without events asked for, the connection is ready only when the other side is gone.
    std::array<pollfd, 2> watched{{{signals.fd(), POLLIN, 0}, {connection, 0, 0}}};
    bool sandbox_died = false;
    for (;;) {
        const int ready =
            ::poll(watched.data(), watched.size(), sandbox_died ? grace_milliseconds : -1);
        signals.forward_to(command);
        if (const auto status = end_of(command))
            return {*status, sandbox_died};
        if (watched[1].revents != 0) {
            sandbox_died = true;
            watched[1].fd = -1;
        } else if (ready == 0) {
            ::kill(command, SIGKILL);
        }
    }
}

// The sandbox closes the connection when it has done with the command, and, if that was the last
// one, with everything.
void wait_for_sandbox(int connection) {
    ::shutdown(connection, SHUT_WR);
    while (receive_message(connection)) {
    }
}

} // namespace

command_end supervise(unique_fd connection, const world* built, const command_words& command) {
    const pid_t self = ::getpid();
    const watched_signals signals;
    const pid_t child = ::fork();
    if (child < 0)
        throw failed_call("cannot start a process");
    if (child == 0) {
        signals.give_back();
        run_member(connection.get(), built, command, self);
    }
    const command_end end = wait_for(child, signals, connection.get());
    wait_for_sandbox(connection.get());
    signals.give_back();
    return end;
}

void end_like(int wait_status) {
    if (WIFEXITED(wait_status))
        std::exit(WEXITSTATUS(wait_status));
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
    std::_Exit(exit_trouble);
}

} // namespace sandbox
