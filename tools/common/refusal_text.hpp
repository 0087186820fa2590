#pragma once

#include <string>

namespace CLI {
class App;
class ParseError;
} // namespace CLI

/// What is wrong with a command's words, in ours instead of the parser's.
std::string refusal_text(const CLI::App& command, const CLI::ParseError& wrong);

/// Of a word that the command does not take.
std::string unexpected_text(const std::string& word);
