#include "terminal.hpp"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <unistd.h>

terminal::terminal(unsigned short rows, unsigned short columns)
    : _person(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    if (_person < 0 || grantpt(_person) != 0 || unlockpt(_person) != 0) {
        throw std::runtime_error("no pseudo terminal");
    }
    _program = open(ptsname(_person), O_RDWR | O_NOCTTY | O_CLOEXEC);
    resize(rows, columns);
}

terminal::~terminal() {
    close(_program);
    close(_person);
}

running_tool terminal::start(sandbox& machine, const std::vector<std::string>& words) const {
    return start_tarvoctl(machine, words, name());
}

std::string terminal::name() const {
    return ptsname(_person);
}

void terminal::resize(unsigned short rows, unsigned short columns) const {
    const winsize size{rows, columns, 0, 0};
    ioctl(_person, TIOCSWINSZ, &size);
}

void terminal::type(const std::string& keys) const {
    if (write(_person, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
        throw std::runtime_error("the terminal takes no keys");
    }
}

void terminal::stop_output() const {
    tcflow(_program, TCOOFF);
}

void terminal::go_on() const {
    tcflow(_program, TCOON);
}

void terminal::receive(const std::string& wanted) {
    pollfd reading{_person, POLLIN, 0};
    const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(patience);
    if (poll(&reading, 1, static_cast<int>(time.count())) != 1) {
        throw std::runtime_error("no '" + wanted + "' in: " + _output);
    }
    std::array<char, 4096> buffer{};
    const ssize_t count = read(_person, buffer.data(), buffer.size());
    if (count > 0) {
        _output.append(buffer.data(), static_cast<size_t>(count));
    }
}

const std::string& terminal::output_with(const std::string& wanted, size_t from) {
    while (_output.find(wanted, from) == std::string::npos) {
        receive(wanted);
    }
    return _output;
}

termios terminal::mode() const {
    termios now{};
    tcgetattr(_program, &now);
    return now;
}
