#pragma once

#include <fcntl.h>

/// Finds the region, simulated first, then the one the kernel driver describes, and opens its
/// memory and its shared area file. False when there is none; standard error has been told.
bool find_region();

/// Opens `path` close-on-exec; if the file is created it gets exactly `mode`, whatever the
/// caller's umask, so that processes of other users can open it too.
int open_with_exact_mode(const char* path, int flags, mode_t mode);
