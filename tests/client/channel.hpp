#pragma once

#include <optional>
#include <string>
#include <string_view>

// The line to whoever drives the client. It lies on high descriptors of its own, so that a test
// may close descriptors 0 and 1, and it makes no system call but read and write.
namespace channel {

inline constexpr int command_fd = 200;
inline constexpr int reply_fd = 201;

/// Moves standard input and output out of the way; /dev/null takes their place.
void open();

/// The next line without its end; nothing at the end of the input.
std::optional<std::string> read_line();
void write_line(std::string_view line);

/// Returns when nobody reads replies any more.
void wait_until_nobody_reads();

} // namespace channel
