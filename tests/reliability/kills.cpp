// kills COUNT: in a sandbox, kills so many programs at a random instruction inside the lock, while
// they allocate and free and seven others do so, too. The others must go on, without a repair, and
// none may be given a page that another one has. Prints the figures; ends with 1 where something
// went wrong, and by a signal where something waited for ever.

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <new>
#include <random>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <tarvo.h>
#include <unistd.h>

namespace {

constexpr uint32_t page_bytes = 4096;
constexpr int workers = 7;
constexpr size_t region_pages = 0x10000;
constexpr unsigned most_instructions = 4000; ///< hardly more are in the lock of one call
constexpr unsigned seconds_for_a_kill = 60;
constexpr useconds_t moment = 300; ///< longer than others hold the lock

/// Who has which page, as far as its owners know: 0 is nobody.
struct board {
    std::atomic<bool> is_over;
    std::atomic<size_t> allocations;
    std::array<std::atomic<int>, region_pages> owners;
};
board* shared = nullptr;

// ---- Those who survive -----------------------------------------------------------------------

bool own_and_give_back(const std::string& name, int number, uint32_t first) {
    const uint32_t dma = tarvo_alloc_func(name.c_str(), page_bytes, "worker");
    if (dma == 0) {
        return false;
    }
    std::atomic<int>& owner = shared->owners[(dma - first) / page_bytes % region_pages];
    const bool was_free = owner.exchange(number) == 0;
    const bool is_still_ours = owner.exchange(0) == number;
    ++shared->allocations;
    return tarvo_free(name.c_str()) == 0 && was_free && is_still_ours;
}

pid_t started_worker(int number, uint32_t first) {
    const pid_t child = fork();
    if (child == 0) {
        const std::string name = "worker_" + std::to_string(number);
        bool good = true;
        while (good && !shared->is_over) {
            good = own_and_give_back(name, number, first);
            usleep(moment);
        }
        std::_Exit(good ? 0 : 1);
    }
    return child;
}

// ---- Those who are killed --------------------------------------------------------------------

[[noreturn]] void allocate_and_free_for_ever(const std::string& name) {
    raise(SIGSTOP);
    for (;;) {
        tarvo_alloc_func(name.c_str(), page_bytes, "victim");
        tarvo_free(name.c_str());
    }
}

class victim {
  public:
    explicit victim(const std::string& name) : _pid(fork()) {
        if (_pid == 0) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            allocate_and_free_for_ever(name);
        }
        wait_for_stop();
        ptrace(PTRACE_SETOPTIONS, _pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    }

    /// Up to the return of the call that takes the lock for the n-th time.
    void run_until_it_has_the_lock(unsigned nth) const {
        for (bool takes_lock = false; nth > 0;) {
            go_on(PTRACE_SYSCALL);
            __ptrace_syscall_info info{};
            ptrace(PTRACE_GET_SYSCALL_INFO, _pid, sizeof info, &info);
            if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
                takes_lock = info.entry.nr == SYS_flock && info.entry.args[1] == LOCK_EX;
            } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && takes_lock && info.exit.rval == 0) {
                --nth;
                takes_lock = false;
            }
        }
    }

    void step(unsigned instructions) const {
        for (unsigned i = 0; i < instructions; ++i) {
            go_on(PTRACE_SINGLESTEP);
        }
    }

    void end() const {
        kill(_pid, SIGKILL);
        int status = 0;
        waitpid(_pid, &status, 0);
    }

  private:
    void go_on(__ptrace_request how) const {
        ptrace(how, _pid, nullptr, nullptr);
        wait_for_stop();
    }
    void wait_for_stop() const {
        int status = 0;
        if (waitpid(_pid, &status, 0) != _pid || !WIFSTOPPED(status)) {
            std::cout << "a victim ended by itself: status " << status << '\n';
            std::exit(1);
        }
    }

    pid_t _pid;
};

/// Whether one who stands still has the lock: others hold it for moments only.
bool is_kept(int lock) {
    constexpr int tries = 10;
    for (int i = 0; i < tries; ++i) {
        if (flock(lock, LOCK_EX | LOCK_NB) == 0) {
            flock(lock, LOCK_UN);
            return false;
        }
        usleep(moment);
    }
    return true;
}

/// Whether it died with the lock held.
bool kill_one(const std::string& name, int lock, std::mt19937& random) {
    alarm(seconds_for_a_kill);
    const victim one(name);
    one.run_until_it_has_the_lock(1 + random() % 2); // it allocates, or frees
    one.step(static_cast<unsigned>(random() % most_instructions));
    const bool inside = is_kept(lock);
    one.end();
    tarvo_free(name.c_str());
    return inside;
}

} // namespace

int main(int count, char** words) {
    const size_t wanted = count == 2 ? std::strtoul(words[1], nullptr, 10) : 0;
    void* memory =
        mmap(nullptr, sizeof(board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    uint32_t first = 0;
    uint32_t end = 0;
    if (wanted == 0 || memory == MAP_FAILED || tarvo_get_limits(&first, &end) != 0) {
        std::cerr << "usage: kills COUNT, where there is a region\n";
        return 2;
    }
    shared = new (memory) board;
    std::array<pid_t, workers> others{};
    for (int i = 0; i < workers; ++i) {
        others[static_cast<size_t>(i)] = started_worker(i + 1, first);
    }
    const int lock = open("/var/tmp/tarvo_lock", O_RDONLY | O_CLOEXEC);
    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    size_t inside = 0;
    for (size_t kills = 0; inside < wanted; ++kills) {
        inside += kill_one("victim_" + std::to_string(kills), lock, random) ? 1U : 0U;
    }
    shared->is_over = true;
    int failures = 0;
    for (const pid_t each : others) {
        int status = 0;
        waitpid(each, &status, 0);
        failures += status == 0 ? 0 : 1;
    }
    std::cout << inside << " kills inside the lock, " << shared->allocations
              << " allocations by others, " << failures << " of them failed (seed " << seed
              << ")\n";
    return failures == 0 ? 0 : 1;
}
