#pragma once

#include <chrono>
#include <csignal>
#include <string>

namespace tarvoctl {

/// What a person at the terminal wants.
enum class screen_key { none, quit, sort, up, down, left, right, page_up, page_down, first, last };

/// The terminal on standard output, taken over for a page that is drawn again and again. It is
/// given back as it was when the object goes, and when a signal ends the program: SIGINT and
/// SIGTERM then are a good end. One at a time.
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

    /// Waits for a key, to the end of that time or until the terminal's size changes: none then,
    /// and for keys that mean nothing. A terminal that is gone wants to quit.
    screen_key key_within(std::chrono::milliseconds time);

  private:
    std::string _typed; ///< and not yet taken
    sigset_t _blocked_before{};
};

} // namespace tarvoctl
