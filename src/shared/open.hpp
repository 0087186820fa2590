#pragma once

#include <cstdio>
#include <fcntl.h>

// Every file that the library opens is opened here: close-on-exec, and never as descriptor 0, 1 or
// 2. A program may have been started without some of these; what it writes to its standard output
// or error, and what the library itself reports, would otherwise go to physical memory or into the
// shared area. Results and errno are those of open and fopen.

int open_file(const char* path, int flags, mode_t mode = 0);

/// If the file is created it gets exactly `mode`, whatever the caller's umask.
int open_with_exact_mode(const char* path, int flags, mode_t mode);

/// `mode` as fopen has it, with its "e".
FILE* open_stream(const char* path, const char* mode);
