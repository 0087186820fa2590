#include "output/standard_output.hpp"

#include "common/failure.hpp"

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace tarvoctl {

namespace {

[[noreturn]] void fail(int number) {
    throw failure{exit_status::unreadable, "cannot write to standard output" +
                                               (number != 0 ? ": " + error_text(number) : "")};
}

} // namespace

void flush_output() {
    errno = 0; // an earlier error number means nothing now
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        fail(errno);
    }
}

exit_status with_output(const std::function<exit_status()>& work) {
    try {
        const exit_status status = work();
        flush_output();
        return status;
    } catch (const std::system_error& wrong) { // also what printing throws
        if (std::ferror(stdout) == 0) {
            throw;
        }
        fail(wrong.code().value());
    }
}

} // namespace tarvoctl
