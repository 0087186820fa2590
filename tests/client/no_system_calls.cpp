#include "no_system_calls.hpp"

#include "channel.hpp"

#include <array>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace {

sock_filter load(size_t offset) {
    return {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<unsigned>(offset)};
}

/// Skips the following `skip` instructions unless the loaded value is `value`.
sock_filter unless_equal_skip(unsigned value, unsigned char skip) {
    return {BPF_JMP | BPF_JEQ | BPF_K, 0, skip, value};
}

sock_filter answer(unsigned verdict) {
    return {BPF_RET | BPF_K, 0, 0, verdict};
}

} // namespace

bool forbid_system_calls() {
    constexpr size_t number = offsetof(seccomp_data, nr);
    constexpr size_t first_argument = offsetof(seccomp_data, args);
    std::array program = {
        load(number),
        unless_equal_skip(SYS_exit_group, 1),
        answer(SECCOMP_RET_ALLOW),
        unless_equal_skip(SYS_read, 3),
        load(first_argument),
        unless_equal_skip(channel::command_fd, 1),
        answer(SECCOMP_RET_ALLOW),
        load(number),
        unless_equal_skip(SYS_write, 3),
        load(first_argument),
        unless_equal_skip(channel::reply_fd, 1),
        answer(SECCOMP_RET_ALLOW),
        answer(SECCOMP_RET_KILL_PROCESS),
    };
    const sock_fprog filter{program.size(), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}
