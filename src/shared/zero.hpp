#pragma once

#include <cstddef>

/// Zeroes a mapping of a file from its start: `bytes` is any number, `memory` lies on a page.
void zero_mapping(void* memory, std::size_t bytes);
