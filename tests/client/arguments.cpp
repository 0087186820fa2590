#include "arguments.hpp"

#include <bit>
#include <cstdlib>
#include <limits>
#include <sstream>

namespace {

/// Reads words off the front of a line.
class reader {
  public:
    explicit reader(std::string_view line) : _rest(line) {}

    bool skip_blanks() {
        while (!_rest.empty() && _rest.front() == ' ') {
            _rest.remove_prefix(1);
        }
        return !_rest.empty();
    }

    std::optional<std::string> word() {
        if (_rest.front() == '"') {
            return quoted_word();
        }
        const std::string_view plain = _rest.substr(0, _rest.find(' '));
        _rest.remove_prefix(plain.size());
        if (plain == "@null") {
            return std::nullopt;
        }
        return std::string(plain);
    }

  private:
    char take() {
        if (_rest.empty()) {
            throw command_error("a quoted text does not end");
        }
        const char c = _rest.front();
        _rest.remove_prefix(1);
        return c;
    }

    char escaped() {
        switch (const char c = take()) {
        case 'n':
            return '\n';
        case 'x': {
            const char digits[] = {take(), take(), '\0'};
            return static_cast<char>(std::strtoul(digits, nullptr, 16));
        }
        default:
            return c;
        }
    }

    std::string quoted_word() {
        take();
        std::string text;
        for (char c = take(); c != '"'; c = take()) {
            text += c == '\\' ? escaped() : c;
        }
        return text;
    }

    std::string_view _rest;
};

} // namespace

arguments::arguments(std::string_view line) {
    reader words(line);
    while (words.skip_blanks()) {
        _words.push_back(words.word());
    }
    if (_words.empty() || !_words.front()) {
        throw command_error("no command");
    }
    _name = *_words.front();
    _words.erase(_words.begin());
}

const arguments::word& arguments::at(size_t i) const {
    if (i >= _words.size()) {
        throw command_error("an argument is missing");
    }
    return _words[i];
}

const char* arguments::text(size_t i) const {
    const word& text = at(i);
    return text ? text->c_str() : nullptr;
}

uint64_t arguments::number(size_t i) const {
    const word& digits = at(i);
    char* end = nullptr;
    const uint64_t number = digits ? std::strtoull(digits->c_str(), &end, 0) : 0;
    if (!digits || digits->empty() || *end != '\0') {
        throw command_error("not a number: " + digits.value_or("@null"));
    }
    return number;
}

uint32_t arguments::number_32(size_t i) const {
    const uint64_t wide = number(i);
    if (wide > std::numeric_limits<uint32_t>::max()) {
        throw command_error("more than 32 bits: " + *at(i));
    }
    return static_cast<uint32_t>(wide);
}

int arguments::number_int(size_t i) const {
    return static_cast<int>(number_32(i));
}

size_t arguments::size(size_t i) const {
    const uint64_t wide = number(i);
    if (wide > std::numeric_limits<size_t>::max()) {
        throw command_error("more than this process's words hold: " + *at(i));
    }
    return static_cast<size_t>(wide);
}

unsigned char* arguments::address(size_t i) const {
    return at(i) ? std::bit_cast<unsigned char*>(size(i)) : nullptr;
}

std::string hexadecimal(uint64_t number) {
    std::ostringstream text;
    text << "0x" << std::hex << number;
    return text.str();
}
