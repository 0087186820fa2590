#pragma once

#include <chrono>
#include <string>

namespace tarvoctl {

/// The terminal on standard output, taken over for a page that is drawn again and again. It is given
/// back as it was when the object goes, and when a signal ends the program: SIGINT and SIGTERM then
/// are a good end. One at a time.
class live_screen {
  public:
    live_screen();
    ~live_screen();
    live_screen(const live_screen&) = delete;
    live_screen& operator=(const live_screen&) = delete;

    /// Whether standard output is one.
    static bool is_possible();

    /// Lines it has now.
    static int height();

    /// Puts a page in place of the one before; lines end with "\n".
    static void show(const std::string& page);

    /// Waits, to the end of that time or until the terminal's size changes. True when a person
    /// wants to end: "q", or the terminal is gone.
    static bool end_is_wanted_within(std::chrono::milliseconds time);
};

} // namespace tarvoctl
