#include "common/exit_status.hpp"
#include "program.hpp"

#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// A standard descriptor that is closed would be given to the next file that is opened, and the
/// library's messages be written into it. In its place input and output are files that refuse to be
/// read and written, so that nothing is lost unnoticed; messages nobody wants go nowhere.
void occupy_closed_descriptors() {
    constexpr int ways[] = {O_WRONLY, O_RDONLY, O_WRONLY};
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) == -1) {
            // The lowest free number, so open() gives that one.
            static_cast<void>(::open("/dev/null", ways[descriptor]));
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    occupy_closed_descriptors();
    try {
        return tarvoctl::program{}.run(argc, argv);
    } catch (const std::exception& wrong) {
        // There is no memory for the words of the commands, or for the report of a failure.
        std::fprintf(stderr, "tarvoctl: %s\n", wrong.what());
        return static_cast<int>(exit_status::unreadable);
    }
}
