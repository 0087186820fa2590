#pragma once

#include "shared/process_state.hpp"

#include <cstdint>

/// Makes the library ready in this process: finds the region, maps the shared area, builds it if
/// this is the machine's first process, opens the lock file. Returns 0 when ready, -1 when not,
/// after saying why on standard error; the next call then tries everything again. Once ready it
/// returns 0 at once, without a system call.
int tarvo_init();

/// tarvo_init for calls that say themselves what its failure means: nearly always there is nothing
/// to do, so the question is asked in place.
inline bool is_started() {
    return shm_base != nullptr || tarvo_init() == 0;
}

/// The first start of this process, for library_is_ready.
[[gnu::cold]] bool start_or_complain();

/// tarvo_init for the top of an exported call: true when ready; otherwise standard error
/// says, after the reason, that the library is not.
inline bool library_is_ready() {
    return shm_base != nullptr || start_or_complain();
}

/// Bytes of the shared area file: the shared area rounded up to whole pages.
uint32_t reservesize();
