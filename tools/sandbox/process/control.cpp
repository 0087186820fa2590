#include "process/control.hpp"

#include "common/trouble.hpp"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace sandbox {

namespace {

/// A socket address holds 107 bytes of path; by way of the folder's descriptor any path fits.
class socket_place {
  public:
    explicit socket_place(const std::filesystem::path& path)
        : _name{path.filename()}, _folder{::open(path.has_parent_path() ? path.parent_path().c_str()
                                                                        : ".",
                                                 O_PATH | O_DIRECTORY | O_CLOEXEC)} {
        if (!_folder) {
            throw failed_call("--control " + path.string() + ": cannot open its folder");
        }
        const std::string through = "/proc/self/fd/" + std::to_string(_folder.get()) + "/" + _name;
        if (_name.empty() || through.size() >= sizeof _address.sun_path) {
            throw trouble{"--control " + path.string() +
                          ": its last part cannot name a socket; give a shorter file name"};
        }
        _address.sun_family = AF_UNIX;
        std::memcpy(&_address.sun_path[0], through.c_str(), through.size() + 1);
    }

    const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&_address); }
    static socklen_t length() { return sizeof(sockaddr_un); }
    unique_fd& folder() { return _folder; }
    const std::string& name() const { return _name; }

  private:
    std::string _name;
    unique_fd _folder;
    sockaddr_un _address{};
};

unique_fd make_socket() {
    unique_fd made{::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
    if (!made) {
        throw failed_call("cannot make a Unix socket");
    }
    return made;
}

bool is_socket(socket_place& place) {
    struct stat found {};
    return ::fstatat(place.folder().get(), place.name().c_str(), &found, AT_SYMLINK_NOFOLLOW) ==
               0 &&
           S_ISSOCK(found.st_mode);
}

/// Only a socket: connecting to any other file is refused alike, and that file is not ours.
void remove_if_nobody_answers(socket_place& place) {
    if (!is_socket(place)) {
        return;
    }
    const unique_fd probe = make_socket();
    if (::connect(probe.get(), place.address(), socket_place::length()) != 0 &&
        errno == ECONNREFUSED) {
        ::unlinkat(place.folder().get(), place.name().c_str(), 0);
    }
}

int bind_for_owner_only(int socket, const socket_place& place) {
    const mode_t umask_of_caller = ::umask(S_IRWXG | S_IRWXO | S_IXUSR);
    const int result = ::bind(socket, place.address(), socket_place::length());
    ::umask(umask_of_caller);
    return result;
}

} // namespace

control_socket::control_socket(const std::string& path) : _listener{make_socket()} {
    socket_place place{path};
    remove_if_nobody_answers(place);
    if (bind_for_owner_only(_listener.get(), place) != 0 ||
        ::listen(_listener.get(), SOMAXCONN) != 0) {
        throw failed_call("--control " + path +
                          ": cannot make the socket; name a file that does "
                          "not exist yet");
    }
    _folder = std::move(place.folder());
    _name = place.name();
}

void control_socket::remove() {
    if (_folder) {
        ::unlinkat(_folder.get(), _name.c_str(), 0);
    }
    _folder.reset();
    _listener.reset();
}

unique_fd connect_to(const std::string& path) {
    unique_fd made = make_socket();
    const socket_place place{path};
    if (::connect(made.get(), place.address(), socket_place::length()) != 0) {
        throw failed_call("--control " + path +
                          ": no sandbox answers there; start one with this --control first");
    }
    return made;
}

} // namespace sandbox
