#include "crowd.hpp"

#include "contender.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <new>
#include <numeric>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int members_at_most = 16;
constexpr int warm_up = 10; // operations; the first ones of a process find nothing mapped
/// For each process, so that where the scheduler puts them at first does not decide.
constexpr auto working_time = std::chrono::milliseconds{50};

/// What the processes share. They work until it is over, so that the slower ones do less instead
/// of having the machine for themselves in the end.
struct tally {
    std::atomic<bool> over;
    std::array<double, members_at_most> done; // each writes its own; read when they have ended
};

tally& shared_tally() {
    void* memory =
        mmap(nullptr, sizeof(tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        give_up("no memory for a crowd's tally");
    }
    return *new (memory) tally{};
}

/// Its end of file is the signal: it comes when the last process has closed the other end.
class signal_pipe {
  public:
    signal_pipe() {
        if (pipe(_ends) != 0) {
            give_up("no pipe");
        }
    }
    ~signal_pipe() {
        close(_ends[0]);
        give();
    }
    signal_pipe(const signal_pipe&) = delete;
    signal_pipe& operator=(const signal_pipe&) = delete;

    void give() {
        if (_ends[1] >= 0) {
            close(_ends[1]);
        }
        _ends[1] = -1;
    }

    void wait() {
        give();
        char nothing = 0;
        if (read(_ends[0], &nothing, 1) != 0) {
            give_up("a crowd cannot agree");
        }
    }

  private:
    int _ends[2]{};
};

class crowd {
  public:
    void start(int number, const std::function<operation(int)>& enrol) {
        const pid_t process = fork();
        if (process < 0) {
            give_up("no process for a crowd");
        }
        if (process == 0) {
            be_member(number, enrol);
        }
        _count++;
    }

    crowd_result work() {
        _ready.wait();
        const double time = time_of([this] {
            _start.give();
            std::this_thread::sleep_for(working_time * _count);
            _tally.over = true;
        });
        wait_for_all();
        const std::vector<double> done{_tally.done.begin(), _tally.done.begin() + _count};
        const double all = std::accumulate(done.begin(), done.end(), 0.0);
        return {time / all, *std::ranges::min_element(done) * _count / all};
    }

    ~crowd() { munmap(&_tally, sizeof(tally)); }
    crowd() = default;
    crowd(const crowd&) = delete;
    crowd& operator=(const crowd&) = delete;

  private:
    [[noreturn]] void be_member(int number, const std::function<operation(int)>& enrol) {
        const operation work = enrol(number);
        for (int i = 0; i < warm_up; i++) {
            work();
        }
        _ready.give();
        _start.wait();
        double done = 0;
        for (; !_tally.over; done++) {
            work();
        }
        _tally.done[static_cast<size_t>(number)] = done;
        _exit(0);
    }

    void wait_for_all() const {
        for (int i = 0; i < _count; i++) {
            int status = 0;
            if (wait(&status) < 0 || status != 0) {
                give_up("a process of a crowd failed");
            }
        }
    }

    tally& _tally = shared_tally();
    signal_pipe _ready;
    signal_pipe _start;
    int _count = 0;
};

} // namespace

crowd_result work_as_crowd(int count, const std::function<operation(int)>& enrol) {
    if (count < 1 || count > members_at_most) {
        give_up("a crowd is of 1 to " + std::to_string(members_at_most) + " processes, not of " +
                std::to_string(count));
    }
    crowd all;
    for (int i = 0; i < count; i++) {
        all.start(i, enrol);
    }
    return all.work();
}
