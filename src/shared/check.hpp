#pragma once

#include "shared/layout.hpp"

/// The guard every chunk record passes before its memory is handed out: 0 when the chunk lies
/// inside this process's region; else -1, after reporting the record on standard error. Neither
/// neighbours nor alignment are looked at.
int chunk_desc_check(dma_chunk_t* chunk);
