#include "shared/open.hpp"

#include <sys/stat.h>

int open_with_exact_mode(const char* path, int flags, mode_t mode) {
    const mode_t callers_umask = umask(0);
    const int fd = open(path, flags | O_CLOEXEC, mode);
    umask(callers_umask);
    return fd;
}
