#pragma once

namespace tarvoctl {

/// How tarvoctl ends, as its manual page lists it.
enum class exit_status {
    good = 0,
    finding = 1,    ///< the question was answered, and the answer is not the good one
    usage = 2,      ///< the command line, or something named in it, is wrong
    unreadable = 3, ///< what is needed cannot be read or written; mostly there is no area
    damaged = 4,    ///< the area breaks its own rules
    timed_out = 5,  ///< the cross-process lock was not free in time
};

} // namespace tarvoctl
