#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// A std::regex behind a light header: <regex> takes longer to compile than most tests.
class pattern {
  public:
    explicit pattern(const std::string& text);
    ~pattern();

    /// Whether the whole text matches.
    bool matches(const std::string& text) const;
    /// Whether some part of the text matches.
    bool is_in(const std::string& text) const;
    /// The group of the first match; empty without a match.
    std::string group_in(const std::string& text, size_t group = 1) const;
    /// All matches.
    std::vector<std::string> all_in(const std::string& text) const;
    /// The text with `replacement`, in which $1 is the first group, for each match.
    std::string replaced_in(std::string_view text, const std::string& replacement) const;

  private:
    struct compiled;
    std::unique_ptr<compiled> _compiled;
};
