#include "library/parent_watch.hpp"

#include "host/lock_state.hpp"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace tarvoctl {

namespace {

/// Of a child that follows its parent.
int line_to_parent = -1;

/// Nothing is ever written: the line is readable once its other end is closed.
bool is_cut(int line, int milliseconds) {
    pollfd look{line, POLLIN, 0};
    return ::poll(&look, 1, milliseconds) > 0;
}

void watch_parent(pthread_t worker, int interruption) {
    while (!is_cut(line_to_parent, -1)) {
    }
    ::kill(::getpid(), SIGTERM);
    // Between two looks the wait may begin, or an interruption may come just before it.
    for (;;) {
        if (waits_for_lock(::getpid())) {
            ::pthread_kill(worker, interruption);
        }
        constexpr std::chrono::milliseconds between_looks{20};
        std::this_thread::sleep_for(between_looks);
    }
}

} // namespace

parent_watch::parent_watch() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error{errno, std::generic_category(), "pipe2"};
    }
    _child_end.reset(ends[0]);
    _parent_end.reset(ends[1]);
}

void parent_watch::follow_parent(int interruption) {
    _parent_end.reset();
    line_to_parent = _child_end.release(); // for the rest of the process's life
    // Signals are the worker's.
    sigset_t all{};
    sigset_t earlier{};
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &earlier);
    std::thread{watch_parent, ::pthread_self(), interruption}.detach();
    ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
}

bool parent_has_ended() {
    return line_to_parent >= 0 && is_cut(line_to_parent, 0);
}

} // namespace tarvoctl
