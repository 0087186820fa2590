#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// What the library says on standard error, for comparison with whole texts that went through
// without_lines() and, where the container speaks, without_signatures().

/// A failed assertion in the function of that signature, given as g++ spells it.
std::string assertion(std::string_view signature, std::string_view expression);

/// A failed assertion of the container.
std::string container_assertion(int line, std::string_view expression);

/// One trace record.
std::string traced(int level, std::string_view function, std::string_view text);

/// What a call says that finds no region because /proc/tarvo is missing.
std::string no_region_at_all();

/// As fatal_outcome() shows an abort with these last words.
std::string aborted(std::string_view last_words);

/// The last words of a program whose release of the lock was made to fail with EBADF.
inline constexpr const char* release_failed =
    "tarvo: failed to release lock: Bad file descriptor\n";

/// As %x and %zx have it.
std::string hex(uint64_t number);
