#include "shared/fork.hpp"

#include "shared/open.hpp"
#include "shared/process_state.hpp"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// The lock file as it was when the library started. A program may have closed our descriptor
/// since, and opened another file that got its number: that one is left alone.
struct stat lock_file;

bool is_lock_file(int fd) {
    struct stat file;
    return fstat(fd, &file) == 0 && file.st_dev == lock_file.st_dev &&
           file.st_ino == lock_file.st_ino;
}

/// The lock file opened once more by that path; -1 when it is another file, or cannot be opened.
/// What has taken its place may be anything: opening that neither waits nor has effects.
int opened_again(const char* path) {
    const int fd = open_file(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (fd != -1 && !is_lock_file(fd)) {
        close(fd);
        return -1;
    }
    return fd;
}

/// By the descriptor that the child has, which leads to the file wherever it is by now.
int opened_again_by_descriptor() {
    constexpr char folder[] = "/proc/self/fd/";
    char path[sizeof folder + 10] = {};
    memcpy(path, folder, sizeof folder - 1);
    std::to_chars(path + sizeof folder - 1, path + sizeof path - 1, lock_fd);
    return opened_again(path);
}

int opened_again() {
    const int fd = opened_again_by_descriptor();
    return fd != -1 ? fd : opened_again(lock_path);
}

/// Where no descriptor is free the parent's is closed first. If the file is no longer at its path
/// either, the child has no lock and its calls fail: with its parent's they would damage the lists.
int opened_in_place_of_the_parents() {
    close(lock_fd);
    const int fd = opened_again(lock_path);
    if (fd == -1) {
        lock_fd = -1;
    }
    return fd;
}

/// Has `lock_fd`, by the same number, be that open file.
void use_for_lock(int fd) {
    if (fd != lock_fd) {
        dup3(fd, lock_fd, O_CLOEXEC);
        close(fd);
    }
}

/// The child's first act, in the child itself: the lock of a parent that is killed is free at once
/// then, and not when the child makes its next call. Other threads of the parent may have been
/// anywhere, so only what is safe in a signal handler is called. Where the file may not be opened,
/// after rights were dropped for instance, the parent's descriptor stays.
void take_own_lock() {
    const int parents_errno = errno;
    if (is_lock_file(lock_fd)) {
        int fd = opened_again();
        if (fd == -1 && errno == EMFILE) {
            fd = opened_in_place_of_the_parents();
        }
        if (fd != -1) {
            use_for_lock(fd);
        }
    }
    errno = parents_errno;
}

} // namespace

void part_children_from_the_lock() {
    fstat(lock_fd, &lock_file);
    pthread_atfork(nullptr, nullptr, take_own_lock);
}
