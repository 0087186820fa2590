#include "tool.hpp"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <signal.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

temporary_folder::temporary_folder() {
    std::string name = std::filesystem::temp_directory_path() / "tarvo-sandbox-test.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error{"cannot make a temporary folder"};
    }
    _path = name;
}

temporary_folder::~temporary_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}

namespace {

void redirect(int standard, const std::string& path) {
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ::dup2(file, standard);
}

[[noreturn]] void execute(const words& command) {
    std::vector<char*> arguments;
    for (const auto& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    ::execvp(arguments.front(), arguments.data());
    std::_Exit(99);
}

} // namespace

running_program::running_program(const words& command) : _pid{::fork()} {
    if (_pid != 0) {
        return;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    redirect(STDOUT_FILENO, _folder.path("out"));
    redirect(STDERR_FILENO, _folder.path("err"));
    execute(command);
}

running_program::~running_program() {
    if (_pid < 0) {
        return;
    }
    ::kill(_pid, SIGKILL);
    ::waitpid(_pid, nullptr, 0);
}

std::string running_program::output() const {
    return file_text(_folder.path("out"));
}

outcome running_program::wait() {
    int status = 0;
    if (::waitpid(_pid, &status, 0) != _pid) {
        throw std::runtime_error{"the program cannot be waited for"};
    }
    _pid = -1;
    outcome ended;
    if (WIFEXITED(status)) {
        ended.status = WEXITSTATUS(status);
    } else {
        ended.signal = WTERMSIG(status);
    }
    ended.output = output();
    ended.errors = file_text(_folder.path("err"));
    return ended;
}

words tool(const words& arguments) {
    words command{SANDBOX_TOOL};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

outcome run(const words& command) {
    return running_program{command}.wait();
}

outcome run_script(const words& options, const std::string& script) {
    words command = tool(options);
    command.insert(command.end(), {"--", "sh", "-c", script});
    return run(command);
}

std::string speak(const words& options, const words& speaker_arguments) {
    words command = tool(options);
    command.insert(command.end(), {"--", SANDBOX_SPEAKER});
    command.insert(command.end(), speaker_arguments.begin(), speaker_arguments.end());
    const outcome ended = run(command);
    return ended.output + ended.errors;
}

std::string file_text(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream{path}.rdbuf();
    return text.str();
}

std::vector<nlohmann::json> log_lines(const std::string& path) {
    std::vector<nlohmann::json> lines;
    std::istringstream text{file_text(path)};
    for (std::string line; std::getline(text, line);) {
        lines.push_back(nlohmann::json::parse(line));
    }
    return lines;
}

bool eventually(const std::function<bool()>& wanted) {
    constexpr std::chrono::seconds patience{10};
    constexpr std::chrono::milliseconds pause{5};
    const auto last_moment = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < last_moment) {
        if (wanted()) {
            return true;
        }
        std::this_thread::sleep_for(pause);
    }
    return wanted();
}
