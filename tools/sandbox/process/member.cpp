#include "process/member.hpp"

#include "common/trouble.hpp"
#include "common/unique_fd.hpp"
#include "machine/world_mounts.hpp"
#include "process/channel.hpp"
#include "process/namespaces.hpp"
#include "process/process_fd.hpp"
#include "shared/paths.hpp"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>

namespace sandbox {

namespace {

/// Entering a mount namespace moves a process to its root.
class current_folder {
  public:
    current_folder() : _folder{::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)} {
        std::error_code unnamed;
        _path = std::filesystem::current_path(unnamed);
    }

    /// By its path, so that the command can name it; a folder that the sandbox hides stays the
    /// current one anyway.
    void restore() const {
        if (::chdir(_path.c_str()) == 0 && is_here()) {
            return;
        }
        if (::fchdir(_folder.get()) != 0) {
            throw failed_call("cannot return to the current folder");
        }
    }

  private:
    bool is_here() const {
        struct stat here {};
        struct stat wanted {};
        return ::stat(".", &here) == 0 && ::fstat(_folder.get(), &wanted) == 0 &&
               here.st_dev == wanted.st_dev && here.st_ino == wanted.st_ino;
    }

    unique_fd _folder;
    std::filesystem::path _path;
};

message request_admission(int socket) {
    const unique_fd self = own_process_fd();
    if (!self) {
        throw failed_call("cannot open a descriptor of this process");
    }
    // Not sent because the other side is gone: then its last words are there to read.
    send_message(socket, {{"request", "member"}}, {self.get()});
    auto received = receive_message(socket);
    if (!received) {
        throw trouble{"the sandbox has ended"};
    }
    if (received->body.contains("error")) {
        throw trouble{received->body.value("error", "")};
    }
    return std::move(*received);
}

void enter(const namespaces& sandbox, int entered) {
    sandbox.enter();
    if (!send_message(entered, nlohmann::json::object(), {sandbox.fds().front()})) {
        throw failed_call("cannot report that the command is in the sandbox");
    }
}

void set_environment(bool simulation) {
    if (simulation) {
        ::setenv(simulation_variable, "1", 1);
    } else {
        ::unsetenv(simulation_variable);
    }
}

/// Asked for last: entering a user namespace withdraws it.
void end_with(pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        std::_Exit(static_cast<int>(exit_status::trouble));
    }
}

[[noreturn]] void execute(const std::vector<std::string>& command) {
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const auto& word : command) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    ::execvp(words.front(), words.data());
    const int error = errno;
    throw failure{error == ENOENT ? exit_status::not_found : exit_status::not_executable,
                  "cannot execute " + command.front() + ": " + error_text(error)};
}

} // namespace

void become_member(const member_origin& origin, const world* built,
                   const std::vector<std::string>& command) {
    const current_folder folder;
    message admission = request_admission(origin.socket);
    enter(namespaces::from_message(admission), origin.entered);
    if (built != nullptr) {
        build_world(*built, admission.fds.back());
        send_message(origin.socket, {{"request", "built"}});
    }
    set_environment(admission.body.value("simulation", false));
    folder.restore();
    end_with(origin.parent);
    execute(command);
}

} // namespace sandbox
