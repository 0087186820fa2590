#pragma once

// The C library declares its assertion failure only where assertions are on; ours always are.
#undef NDEBUG
#include <cassert>

/// Ends the process with the C library's own assertion failure, in every kind of build, unless
/// `condition` holds. What the message shows is given, not taken from the code, because messages
/// are compared between builds: the expression and the source name never move, nor do line and
/// signature where they are given here.
#define TARVO_ASSERT_AT(condition, text, source, line, signature)                                  \
    (static_cast<bool>(condition) ? void(0) : ::__assert_fail(text, source, line, signature))

/// The common form: source name "tarvo", this line, the signature of the function it stands in.
#define TARVO_ASSERT(condition, text)                                                              \
    TARVO_ASSERT_AT(condition, text, "tarvo", __LINE__, __PRETTY_FUNCTION__)
