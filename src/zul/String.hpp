#pragma once

#include <ostream>
#include <string>

namespace Zul {

/// A text of a given length.
class String {
  public:
    String(const char* text, unsigned length) : _text(text, length) {}
    const std::string& text() const { return _text; }

  private:
    std::string _text;
};

/// printf-style formatting into a String. Throws std::bad_alloc where there is no memory for it.
[[gnu::format(printf, 1, 2)]] String format(const char* format, ...);

std::ostream& operator<<(std::ostream& stream, const String& string);

} // namespace Zul
