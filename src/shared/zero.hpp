#pragma once

#include <cstddef>

/// Whether a mapping of a file, which lies on a page, can be read. Where it cannot, because the
/// file is too short or its file system is full, reading it would end the process by SIGBUS.
bool can_be_read(void* memory, size_t bytes);

/// Zeroes a mapping of a file from its start: `bytes` is any number, `memory` lies on a page.
/// False, with errno, where it cannot be written, for the same reasons.
bool zero_mapping(void* memory, size_t bytes);
