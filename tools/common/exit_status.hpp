#pragma once

/// How the tools end, as their manual pages list it.
enum class exit_status {
    good = 0,
    finding = 1,    ///< the question was answered, and the answer is not the good one
    usage = 2,      ///< the command line, or something named in it, is wrong
    unreadable = 3, ///< what is needed cannot be read or written; mostly there is no area
    damaged = 4,    ///< the area breaks its own rules
    timed_out = 5,  ///< the cross-process lock was not free in time

    // Of a tool that runs a command and ends as the command does; env(1) has the same.
    trouble = 125,        ///< the tool itself failed
    not_executable = 126, ///< the command is there but cannot be executed
    not_found = 127,      ///< there is no such command
};
