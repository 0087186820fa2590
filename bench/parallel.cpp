#include "parallel.hpp"

#include "backend.hpp"

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

constexpr int max_workers = 16;
constexpr int warm_up = 10; // operations; the first ones of a process find nothing mapped
/// For each process, so that where the scheduler puts them at first does not decide.
constexpr auto working_time = std::chrono::milliseconds{50};

/// What the processes share. They work until it is over, so that the slower ones do less instead
/// of having the machine for themselves in the end.
struct tally {
    std::atomic<bool> over;
    std::array<double, max_workers> done; // each writes its own; read when they have ended
};

tally& shared_tally() {
    void* memory =
        mmap(nullptr, sizeof(tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        fail("no memory for what the workers count");
    }
    return *new (memory) tally{};
}

/// Its end of file is the signal: it comes when the last process has closed the other end.
class signal_pipe {
  public:
    signal_pipe() {
        if (pipe(_ends) != 0) {
            fail("no pipe");
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
            fail("the workers cannot start together");
        }
    }

  private:
    int _ends[2]{};
};

class worker_group {
  public:
    void start(int number, const std::function<operation(int)>& prepare) {
        const pid_t process = fork();
        if (process < 0) {
            fail("cannot fork a worker");
        }
        if (process == 0) {
            run_worker(number, prepare);
        }
        _count++;
    }

    parallel_result work() {
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

    ~worker_group() { munmap(&_tally, sizeof(tally)); }
    worker_group() = default;
    worker_group(const worker_group&) = delete;
    worker_group& operator=(const worker_group&) = delete;

  private:
    [[noreturn]] void run_worker(int number, const std::function<operation(int)>& prepare) {
        const operation work = prepare(number);
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
                fail("a worker failed");
            }
        }
    }

    tally& _tally = shared_tally();
    signal_pipe _ready;
    signal_pipe _start;
    int _count = 0;
};

} // namespace

parallel_result run_in_parallel(int count, const std::function<operation(int)>& prepare) {
    if (count < 1 || count > max_workers) {
        fail("1 to " + std::to_string(max_workers) + " workers can run at once, not " +
             std::to_string(count));
    }
    worker_group all;
    for (int i = 0; i < count; i++) {
        all.start(i, prepare);
    }
    return all.work();
}
