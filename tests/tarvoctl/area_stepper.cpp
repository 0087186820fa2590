#include "area_stepper.hpp"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace {

[[noreturn]] void complain(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// Both arguments are numbers or addresses, as the request has it.
void request(__ptrace_request what, pid_t pid, long address = 0, long data = 0) {
    if (ptrace(what, pid, address, data) == -1) {
        complain("ptrace");
    }
}

void wait_for_stop(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, __WALL) != pid) {
        complain("waitpid");
    }
    if (!WIFSTOPPED(status)) {
        throw std::runtime_error("the client ended while it was stepped through");
    }
}

void resume_and_wait(pid_t pid, __ptrace_request how) {
    request(how, pid);
    wait_for_stop(pid);
}

} // namespace

area_stepper::area_stepper(client& stepped, const std::filesystem::path& lock_file)
    : _client(stepped), _pid(stepped.pid()), _lock(open(lock_file.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (_lock == -1) {
        complain("the lock file");
    }
    request(PTRACE_SEIZE, _pid, 0, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    request(PTRACE_INTERRUPT, _pid);
    wait_for_stop(_pid);
}

area_stepper::~area_stepper() {
    // Fails when the client is gone, which is all the same here.
    ptrace(PTRACE_DETACH, _pid, nullptr, nullptr);
    close(_lock);
}

void area_stepper::run_until_it_has_the_lock() const {
    for (bool takes_lock = false;;) {
        resume_and_wait(_pid, PTRACE_SYSCALL);
        __ptrace_syscall_info info{};
        request(PTRACE_GET_SYSCALL_INFO, _pid, sizeof info, reinterpret_cast<long>(&info));
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            takes_lock = info.entry.nr == SYS_flock && info.entry.args[1] == LOCK_EX;
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && takes_lock && info.exit.rval == 0) {
            return;
        }
    }
}

/// The client stands still meanwhile, so it misses nothing.
bool area_stepper::has_released_the_lock() const {
    if (flock(_lock, LOCK_EX | LOCK_NB) != 0) {
        return false;
    }
    flock(_lock, LOCK_UN);
    return true;
}

bool area_stepper::step(std::string_view command, const std::function<verdict()>& after) {
    constexpr unsigned steps_between_looks = 64;
    _client.send(command);
    run_until_it_has_the_lock();
    for (unsigned steps = 1; steps % steps_between_looks != 0 || !has_released_the_lock();
         ++steps) {
        resume_and_wait(_pid, PTRACE_SINGLESTEP);
        if (after() == verdict::kill) {
            // As the signal of this stop: the client dies without another instruction, and not as
            // one that is traced, whose parent would learn of it too early.
            request(PTRACE_DETACH, _pid, 0, SIGKILL);
            return false;
        }
    }
    request(PTRACE_DETACH, _pid);
    return true;
}
