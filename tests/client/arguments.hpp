#pragma once

#include "quoted.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// A command that cannot be carried out as written. Answered with "error: ...", never ignored.
struct command_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The words of one command line. Words are separated by blanks; "..." holds any text, with the
/// escapes \\ \" \n and \xHH; @null stands for a null pointer.
class arguments {
  public:
    explicit arguments(std::string_view line);

    /// The command's name.
    const std::string& name() const { return _name; }
    size_t count() const { return _words.size(); }

    /// Null for @null. Lives as long as this object.
    const char* text(size_t i) const;
    /// Decimal, hexadecimal with 0x, or octal with a leading 0.
    uint64_t number(size_t i) const;
    uint32_t number_32(size_t i) const;
    int number_int(size_t i) const;
    /// No more than this process's words hold.
    size_t size(size_t i) const;
    /// An address in this process, as another command's reply gave it; null for @null.
    unsigned char* address(size_t i) const;

  private:
    using word = std::optional<std::string>;
    const word& at(size_t i) const;

    std::string _name;
    std::vector<word> _words;
};

std::string hexadecimal(uint64_t number);
