#include "library/library_call.hpp"

#include "common/failure.hpp"
#include "common/unique_fd.hpp"
#include "host/cross_process_lock.hpp"
#include "host/file_shortage.hpp"
#include "host/lock_state.hpp"
#include "host/site.hpp"
#include "library/parent_watch.hpp"
#include "output/standard_output.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace tarvoctl {

namespace {

using clock = std::chrono::steady_clock;

/// The library's wait fails when the handler has run.
constexpr int interrupting_signal = SIGUSR1;

[[noreturn]] void fail(const char* call) {
    throw std::system_error{errno, std::generic_category(), call};
}

/// A failure as it crosses the pipe: its status, then its text.
std::string report_of(exit_status status, const std::string& text) {
    return static_cast<char>(status) + text;
}

/// What there is to know of a call that ended its process by that signal.
std::string reason_of(int signal) {
    if (signal == SIGABRT) {
        return "; its reason is above";
    }
    if (signal != SIGBUS) {
        return ", as damaged records can make it";
    }
    const site here = find_site();
    if (const auto lacking = shortage_in(here)) {
        return fmt::format(": {} {}; {}", lacking->path, lacking->text, lacking->fix);
    }
    return fmt::format(": {} or {} was cut short meanwhile, or had no room on its file system",
                       here.area, here.memory);
}

/// The process that does the work.
[[noreturn]] void carry_out(const std::function<exit_status()>& work, int report_fd,
                            const awaited_signals& signals, parent_watch& parent) {
    signals.release();
    handle_signal(interrupting_signal, do_nothing);
    auto status = exit_status::good;
    std::string report;
    try {
        parent.follow_parent(interrupting_signal); // who ends the tool means to end the call, too
        status = with_output(work);
    } catch (const failure& wrong) {
        report = report_of(wrong.status(), wrong.what());
    } catch (const std::exception& wrong) {
        report = report_of(exit_status::unreadable, wrong.what());
    }
    if (::write(report_fd, report.data(), report.size()) != static_cast<ssize_t>(report.size())) {
        ::_exit(static_cast<int>(exit_status::unreadable));
    }
    ::_exit(static_cast<int>(status));
}

class worker {
  public:
    worker(const std::function<exit_status()>& work, const awaited_signals& signals) {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            fail("pipe2");
        }
        _report.reset(ends[0]);
        unique_fd report_end{ends[1]};
        std::fflush(nullptr); // or both processes would print it
        _pid = ::fork();
        if (_pid < 0) {
            fail("fork");
        }
        if (_pid == 0) {
            carry_out(work, report_end.get(), signals, _parent_watch);
        }
    }

    /// Reads what it reports to the end, and so waits for the process; false when the time is over
    /// or a signal has come.
    bool report_ends_before(clock::time_point moment, const awaited_signals& signals) {
        for (;;) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(moment - clock::now());
            constexpr int64_t longest_poll = 1'000'000; // which has to fit an int
            std::array<pollfd, 2> looks{pollfd{_report.get(), POLLIN, 0},
                                        pollfd{signals.descriptor(), POLLIN, 0}};
            const auto time = static_cast<int>(std::clamp<int64_t>(left.count(), 0, longest_poll));
            const int ready = ::poll(looks.data(), looks.size(), time);
            if (ready > 0 && looks[0].revents != 0 && !receive()) {
                return true;
            }
            if ((ready > 0 && looks[1].revents != 0) || (ready == 0 && clock::now() >= moment)) {
                return false;
            }
        }
    }

    void end_by(int signal) const { ::kill(_pid, signal); }

    /// Ends its wait for the lock, if it is in one.
    void interrupt_wait() {
        if (!waits_for_lock(_pid)) {
            return;
        }
        ::kill(_pid, interrupting_signal);
        _interrupted = true;
    }

    bool interrupted() const { return _interrupted; }

    /// Of a process that has reported.
    exit_status outcome() {
        int end = 0;
        if (::waitpid(_pid, &end, 0) != _pid) {
            fail("waitpid");
        }
        if (WIFSIGNALED(end)) {
            follow(WTERMSIG(end));
        }
        if (!_received.empty()) {
            throw failure{static_cast<exit_status>(_received.front()), _received.substr(1)};
        }
        return static_cast<exit_status>(WEXITSTATUS(end));
    }

  private:
    bool receive() {
        std::array<char, 4096> buffer{};
        const ssize_t count = ::read(_report.get(), buffer.data(), buffer.size());
        if (count > 0) {
            _received.append(buffer.data(), static_cast<size_t>(count));
        }
        return count > 0 || (count < 0 && errno == EINTR);
    }

    /// Signals that come from outside (the reader of a pipe went away, somebody ended the process)
    /// are this process's, too.
    static void follow(int signal) {
        constexpr std::array own_doing{SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL};
        if (std::ranges::find(own_doing, signal) == own_doing.end()) {
            std::signal(signal, SIG_DFL);
            ::raise(signal);
        }
        throw failure{exit_status::finding,
                      fmt::format("the library ended the call with SIG{}{}. 'tarvoctl check' "
                                  "shows whether the area is intact",
                                  ::sigabbrev_np(signal), reason_of(signal))};
    }

    parent_watch _parent_watch;
    unique_fd _report;
    pid_t _pid = -1;
    std::string _received;
    bool _interrupted = false;
};

/// Waits for its end, of which no wait for the lock is left to keep it, once the time is over or a
/// signal is to end it. Returns that signal, or 0.
int wait_for(worker& process, clock::time_point last_moment, const awaited_signals& signals) {
    constexpr std::chrono::milliseconds between_looks{20};
    int signal = 0;
    for (auto moment = last_moment; !process.report_ends_before(moment, signals);
         moment = clock::now() + between_looks) {
        if (const int next = signals.take()) {
            signal = next;
            process.end_by(signal);
        }
        process.interrupt_wait();
    }
    return signal;
}

exit_status outcome_in_time(worker& process, std::chrono::milliseconds timeout) {
    const auto too_late = [timeout] { return busy_lock(find_site().own_lock, timeout); };
    try {
        const exit_status status = process.outcome();
        // An interruption that came just too late did no harm.
        if (status != exit_status::good && process.interrupted()) {
            throw too_late();
        }
        return status;
    } catch (const failure&) {
        if (process.interrupted()) {
            throw too_late();
        }
        throw;
    }
}

} // namespace

change_of_records::change_of_records() {
    if (parent_has_ended()) {
        ::_exit(static_cast<int>(exit_status::unreadable)); // nobody is left to report to
    }
}

exit_status in_library(std::chrono::milliseconds timeout,
                       const std::function<exit_status()>& work) {
    const auto last_moment = clock::now() + timeout;
    { const cross_process_lock taken_once{find_site().locks_to_take(), timeout}; }
    int signal = 0;
    std::optional<worker> process;
    {
        const awaited_signals signals;
        process.emplace(work, signals);
        signal = wait_for(*process, last_moment, signals);
    }
    if (signal != 0) { // which ended the process as soon as it could
        ::raise(signal);
    }
    return outcome_in_time(*process, timeout);
}

} // namespace tarvoctl
