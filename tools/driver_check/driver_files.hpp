#pragma once

#include "common/unique_fd.hpp"

#include <cstddef>
#include <string>
#include <string_view>

namespace driver_check {

/// What the driver answered to one line.
struct answer {
    int error = 0; ///< of the write; 0 where it was accepted
    size_t accepted_bytes = 0;
    int close_error = 0;
};

/// Whether all of it was accepted, and the close, too.
bool is_accepted(const answer& given, std::string_view line);

/// "\"map 0 3 0 4096 8190 4096 3\" was answered by ENODEV".
std::string answer_text(std::string_view line, const answer& given);

/// Opens a file of the driver for writing, as the library does; throws a breach where that fails.
unique_fd open_for_requests(const char* path);

/// One open, one write of all the bytes, one close; throws a breach where the open fails.
answer send(const char* path, std::string_view bytes);

/// The same with a request that must be refused; where it is accepted, it is undone.
answer send_unacceptable(const std::string& line);

/// The same where nobody waits for the answer.
void send_unasked(const char* path, std::string_view bytes) noexcept;

/// All that the region file says now; throws a breach where it cannot be read.
std::string read_listing();

/// The first line of that, without its newline.
std::string first_line_of(const std::string& listing);

} // namespace driver_check
