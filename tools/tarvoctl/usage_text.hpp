#pragma once

#include <string>

namespace CLI {
class App;
class ParseError;
} // namespace CLI

namespace tarvoctl {

/// What is wrong with the command line, and which help lists the right words: the parser's
/// refusals, in our words.
std::string usage_text(const CLI::App& parser, const CLI::ParseError& wrong);

} // namespace tarvoctl
