#pragma once

#include "sandbox.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

/// The words of a command.
using arguments = std::vector<std::string>;

arguments operator+(arguments first, const arguments& more);

/// How a run of tarvoctl ended and what it said.
struct tool_outcome {
    int status = -1; ///< -1 where a signal ended it
    std::string output;
    std::string errors;

    bool operator==(const tool_outcome&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const tool_outcome& outcome);

/// Of a command that did what it was asked for, and only printed this.
tool_outcome printed(const std::string& output);

/// Of a command that printed nothing and said this, after the tool's name.
tool_outcome failed(int status, const std::string& message);

/// Runs a program in the sandbox to its end.
tool_outcome run_program(sandbox& where, const arguments& words, const std::string& input = "");

/// Runs tarvoctl in the sandbox to its end, with these words after its name and `input` as its
/// standard input.
tool_outcome tarvoctl(sandbox& where, const arguments& words, const std::string& input = "");

/// The same by another user, who may use the files and look into no process of anybody's.
/// `through`: what runs it, such as env with its words.
tool_outcome tarvoctl_of_stranger(sandbox& where, const arguments& words,
                                  const arguments& through = {});

/// tarvoctl while it runs.
struct running_tool {
    process program;
    pid_t pid; ///< its own, where `program` may be the sandbox's

    /// Ends it by that signal and waits for its end.
    ending end_by(int signal);
};

/// Starts tarvoctl in the sandbox, for commands that go on until they are ended. Its standard input
/// and output are the terminal of that name, if one is given.
running_tool start_tarvoctl(sandbox& where, const arguments& words,
                            const std::string& terminal = "");

/// What a command said on standard error, without a remark about processes that not even root may
/// look into, which depends on the machine.
std::string own_errors(const tool_outcome& outcome);

/// What a command printed, without what it adds to "nobody" and "no process" on a machine with
/// processes that not even root may look into.
std::string with_all_seen(const std::string& output);

/// The JSON object that a command printed; a test that gets none fails with what it got.
nlohmann::json json_of(const tool_outcome& outcome);

/// A snapshot of the area as it was, in a folder of its own.
struct taken_snapshot {
    explicit taken_snapshot(sandbox& where);

    temporary_folder folder;
    std::string path = folder.path() / "copy";
};

/// The area that a snapshot holds.
std::vector<uint8_t> unpacked(const std::string& snapshot);

/// Those of the library's files that exist.
std::vector<std::string> files_of(const sandbox& where);

/// The process that runs the test, as commands name it: "4711 (tarvoctl_list_t)".
std::string this_process();

/// Each shows the outcome or the text when it was expected otherwise.
testing::AssertionResult ended(const tool_outcome& outcome, int status);
testing::AssertionResult contains(const std::string& text, const std::string& part);
testing::AssertionResult starts_with(const std::string& text, const std::string& start);
testing::AssertionResult ends_with(const std::string& text, const std::string& end);

/// The lines of a text, without their ends.
std::vector<std::string> lines_of(const std::string& text);
