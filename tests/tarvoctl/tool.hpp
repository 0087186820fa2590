#pragma once

#include "sandbox.hpp"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

/// How a run of tarvoctl ended and what it said.
struct tool_outcome {
    int status = -1; ///< -1 where a signal ended it
    std::string output;
    std::string errors;
};

/// Runs a program in the sandbox to its end.
tool_outcome run_program(sandbox& where, const std::vector<std::string>& words,
                         const std::string& input = "");

/// Runs tarvoctl in the sandbox to its end, with these words after its name and `input` as its
/// standard input.
tool_outcome tarvoctl(sandbox& where, const std::vector<std::string>& words,
                      const std::string& input = "");

/// The same by another user, who may use the files and look into no process of anybody's.
/// `through`: what runs it, such as env with its words.
tool_outcome tarvoctl_of_stranger(sandbox& where, const std::vector<std::string>& words,
                                  const std::vector<std::string>& through = {});

/// tarvoctl while it runs.
struct running_tool {
    process program;
    pid_t pid; ///< its own, where `program` may be the sandbox's

    /// Ends it by that signal and waits for its end.
    ending end_by(int signal);
};

/// Starts tarvoctl in the sandbox, for commands that go on until they are ended. Its standard input
/// and output are the terminal of that name, if one is given.
running_tool start_tarvoctl(sandbox& where, const std::vector<std::string>& words,
                            const std::string& terminal = "");

/// What a command said on standard error, without a remark about processes that not even root may
/// look into, which depends on the machine.
std::string own_errors(const tool_outcome& outcome);

/// What a command printed, without what it adds to "nobody" and "no process" on a machine with
/// processes that not even root may look into.
std::string with_all_seen(const std::string& output);

/// The JSON object that a command printed; a test that gets none fails with what it got.
nlohmann::json json_of(const tool_outcome& outcome);

/// The area that a snapshot holds.
std::vector<uint8_t> unpacked(const std::string& snapshot);

/// The process that runs the test, as commands name it: "4711 (tarvoctl_list_t)".
std::string this_process();

bool contains(const std::string& text, const std::string& part);

/// The lines of a text, without their ends.
std::vector<std::string> lines_of(const std::string& text);
