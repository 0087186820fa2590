#pragma once

/// The C library's own assertion failure, an entry of the binary interface that every Linux program
/// shares. Its header declares it only where assertions are on, which is the includer's choice;
/// ours always are.
extern "C" [[noreturn]] void assertion_failure(const char* text, const char* source, unsigned line,
                                               const char* signature) noexcept asm("__assert_fail");

/// Ends the process with that failure, in every kind of build, unless `condition` holds. What the
/// message shows is given, not taken from the code, because messages are compared between builds:
/// the expression and the source name never move, nor do line and signature where they are given
/// here.
#define TARVO_ASSERT_AT(condition, text, source, line, signature)                                  \
    (static_cast<bool>(condition) ? void(0) : ::assertion_failure(text, source, line, signature))

/// The common form: source name "tarvo", this line, the signature of the function it stands in.
#define TARVO_ASSERT(condition, text)                                                              \
    TARVO_ASSERT_AT(condition, text, "tarvo", __LINE__, __PRETTY_FUNCTION__)
