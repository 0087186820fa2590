#include "sandbox.hpp"

#include "one_processor.hpp"

#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::vector<std::string> operator+(std::vector<std::string> first,
                                   const std::vector<std::string>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

int open_lock(const std::filesystem::path& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("cannot open " + path.string());
    }
    return fd;
}

} // namespace

sandbox::sandbox(const world& chosen, const std::vector<std::string>& options) : _world(chosen) {
    stay_on_one_processor();
    const std::filesystem::path& top = _folder.path();
    std::filesystem::create_directory(top / "state");
    _keeper.emplace(std::vector<std::string>{TARVO_SANDBOX, "run", "--world", chosen.name,
                                             "--state", top / "state", "--log", top / "log",
                                             "--control", top / "control"} +
                        options + std::vector<std::string>{"--", "cat"},
                    error_file());
    _keeper->write_line("ready");
    if (_keeper->read_line() != "ready") {
        throw std::runtime_error("no sandbox: " + _keeper->error_text());
    }
}

client sandbox::start(const std::vector<std::string>& first_commands) {
    client started = start_program({TARVO_CLIENT});
    for (const std::string& command : first_commands) {
        started.call(command);
    }
    return started;
}

client sandbox::start_program(const std::vector<std::string>& words) {
    client started(start_process(words));
    started.pid();
    return started;
}

process sandbox::start_process(const std::vector<std::string>& words) {
    return process(std::vector<std::string>{TARVO_SANDBOX, "join", "--control",
                                            _folder.path() / "control", "--"} +
                       words,
                   error_file());
}

std::filesystem::path sandbox::error_file() {
    return _folder.path() / ("stderr-" + std::to_string(_processes++));
}

void sandbox::add_rules(const std::vector<std::string>& rules) {
    change_rules(rules);
}

void sandbox::replace_rules(const std::vector<std::string>& rules) {
    change_rules(std::vector<std::string>{"--clear"} + rules);
}

void sandbox::change_rules(const std::vector<std::string>& arguments) {
    process change(
        std::vector<std::string>{TARVO_SANDBOX, "rule", "--control", _folder.path() / "control"} +
            arguments,
        error_file());
    change.close_input();
    if (change.wait() != normal_end) {
        throw std::runtime_error("rules not changed: " + change.error_text());
    }
}

std::filesystem::path sandbox::memory_file() const {
    return _world.simulated ? simulated_memory() : physical_memory();
}

std::filesystem::path sandbox::shared_area() const {
    return _world.simulated ? simulated_area() : hardware_area();
}

std::filesystem::path sandbox::lock_file() const {
    return _world.simulated ? simulated_lock() : hardware_lock();
}

std::vector<std::string> sandbox::driver_log() const {
    std::vector<std::string> lines;
    for (const driver_event& event : driver_events(_folder.path() / "log")) {
        lines.push_back(shown(event));
    }
    return lines;
}

std::vector<std::string> sandbox::written_to(const char* file) const {
    std::vector<std::string> writes;
    for (const driver_event& event : driver_events(_folder.path() / "log")) {
        if (event.event == "write" && event.file == file) {
            writes.push_back(event.bytes);
        }
    }
    return writes;
}

std::vector<std::string> sandbox::request_lines() const {
    return written_to("sysfs");
}

std::vector<std::string> sandbox::cma_commands() const {
    return written_to("proc");
}

std::string mode_of(const std::filesystem::path& path) {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0) {
        return "missing";
    }
    std::ostringstream text;
    text << "0" << std::oct << (file.st_mode & 07777U);
    return text.str();
}

held_lock::held_lock(const std::filesystem::path& path) : _fd(open_lock(path)) {
    flock(_fd, LOCK_EX);
}

held_lock::~held_lock() {
    close(_fd);
}

bool lock_is_free(const std::filesystem::path& path) {
    const int fd = open_lock(path);
    const bool free = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return free;
}
