// forks COUNT: in a sandbox, forks so often from a program that uses the library: children beside
// each other and their parent, while the parent holds the lock with a listing, from a holder that
// is then killed, and for other programs. All go on allocating and freeing; each must get what it
// asks for, and none the lock while another has it. Prints the figures; ends with 1 where something
// went wrong, and by a signal where something waited for ever.

#include "lock_table.hpp"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <new>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <tarvo.h>
#include <unistd.h>

namespace {

constexpr uint32_t page_bytes = 4096;
constexpr unsigned seconds_for_a_round = 60;
constexpr useconds_t moment = 50; ///< between two looks

size_t forks_made = 0;
size_t failures = 0;

void note(bool good) {
    failures += good ? 0U : 1U;
}

bool allocate_and_free(const char* name) {
    return tarvo_alloc_func(name, page_bytes, "test") != 0 && tarvo_free(name) == 0;
}

template <typename Work>
pid_t forked(Work work) {
    ++forks_made;
    const pid_t child = fork();
    if (child == 0) {
        alarm(seconds_for_a_round);
        std::_Exit(work() ? 0 : 1);
    }
    return child;
}

/// False where the child ends instead.
bool comes_to_wait(pid_t child) {
    while (!waits_for_a_lock(child)) {
        siginfo_t end{};
        if (waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) != 0 ||
            end.si_pid == child) {
            return false;
        }
        usleep(moment);
    }
    return true;
}

void wait_for(pid_t child, int expected = 0) {
    int status = -1;
    note(waitpid(child, &status, 0) == child && status == expected);
}

/// A word that a process waits for. Its ends are closed on exec.
class signal_line {
  public:
    signal_line() { note(pipe(_ends.data()) == 0); }
    ~signal_line() {
        close(_ends[0]);
        close(_ends[1]);
    }
    signal_line(const signal_line&) = delete;
    signal_line& operator=(const signal_line&) = delete;

    void send() const { note(write(_ends[1], "x", 1) == 1); }
    bool wait() const {
        char word = 0;
        return read(_ends[0], &word, 1) == 1;
    }
    int reading_end() const { return _ends[0]; }

  private:
    std::array<int, 2> _ends{};
};

/// What processes see of each other.
struct board {
    std::atomic<bool> parent_is_done;
};
board* shared = nullptr;

void beside_each_other() {
    const pid_t first = forked([] { return allocate_and_free("first"); });
    const pid_t second = forked([] { return allocate_and_free("second"); });
    note(allocate_and_free("parent"));
    wait_for(first);
    wait_for(second);
}

void while_a_listing_is_held() {
    shared->parent_is_done = false;
    note(tarvo_dump_begin());
    const pid_t child = forked([] { return allocate_and_free("child") && shared->parent_is_done; });
    note(comes_to_wait(child));
    shared->parent_is_done = true;
    tarvo_dump_end();
    wait_for(child);
}

/// The lock goes with its holder, though its child lives on.
void from_a_holder_that_is_killed() {
    const signal_line holds;
    const signal_line go_on;
    const signal_line is_done;
    const pid_t holder = forked([&] {
        tarvo_dump_begin();
        forked([&] {
            if (go_on.wait() && allocate_and_free("orphan")) {
                is_done.send();
            }
            return true;
        });
        holds.send();
        pause();
        return false;
    });
    ++forks_made;
    note(holds.wait());
    kill(holder, SIGKILL);
    wait_for(holder, SIGKILL);
    note(allocate_and_free("parent"));
    go_on.send();
    note(is_done.wait());
}

/// The lock does not go on into another program: the parent, who waits for it, gets it then.
void for_another_program() {
    const signal_line holds;
    const signal_line input;
    const pid_t parent = getpid();
    shared->parent_is_done = false;
    const pid_t child = forked([&] {
        tarvo_dump_begin();
        holds.send();
        while (!waits_for_a_lock(parent) && !shared->parent_is_done) {
            usleep(moment);
        }
        if (shared->parent_is_done) { // it got the lock that this process has
            return false;
        }
        dup2(input.reading_end(), STDIN_FILENO);
        execlp("dd", "dd", "of=/dev/null", "count=1", "status=none", nullptr);
        return false;
    });
    note(holds.wait());
    note(allocate_and_free("parent"));
    shared->parent_is_done = true;
    input.send();
    wait_for(child);
}

} // namespace

int main(int count, char** words) {
    const size_t wanted = count == 2 ? std::strtoul(words[1], nullptr, 10) : 0;
    void* memory =
        mmap(nullptr, sizeof(board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (wanted == 0 || memory == MAP_FAILED || !allocate_and_free("first")) {
        std::cerr << "usage: forks COUNT, where there is a region\n";
        return 2;
    }
    shared = new (memory) board;
    while (forks_made < wanted && failures == 0) {
        alarm(seconds_for_a_round);
        beside_each_other();
        while_a_listing_is_held();
        from_a_holder_that_is_killed();
        for_another_program();
    }
    std::cout << forks_made << " forks, " << failures << " failures\n";
    return failures == 0 ? 0 : 1;
}
