#include "output/progress.hpp"

#include "quantities.hpp"

#include <cstdio>
#include <fmt/format.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

constexpr uint64_t bytes_between_looks = 65536;
constexpr std::chrono::milliseconds time_before_words{1000};
constexpr std::chrono::milliseconds time_between_words{200};

bool somebody_is_there() {
    return ::isatty(STDERR_FILENO) != 0 && ::isatty(STDOUT_FILENO) == 0;
}

} // namespace

progress::progress(uint64_t total_bytes)
    : total_bytes_{total_bytes}, next_look_{somebody_is_there() ? bytes_between_looks : UINT64_MAX},
      next_words_{clock::now() + time_before_words} {}

progress::~progress() {
    if (told_)
        fmt::print(stderr, "\r\x1b[K");
}

void progress::reached(uint64_t bytes) {
    if (bytes < next_look_)
        return;
    next_look_ = bytes + bytes_between_looks;
    const auto now = clock::now();
    if (now < next_words_)
        return;
    next_words_ = now + time_between_words;
    constexpr uint64_t whole = 100;
    fmt::print(stderr, "\r{} % of {}", bytes * whole / total_bytes_, size_text(total_bytes_));
    told_ = true;
}

} // namespace tarvoctl
