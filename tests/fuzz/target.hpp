#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

// What each file of this folder that is named after a corpus defines. A program of it runs under
// libFuzzer, which comes with a main() of its own, or replays files; see replay.cpp.

/// By the name that libFuzzer calls it.
extern "C" int try_bytes(const uint8_t* data, size_t size) __asm__("LLVMFuzzerTestOneInput");

/// Runs code of the library. False where it ended by an assertion of its own, which would have
/// ended the process; what it held is then still held.
bool ends_without_assertion(const std::function<void()>& code);

/// Ends the process, as what the fuzzer was looking for.
void expect(bool holds, std::string_view what);
