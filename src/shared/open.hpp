#pragma once

#include <fcntl.h>

/// Opens `path` close-on-exec; if the file is created it gets exactly `mode`, whatever the
/// caller's umask.
int open_with_exact_mode(const char* path, int flags, mode_t mode);
