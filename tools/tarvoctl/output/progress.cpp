#include "output/progress.hpp"

#include "common/quantities.hpp"

#include <cstdio>
#include <fmt/format.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

constexpr uint64_t bytes_between_looks = 65536;
constexpr std::chrono::milliseconds time_before_words{1000};
constexpr std::chrono::milliseconds time_between_words{200};

bool shows_progress() {
    return ::isatty(STDERR_FILENO) != 0 && ::isatty(STDOUT_FILENO) == 0;
}

} // namespace

progress::progress(uint64_t total_bytes)
    : _total_bytes{total_bytes}, _next_look{shows_progress() ? bytes_between_looks : UINT64_MAX},
      _next_words{clock::now() + time_before_words} {}

progress::~progress() {
    if (_printed) {
        fmt::print(stderr, "\r\x1b[K");
    }
}

void progress::reached(uint64_t bytes) {
    if (bytes < _next_look) {
        return;
    }
    _next_look = bytes + bytes_between_looks;
    const auto now = clock::now();
    if (now < _next_words) {
        return;
    }
    _next_words = now + time_between_words;
    constexpr uint64_t whole = 100;
    fmt::print(stderr, "\r{} % of {}", bytes * whole / _total_bytes, size_text(_total_bytes));
    _printed = true;
}

} // namespace tarvoctl
