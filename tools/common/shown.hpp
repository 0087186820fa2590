#pragma once

#include <cstddef>
#include <string>
#include <string_view>

bool is_utf8(std::string_view text);

/// A name as a terminal can show it: written as \xNN are the bytes of characters without a
/// visible form, such as controls and marks of writing direction, bytes that are not UTF-8, and
/// backslashes. Not to be applied twice.
std::string shown(std::string_view text);

/// The same for a cell of a table, where an empty name would not be seen: it reads "".
std::string shown_name(std::string_view text);

/// How many columns of a terminal a UTF-8 text takes.
size_t width_of(std::string_view text);

/// The beginning of a text that is wider than that.
std::string cut_to_width(const std::string& text, size_t width);

/// The same as one word of a shell's command line, between double quotes where it has to be, so
/// that single ones can stand around the command.
std::string shell_word(std::string_view text);
