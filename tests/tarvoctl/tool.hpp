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

/// Runs tarvoctl in the sandbox to its end, with these words behind its name and `input` as its
/// standard input.
tool_outcome tarvoctl(sandbox& where, const std::vector<std::string>& words,
                      const std::string& input = "");

/// The JSON object that a command printed; a test that gets none fails with what it got.
nlohmann::json json_of(const tool_outcome& outcome);

/// The lines of a text, without their ends.
std::vector<std::string> lines_of(const std::string& text);
