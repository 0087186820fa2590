#pragma once

#include <string>
#include <string_view>
#include <vector>

// What the library under test asks of the C library: written down, and refused to order. Calls
// that the client itself makes are not meant; only those made between begin() and end() are.
namespace watch {

void begin();
void end();
bool on();

/// Orders that the nth following call of `name` fails with `error`; 0: every call from now on.
void fail(std::string_view name, int error, unsigned nth);

/// Withdraws every order.
void fail_nothing();

/// Whether the call that is being made is to fail. If so errno is set.
bool refuses(std::string_view name);

/// What sysconf is to say the page size is; 0: the truth.
void pretend_page_bytes(long bytes);
long pretended_page_bytes();

/// Notes one call, as `name(argument,...)=result`. Leaves errno alone.
void record(std::string_view name, const std::vector<std::string>& arguments,
            const std::string& result);

/// The calls noted since the last time, in order, with blanks between.
std::string take_records();

} // namespace watch
