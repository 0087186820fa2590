#include "host/cross_process_lock.hpp"

#include "common/failure.hpp"
#include "common/shown.hpp"
#include "host/ending_signals.hpp"
#include "host/lock_state.hpp"
#include "host/processes.hpp"
#include "host/regular_file.hpp"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <system_error>

namespace tarvoctl {

namespace {

using clock = std::chrono::steady_clock;

/// Interrupts system calls again and again once a time is over, so that none that begins just
/// after the first interruption waits for ever.
class interruption {
  public:
    explicit interruption(std::chrono::milliseconds delay) {
        struct sigaction act {};
        act.sa_handler = do_nothing; // without SA_RESTART
        ::sigaction(SIGALRM, &act, &_earlier);
        sigevent event{};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGALRM;
        if (::timer_create(CLOCK_MONOTONIC, &event, &_timer) != 0) {
            throw std::system_error{errno, std::generic_category(), "timer_create"};
        }
        constexpr long repeat_nanoseconds = 10'000'000;
        const auto nanoseconds = std::chrono::nanoseconds{delay} % std::chrono::seconds{1};
        itimerspec when{};
        when.it_value.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(delay).count();
        when.it_value.tv_nsec = nanoseconds.count() + 1; // 0 would disarm it
        when.it_interval.tv_nsec = repeat_nanoseconds;
        ::timer_settime(_timer, 0, &when, nullptr);
    }
    ~interruption() {
        ::timer_delete(_timer);
        ::sigaction(SIGALRM, &_earlier, nullptr);
    }
    interruption(const interruption&) = delete;
    interruption& operator=(const interruption&) = delete;

  private:
    timer_t _timer{};
    struct sigaction _earlier {};
};

/// Takes the lock of an open file; false when the time is over.
bool take(const unique_fd& file, clock::time_point last_moment) {
    if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
        return true;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(last_moment - clock::now());
    if (left.count() <= 0) {
        return false;
    }
    const interruption later{left};
    while (::flock(file.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            throw std::system_error{errno, std::generic_category(), "flock"};
        }
        if (clock::now() >= last_moment) {
            return false;
        }
    }
    return true;
}

/// "4711 (my_driver) holds it", and what helps where it is stopped; empty where that is unknown.
std::string holder_text(const std::string& file) {
    const auto holder = lock_picture_of({file}).locks.front().holder();
    if (!holder) {
        return {};
    }
    const auto process = process_of(*holder);
    const std::string command = process ? shown(process->command) : "";
    return fmt::format("{}{} holds it{}", *holder,
                       command.empty() ? "" : fmt::format(" ({})", command),
                       process && process->is_stopped()
                           ? fmt::format(" and is stopped, kill -CONT {} lets it go on", *holder)
                           : "");
}

} // namespace

failure busy_lock(const std::string& file, std::chrono::milliseconds timeout,
                  const std::string& remedy) {
    const std::string holder = holder_text(file);
    const double seconds = std::chrono::duration<double>{timeout}.count();
    return {exit_status::timed_out,
            fmt::format("the lock {} was not free within {} s{}; 'tarvoctl lock' shows {}, {}",
                        file, seconds, holder.empty() ? "" : ": " + holder,
                        holder.empty() ? "who holds it" : "more", remedy)};
}

cross_process_lock::cross_process_lock(const std::vector<std::string>& files,
                                       std::chrono::milliseconds timeout,
                                       const std::string& remedy) {
    const auto last_moment = clock::now() + timeout;
    for (const auto& path : files) {
        unique_fd file = open_regular_file(path, O_RDONLY);
        if (!file && (errno == ENOENT || errno == ENOTDIR)) {
            continue;
        }
        if (!file) {
            throw failure{
                exit_status::unreadable,
                fmt::format("cannot open the lock {}: {}; try as root", path, error_text(errno))};
        }
        if (!take(file, last_moment)) {
            throw busy_lock(path, timeout, remedy);
        }
        _held.push_back(std::move(file));
    }
}

} // namespace tarvoctl
