#pragma once

#include <chrono>
#include <cstdint>

namespace tarvoctl {

/// Shows on a terminal how far something is, from its first second on, and clears that at the end.
/// Where standard output is a terminal, too, what is printed there shows it.
class progress {
  public:
    explicit progress(uint64_t total_bytes);
    ~progress();
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;

    /// Meant to be called often.
    void reached(uint64_t bytes);

  private:
    using clock = std::chrono::steady_clock;

    uint64_t _total_bytes;
    uint64_t _next_look; ///< at the clock, when so many bytes are reached
    clock::time_point _next_words;
    bool _printed = false;
};

} // namespace tarvoctl
