// kills COUNT: in a sandbox, kills so many programs at a random instruction inside the lock, while
// they allocate and free and seven others do so, too. The others must go on, without a repair, and
// none may be given a page that another one has. Prints the figures; ends with 1 where something
// went wrong, and by a signal where something waited for ever.

#include "lock_table.hpp"
#include "one_processor.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
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
constexpr useconds_t shortest = 300; ///< longer than a call takes that need not wait
constexpr int nobody = 0;
constexpr int mark_of_victims = workers + 1; ///< of the one that lives

/// Who has which page, as far as its owners know.
struct board {
    uint32_t first_dma;
    std::atomic<bool> is_over;
    std::atomic<size_t> allocations;
    std::atomic<size_t> failed_calls;
    std::atomic<size_t> doubly_owned;
    std::array<std::atomic<int>, region_pages> owners;
};
board* shared = nullptr;

/// The page is marked for as long as it is owned. Within the library nothing is marked, so one who
/// dies inside the lock leaves no mark.
void own_for_a_while(const std::string& name, int mark, useconds_t time) {
    const uint32_t dma = tarvo_alloc_func(name.c_str(), page_bytes, "test");
    if (dma == 0) {
        ++shared->failed_calls;
        return;
    }
    std::atomic<int>& owner = shared->owners.at((dma - shared->first_dma) / page_bytes);
    const bool was_free = owner.exchange(mark) == nobody;
    usleep(time);
    const bool is_still_ours = owner.exchange(nobody) == mark;
    shared->doubly_owned += was_free && is_still_ours ? 0U : 1U;
    shared->failed_calls += tarvo_free(name.c_str()) == 0 ? 0U : 1U;
}

bool all_is_well() {
    return shared->failed_calls == 0 && shared->doubly_owned == 0;
}

// ---- Those who survive -----------------------------------------------------------------------

/// Each has its pages twice as long as the one before: while a victim is stepped through the lock,
/// the first ones come to wait for it, and the last ones own what must not be given away.
pid_t started_worker(int mark) {
    const pid_t child = fork();
    if (child == 0) {
        const std::string name = "worker_" + std::to_string(mark);
        while (!shared->is_over) {
            own_for_a_while(name, mark, shortest << mark);
            ++shared->allocations;
        }
        std::_Exit(0);
    }
    return child;
}

bool ends_well(pid_t worker) {
    int status = 0;
    return worker > 0 && waitpid(worker, &status, 0) == worker && status == 0;
}

// ---- Those who are killed --------------------------------------------------------------------

[[noreturn]] void allocate_and_free_for_ever(const std::string& name) {
    raise(SIGSTOP);
    for (;;) {
        own_for_a_while(name, mark_of_victims, shortest);
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

    bool has_the_lock() const { return holds_a_lock(_pid); }

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

/// One who died outside of the lock may have had a page.
void remove_mark_of_victim() {
    for (std::atomic<int>& owner : shared->owners) {
        int mark = mark_of_victims;
        owner.compare_exchange_strong(mark, nobody);
    }
}

/// Whether it died with the lock held.
bool kill_one(const std::string& name, std::mt19937& random) {
    alarm(seconds_for_a_kill);
    const victim one(name);
    one.run_until_it_has_the_lock(1 + random() % 2); // it allocates, or frees
    one.step(static_cast<unsigned>(random() % most_instructions));
    const bool inside = one.has_the_lock();
    one.end();
    remove_mark_of_victim();
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
    shared->first_dma = first;
    std::array<pid_t, workers> others{};
    for (int i = 0; i < workers; ++i) {
        others[static_cast<size_t>(i)] = started_worker(i + 1);
    }
    stay_on_one_processor(); // with its victims, which it steps; the others go on where they are
    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    size_t inside = 0;
    for (size_t kills = 0; inside < wanted && all_is_well(); ++kills) {
        inside += kill_one("victim_" + std::to_string(kills), random) ? 1U : 0U;
    }
    shared->is_over = true;
    const auto badly_ended = std::ranges::count_if(others, std::not_fn(ends_well));
    std::cout << inside << " kills inside the lock, " << shared->allocations
              << " allocations by others: " << shared->failed_calls << " calls failed, "
              << shared->doubly_owned << " times a page had two owners, " << badly_ended
              << " of the others ended badly (seed " << seed << ")\n";
    return all_is_well() && badly_ended == 0 ? 0 : 1;
}
