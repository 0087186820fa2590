#pragma once

#include "host/area_source.hpp"

#include <chrono>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tarvoctl {

struct polling_options;

/// The value of --json that wants each document on one line.
inline constexpr const char* compact_json = "compact";

/// The words that one command understands, each with the place that takes its value. What is not
/// given leaves its place as it was. `names` are as in "-r,--reverse", `title` is what the help
/// calls the value. Words and options that are empty are refused.
///
/// The parser's own header is not included here: it takes longer to compile than any command.
class command_words {
  public:
    explicit command_words(CLI::App& parser) : _parser{&parser} {}

    void word(const std::string& title, std::string& to, const std::string& about);
    void optional_word(const std::string& title, std::string& to, const std::string& about);

    void flag(const std::string& names, bool& to, const std::string& about);
    void option(const std::string& names, const std::string& title, std::string& to,
                const std::string& about);
    /// Takes one of `values` alone.
    void choice(const std::string& names, const std::string& title,
                const std::vector<std::string>& values, std::string& to, const std::string& about);
    /// Takes several values with commas between them.
    void list(const std::string& names, const std::string& title, std::vector<std::string>& to,
              const std::string& about);
    /// What the help ends with.
    void footer(const std::string& text);
    /// Refuses the two together.
    void exclude(const std::string& one, const std::string& other);

    /// --area FILE, and what live() takes, for commands that read the records.
    void source(area_source& source);
    /// --timeout SECONDS and --no-lock, for those that read the live ones.
    void live(area_source& source);
    /// --timeout SECONDS alone, for commands that need the lock.
    void timeout(std::chrono::milliseconds& timeout);
    /// --interval SECONDS, and what live() takes, for commands that poll the live area.
    void polling(polling_options& polling);
    /// --json and --json=compact; program lays the documents out.
    void json(bool& json);

  private:
    CLI::App* _parser;
};

} // namespace tarvoctl
