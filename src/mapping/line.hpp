#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

/// Writes a line into a buffer as snprintf does, whatever the buffer's size: what does not fit is
/// cut off but counted, and a zero byte ends it. A listing is nothing but lines, and snprintf takes
/// several times as long for one as the list takes to yield its contents.
class line {
  public:
    /// `bytes` is all of the buffer; with 0 nothing is written.
    line(char* buffer, size_t bytes) : _buffer(buffer), _bytes(bytes) {}

    void text(const char* text) { append(text, std::strlen(text)); }

    /// Like %-*s.
    void text(const char* text, size_t columns) {
        const size_t start = _length;
        append(text, std::strlen(text));
        fill(' ', start + columns);
    }

    /// Like %*d.
    void decimal(int64_t number, size_t columns) { right_aligned(number, 10, ' ', columns); }

    /// Like %0*llx.
    void hexadecimal(uint64_t number, size_t columns) { right_aligned(number, 16, '0', columns); }

    /// Ends the line. True when it is whole in the buffer.
    bool finish() {
        if (_bytes == 0) {
            return false;
        }
        _buffer[std::min(_length, _bytes - 1)] = '\0';
        return _length < _bytes;
    }

  private:
    template <typename Number>
    void right_aligned(Number number, int base, char padding, size_t columns) {
        char digits[std::numeric_limits<uint64_t>::digits10 + 2];
        const char* end = std::to_chars(digits, digits + sizeof digits, number, base).ptr;
        const auto count = static_cast<size_t>(end - digits);
        fill(padding, _length + columns - std::min(columns, count));
        append(digits, count);
    }

    void append(const char* text, size_t count) {
        if (_length < _bytes) {
            std::memcpy(_buffer + _length, text, std::min(count, _bytes - _length));
        }
        _length += count;
    }

    /// Adds `c` until the line has `end` characters, if it has fewer.
    void fill(char c, size_t end) {
        if (_length >= end) {
            return;
        }
        if (_length < _bytes) {
            std::memset(_buffer + _length, c, std::min(end, _bytes) - _length);
        }
        _length = end;
    }

    char* _buffer;
    size_t _bytes;
    size_t _length = 0; ///< of the whole line
};
