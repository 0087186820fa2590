#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// A regular expression as std::regex has it, whose header takes longer to compile than most tests.
class pattern {
  public:
    explicit pattern(const std::string& text);
    ~pattern();

    /// Whether it is all of the text.
    bool matches(const std::string& text) const;
    /// Whether it is anywhere in the text.
    bool is_in(const std::string& text) const;
    /// What its group was where the text has it first; empty where it is nowhere.
    std::string group_in(const std::string& text, size_t group = 1) const;
    std::vector<std::string> all_in(const std::string& text) const;
    /// The text with `replacement`, where $1 is the first group, in each of its places.
    std::string replaced_in(std::string_view text, const std::string& replacement) const;

  private:
    struct compiled;
    std::unique_ptr<compiled> _compiled;
};
