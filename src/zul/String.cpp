#include "zul/String.hpp"

#include <cstdarg>
#include <cstdio>

namespace Zul {

String format(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    std::va_list args_again;
    va_copy(args_again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);

    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, args_again);
    va_end(args_again);
    return {text.data(), static_cast<unsigned>(text.size())};
}

std::ostream& operator<<(std::ostream& stream, const String& string) {
    return stream << string.text();
}

} // namespace Zul
