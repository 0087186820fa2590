#include "zul/String.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace Zul {

String format(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, args);
    va_end(args);
    if (length < 0) {
        return {"", 0};
    }
    String string(text, static_cast<unsigned>(length));
    std::free(text);
    return string;
}

std::ostream& operator<<(std::ostream& stream, const String& string) {
    return stream << string.text();
}

} // namespace Zul
