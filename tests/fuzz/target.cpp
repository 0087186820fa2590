#include "target.hpp"

#include <csetjmp>
#include <cstdlib>
#include <iostream>

namespace {

std::jmp_buf before_code;

} // namespace

// In place of the C library's, which ends the process.
extern "C" [[noreturn]] void assertion_failure(const char* text, const char* source, unsigned line,
                                               const char* signature) noexcept
    __asm__("__assert_fail");

extern "C" void assertion_failure(const char* /*text*/, const char* /*source*/, unsigned /*line*/,
                                  const char* /*signature*/) noexcept {
    std::longjmp(before_code, 1);
}

bool ends_without_assertion(const std::function<void()>& code) {
    if (setjmp(before_code) != 0) {
        return false;
    }
    code();
    return true;
}

void expect(bool holds, std::string_view what) {
    if (!holds) {
        std::cout << "broken: " << what << std::endl;
        std::abort();
    }
}
