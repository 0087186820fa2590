#include "host/ending_signals.hpp"

#include <cerrno>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace tarvoctl {

namespace {

/// A signal that is held back is kept even if it is ignored, so those are left out.
bool is_ignored(int signal) {
    struct sigaction found {};
    return ::sigaction(signal, nullptr, &found) == 0 && found.sa_handler == SIG_IGN;
}

} // namespace

void handle_signal(int signal, void (*handler)(int)) {
    struct sigaction act {};
    act.sa_handler = handler; // without SA_RESTART
    ::sigaction(signal, &act, nullptr);
}

void do_nothing(int /*signal*/) {}

held_back_signals::held_back_signals() {
    ::sigemptyset(&_held);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        if (!is_ignored(signal)) {
            ::sigaddset(&_held, signal);
        }
    }
    ::sigprocmask(SIG_BLOCK, &_held, &_earlier);
}

held_back_signals::~held_back_signals() {
    ::sigprocmask(SIG_SETMASK, &_earlier, nullptr);
}

awaited_signals::awaited_signals()
    : _arrivals{::signalfd(-1, &_held_back.held(), SFD_CLOEXEC | SFD_NONBLOCK)} {
    if (!_arrivals) {
        throw std::system_error{errno, std::generic_category(), "signalfd"};
    }
}

int awaited_signals::take() const {
    signalfd_siginfo come{};
    const bool any = ::read(_arrivals.get(), &come, sizeof come) == sizeof come;
    return any ? static_cast<int>(come.ssi_signo) : 0;
}

void awaited_signals::release() const {
    ::sigprocmask(SIG_SETMASK, &_held_back.earlier(), nullptr);
}

} // namespace tarvoctl
