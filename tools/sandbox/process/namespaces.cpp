#include "process/namespaces.hpp"

#include "common/trouble.hpp"

#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>

namespace sandbox {

namespace {

constexpr const char* user_path = "/proc/self/ns/user";
constexpr const char* mount_path = "/proc/self/ns/mnt";

void write_proc_file(const std::string& path, const std::string& text) {
    const unique_fd file{::open(path.c_str(), O_WRONLY | O_CLOEXEC)};
    if (!file || ::write(file.get(), text.data(), text.size()) < 0) {
        throw failed_call("cannot write " + path);
    }
}

/// The caller sees itself as root and nobody else: the only mapping that needs no privilege.
void map_caller_to_root(uid_t uid, gid_t gid) {
    write_proc_file("/proc/self/setgroups", "deny");
    write_proc_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_proc_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

void unshare_with_user_namespace() {
    const uid_t uid = ::geteuid();
    const gid_t gid = ::getegid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        throw failed_call("this kernel refuses user namespaces to ordinary users; run as root, or "
                          "see kernel.unprivileged_userns_clone and user.max_user_namespaces");
    }
    map_caller_to_root(uid, gid);
}

unique_fd open_namespace(const char* path) {
    unique_fd opened{::open(path, O_RDONLY | O_CLOEXEC)};
    if (!opened) {
        throw failed_call(std::string{"cannot open "} + path);
    }
    return opened;
}

/// A process that joins from within the sandbox; the kernel refuses to enter the same one again.
bool is_current(const unique_fd& wanted, const char* path) {
    struct stat own {};
    struct stat other {};
    return ::stat(path, &own) == 0 && ::fstat(wanted.get(), &other) == 0 &&
           own.st_dev == other.st_dev && own.st_ino == other.st_ino;
}

} // namespace

namespaces namespaces::create() {
    namespaces made;
    if (::unshare(CLONE_NEWNS) != 0) {
        if (errno != EPERM) {
            throw failed_call("cannot make a mount namespace");
        }
        unshare_with_user_namespace();
        made._user = open_namespace(user_path);
    }
    // Without this the mounts would appear outside as well.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        if (errno == EINVAL) {
            throw trouble{"cannot make the mounts private: / is not a mount point, as in a plain "
                          "chroot; 'mount --bind DIR DIR' before chroot makes DIR one"};
        }
        throw failed_call("cannot make the mounts private");
    }
    made._mount = open_namespace(mount_path);
    return made;
}

namespaces namespaces::from_message(message& received) {
    namespaces given;
    const size_t count = received.body.value("user", false) ? 2 : 1;
    if (received.fds.size() < count) {
        throw trouble{"the sandbox sent no namespaces"};
    }
    given._mount = std::move(received.fds[0]);
    if (count == 2) {
        given._user = std::move(received.fds[1]);
    }
    return given;
}

void namespaces::enter() const {
    // First the user namespace: it gives the right to enter the other.
    if (_user && !is_current(_user, user_path) && ::setns(_user.get(), CLONE_NEWUSER) != 0) {
        throw failed_call(
            "cannot enter the sandbox's user namespace; join as the user who runs it");
    }
    if (::setns(_mount.get(), CLONE_NEWNS) != 0) {
        throw failed_call("cannot enter the sandbox's mounts; join as the user who runs it");
    }
}

std::string namespaces::mount_name() const {
    struct stat file {};
    if (::fstat(_mount.get(), &file) != 0) {
        throw failed_call("cannot identify the sandbox's mount namespace");
    }
    return "mnt:[" + std::to_string(file.st_ino) + "]";
}

std::vector<int> namespaces::fds() const {
    std::vector<int> all{_mount.get()};
    if (_user) {
        all.push_back(_user.get());
    }
    return all;
}

} // namespace sandbox
