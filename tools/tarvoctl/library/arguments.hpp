#pragma once

#include "area/records.hpp"

#include <cstdint>
#include <string>

namespace tarvoctl {

// What people write on the command line for the library's calls. Whatever the library would answer
// by ending the process is refused here: each throws failure, with the value and the fix.

/// A name that a chunk can have.
void check_chunk_name(const std::string& name);

/// The same for a chunk that is made now: listings cannot show a blank at the end of its name, and
/// programs that read them would take it for a chunk without.
void check_new_name(const std::string& name);

/// Refuses a creator that the library would shorten.
void check_creator(const std::string& creator);

/// A size or an offset in bytes, such as 64K, 2M, 0x1000; `what` stands for it in the failure's
/// text.
uint64_t parse_size(const std::string& text, const std::string& what);

/// A size that a chunk can have, "64K": rounded up to whole pages.
uint32_t parse_chunk_size(const std::string& text, const std::string& what);

/// "0x80" or "128", at most `most`; `what` stands for it in the failure's text.
uint64_t parse_number(const std::string& text, const std::string& what, uint64_t most);

/// "0000:03:00.0" or "03:00.0", all in hexadecimal. Not looked up: its element number is -1.
device_record parse_device(const std::string& text);

} // namespace tarvoctl
