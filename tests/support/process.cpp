#include "process.hpp"

#include "temporary_folder.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

using clock_type = std::chrono::steady_clock;

struct pipe_ends {
    int reading;
    int writing;
};

pipe_ends make_pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("no pipe: ") + std::strerror(errno));
    }
    return {ends[0], ends[1]};
}

void close_if_open(int& fd) {
    if (fd >= 0) {
        close(std::exchange(fd, -1));
    }
}

/// For exec, which leaves the words as they are.
std::vector<char*> pointers_to(const std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const std::string& word : words) {
        pointers.push_back(const_cast<char*>(word.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// Becomes the program. It ends with the test, so that a test that is killed leaves nothing behind.
/// Until then it runs in the test's own memory.
[[noreturn]] void execute(char* const* words, int input, int output, const char* error_file) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int error = open(error_file, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(error, STDERR_FILENO);
    // Not those of whoever runs the tests: clients see the same numbers everywhere.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    execvp(words[0], words);
    dprintf(STDERR_FILENO, "cannot execute %s: %s\n", words[0], std::strerror(errno));
    _exit(127);
}

} // namespace

bool eventually(const std::function<bool()>& is_so, std::chrono::milliseconds time) {
    const auto last_moment = clock_type::now() + time;
    while (!is_so()) {
        if (clock_type::now() > last_moment) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

ending ended_by(int signal) {
    return {-1, signal};
}

std::string shown(const ending& end) {
    return end.signal != 0 ? std::string("signal ") + strsignal(end.signal)
                           : "exit status " + std::to_string(end.status);
}

process::process(const std::vector<std::string>& words, const std::filesystem::path& error_file)
    : _error_file(error_file) {
    pipe_ends input = make_pipe();
    pipe_ends output = make_pipe();
    const std::vector<char*> arguments = pointers_to(words);
    // A fork would copy the tables of the pages of every area that the test has mapped.
    _pid = vfork();
    if (_pid == 0) {
        execute(arguments.data(), input.reading, output.writing, error_file.c_str());
    }
    close(input.reading);
    close(output.writing);
    _input = input.writing;
    _output = output.reading;
    if (_pid < 0) {
        throw std::runtime_error(std::string("no process: ") + std::strerror(errno));
    }
}

process::process(process&& other) noexcept
    : _error_file(std::move(other._error_file)), _pid(std::exchange(other._pid, -1)),
      _input(std::exchange(other._input, -1)), _output(std::exchange(other._output, -1)),
      _received(std::move(other._received)), _output_ended(other._output_ended), _end(other._end) {}

process::~process() {
    close_input();
    if (_pid > 0 && !_end) {
        eventually([this] { return reap(); }, std::chrono::seconds(10));
        give_up();
    }
    close_if_open(_output);
}

void process::write_line(std::string_view line) {
    const std::string text = std::string(line) + "\n";
    // A program that has ended shows in its missing reply; its broken pipe must not end the test.
    std::signal(SIGPIPE, SIG_IGN);
    if (write(_input, text.data(), text.size()) < 0 && errno != EPIPE) {
        complain("cannot be sent \"" + std::string(line) + "\"");
    }
}

/// Waits for more output. False when none came in time.
bool process::receive(std::chrono::milliseconds time) {
    pollfd ready{_output, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(time.count())) <= 0) {
        return false;
    }
    std::array<char, 4096> piece{};
    const ssize_t count = read(_output, piece.data(), piece.size());
    _output_ended = count <= 0;
    _received.append(piece.data(), static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return true;
}

bool process::has_line(std::chrono::milliseconds time) {
    const auto last_moment = clock_type::now() + time;
    while (_received.find('\n') == std::string::npos && !_output_ended) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(last_moment - clock_type::now());
        if (!receive(std::max(left, std::chrono::milliseconds(0)))) {
            return false;
        }
    }
    return true;
}

std::optional<std::string> process::read_line() {
    if (!has_line(patience)) {
        complain("hangs");
    }
    const size_t end = _received.find('\n');
    if (end == std::string::npos) {
        return std::nullopt;
    }
    std::string line = _received.substr(0, end);
    _received.erase(0, end + 1);
    return line;
}

std::string process::read_rest() {
    while (!_output_ended) {
        if (!receive(patience)) {
            complain("hangs");
        }
    }
    return std::exchange(_received, {});
}

void process::kill(int signal) {
    if (!_end) {
        ::kill(_pid, signal);
    }
}

void process::close_input() {
    close_if_open(_input);
}

bool process::reap() {
    int status = 0;
    if (!_end && waitpid(_pid, &status, WNOHANG) == _pid) {
        _end = WIFSIGNALED(status) ? ended_by(WTERMSIG(status)) : ending{WEXITSTATUS(status), 0};
    }
    return _end.has_value();
}

ending process::wait() {
    if (!eventually([this] { return reap(); })) {
        complain("does not end");
    }
    return *_end;
}

void process::give_up() {
    if (!reap()) {
        ::kill(_pid, SIGKILL);
        int status = 0;
        waitpid(_pid, &status, 0);
        _end = ended_by(SIGKILL);
    }
}

void process::complain(const std::string& what) {
    give_up();
    throw std::runtime_error("process " + what + "; its standard error:\n" + error_text());
}

std::string process::error_text() const {
    return file_text(_error_file);
}

finished run_to_end(const std::vector<std::string>& words) {
    const temporary_folder folder;
    process program(words, folder.path() / "errors");
    program.close_input();
    const std::string output = program.read_rest();
    return {program.wait(), output, program.error_text()};
}

std::string file_text(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}
