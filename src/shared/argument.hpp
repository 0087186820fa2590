#pragma once

#include <cstddef>
#include <cstring>

/// The length of a text that a caller gave. Its first byte is read here and now: null is promised
/// to be a memory fault, and a compiler may otherwise put strlen off until after a check that ends
/// the process differently.
inline size_t length_of_argument(const char* text) {
    static_cast<void>(*static_cast<const volatile char*>(text));
    return strlen(text);
}
