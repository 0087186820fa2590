#include "channel.hpp"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace channel {

namespace {

std::array<char, 65536> input;
size_t input_start = 0;
size_t input_end = 0;

/// The next byte of the input, read in big pieces; -1 at its end.
int next_byte() {
    if (input_start == input_end) {
        const ssize_t count = read(command_fd, input.data(), input.size());
        if (count <= 0) {
            return -1;
        }
        input_start = 0;
        input_end = static_cast<size_t>(count);
    }
    return static_cast<unsigned char>(input.at(input_start++));
}

void move(int from, int to, int null) {
    if (dup3(from, to, O_CLOEXEC) != to || dup2(null, from) != from) {
        std::abort();
    }
}

} // namespace

void open() {
    const int null = ::open("/dev/null", O_RDWR);
    move(STDIN_FILENO, command_fd, null);
    move(STDOUT_FILENO, reply_fd, null);
    if (null > STDERR_FILENO) {
        close(null);
    }
}

std::optional<std::string> read_line() {
    std::string line;
    for (int c = next_byte(); c != '\n'; c = next_byte()) {
        if (c == -1) {
            return std::nullopt;
        }
        line += static_cast<char>(c);
    }
    return line;
}

void write_line(std::string_view line) {
    std::string rest(line);
    rest += '\n';
    while (!rest.empty()) {
        const ssize_t count = write(reply_fd, rest.data(), rest.size());
        if (count < 0) {
            std::_Exit(EXIT_FAILURE);
        }
        rest.erase(0, static_cast<size_t>(count));
    }
}

void wait_until_nobody_reads() {
    pollfd reader{reply_fd, 0, 0};
    while (poll(&reader, 1, -1) < 0) {
    }
}

} // namespace channel
