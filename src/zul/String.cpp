#include "zul/String.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

namespace Zul {

String format(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, args);
    va_end(args);
    if (length < 0) {
        throw std::bad_alloc();
    }
    const std::unique_ptr<char, decltype(&std::free)> owned(text, std::free);
    return {text, static_cast<unsigned>(length)};
}

std::ostream& operator<<(std::ostream& stream, const String& string) {
    return stream << string.text();
}

} // namespace Zul
