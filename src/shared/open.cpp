#include "shared/open.hpp"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int first_own_fd = STDERR_FILENO + 1;

bool is_standard_stream(int fd) {
    return fd >= 0 && fd < first_own_fd;
}

/// The same open file under a number of our own; -1, with errno, when there is none.
int duplicate_for_own_use(int fd) {
    return fcntl(fd, F_DUPFD_CLOEXEC, first_own_fd);
}

void close_and_keep_errno(int fd) {
    const int kept = errno;
    close(fd);
    errno = kept;
}

int moved_from_standard_streams(int fd) {
    const int moved = duplicate_for_own_use(fd);
    close_and_keep_errno(fd);
    return moved;
}

FILE* moved_from_standard_streams(FILE* stream, const char* mode) {
    const int fd = duplicate_for_own_use(fileno(stream));
    const int refusal = errno;
    fclose(stream);
    errno = refusal;
    if (fd == -1) {
        return nullptr;
    }
    FILE* moved = fdopen(fd, mode);
    if (moved == nullptr) {
        close_and_keep_errno(fd);
    }
    return moved;
}

} // namespace

int open_file(const char* path, int flags, mode_t mode) {
    const int fd = open(path, flags | O_CLOEXEC, mode);
    return is_standard_stream(fd) ? moved_from_standard_streams(fd) : fd;
}

int open_with_exact_mode(const char* path, int flags, mode_t mode) {
    const mode_t callers_umask = umask(0);
    const int fd = open_file(path, flags, mode);
    umask(callers_umask);
    return fd;
}

FILE* open_stream(const char* path, const char* mode) {
    // fopen and not fdopen in the first place: that one asks the system for the descriptor's flags.
    FILE* stream = fopen(path, mode);
    return stream != nullptr && is_standard_stream(fileno(stream))
               ? moved_from_standard_streams(stream, mode)
               : stream;
}
