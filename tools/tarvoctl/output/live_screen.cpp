#include "output/live_screen.hpp"

#include "common/exit_status.hpp"
#include "host/ending_signals.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

/// Of the terminal as it was, for a signal handler, too: only system calls are made with it.
termios keyboard_before;
bool keyboard_changed = false;

constexpr std::string_view other_page = "\x1b[?1049h";
constexpr std::string_view page_before = "\x1b[?1049l";
constexpr std::string_view no_cursor = "\x1b[?25l";
constexpr std::string_view cursor = "\x1b[?25h";
constexpr std::string_view no_wrapping = "\x1b[?7l";
constexpr std::string_view wrapping = "\x1b[?7h";
constexpr std::string_view top_left = "\x1b[H";
constexpr std::string_view clear_line_end = "\x1b[K";
constexpr std::string_view clear_page_end = "\x1b[J";

void put(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
        if (count < 0 && errno != EINTR) {
            return; // the terminal is gone, which the keyboard reports
        }
        text.remove_prefix(static_cast<size_t>(count > 0 ? count : 0));
    }
}

void give_back() {
    put(wrapping);
    put(cursor);
    put(page_before);
    if (keyboard_changed) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &keyboard_before);
    }
}

void give_back_and_end(int /*signal*/) {
    give_back();
    ::_exit(static_cast<int>(exit_status::good));
}

void end_by(int signal) {
    give_back();
    std::signal(signal, SIG_DFL);
    ::raise(signal);
}

/// Keys come one by one and are not shown. Ctrl-Z would leave the terminal as it is now.
void take_keyboard() {
    if (::tcgetattr(STDIN_FILENO, &keyboard_before) != 0) {
        return;
    }
    termios wanted = keyboard_before;
    wanted.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    wanted.c_cc[VMIN] = 0;
    wanted.c_cc[VTIME] = 0;
    wanted.c_cc[VSUSP] = _POSIX_VDISABLE;
    keyboard_changed = ::tcsetattr(STDIN_FILENO, TCSANOW, &wanted) == 0;
}

struct key_name {
    std::string_view typed;
    screen_key key;
};

/// The cursor keys as terminals send them, in either of their modes, and the letters of less(1).
constexpr key_name key_names[] = {
    {"q", screen_key::quit},        {"Q", screen_key::quit},
    {"s", screen_key::sort},        {"k", screen_key::up},
    {"\x1b[A", screen_key::up},     {"\x1bOA", screen_key::up},
    {"j", screen_key::down},        {"\x1b[B", screen_key::down},
    {"\x1bOB", screen_key::down},   {"h", screen_key::left},
    {"\x1b[D", screen_key::left},   {"\x1bOD", screen_key::left},
    {"l", screen_key::right},       {"\x1b[C", screen_key::right},
    {"\x1bOC", screen_key::right},  {"\x1b[5~", screen_key::page_up},
    {"b", screen_key::page_up},     {"\x1b[6~", screen_key::page_down},
    {" ", screen_key::page_down},   {"g", screen_key::first},
    {"\x1b[H", screen_key::first},  {"\x1bOH", screen_key::first},
    {"\x1b[1~", screen_key::first}, {"G", screen_key::last},
    {"\x1b[F", screen_key::last},   {"\x1bOF", screen_key::last},
    {"\x1b[4~", screen_key::last},
};

/// The first key of those typed, which is taken from them.
screen_key take_key(std::string& typed) {
    for (const auto& [name, key] : key_names) {
        if (typed.starts_with(name)) {
            typed.erase(0, name.size());
            return key;
        }
    }
    // Another key of several bytes: its letters are none of their own.
    typed.erase(0, typed.starts_with('\x1b') ? typed.size() : 1);
    return screen_key::none;
}

} // namespace

live_screen::live_screen() {
    take_keyboard();
    handle_signal(SIGINT, give_back_and_end);
    handle_signal(SIGTERM, give_back_and_end);
    handle_signal(SIGHUP, end_by);
    handle_signal(SIGQUIT, end_by);
    // It ends the wait for a key, and is blocked while a page is drawn, so that none is missed.
    handle_signal(SIGWINCH, do_nothing);
    sigset_t size_changes{};
    ::sigemptyset(&size_changes);
    ::sigaddset(&size_changes, SIGWINCH);
    ::sigprocmask(SIG_BLOCK, &size_changes, &_blocked_before);
    put(other_page);
    put(no_cursor);
    put(no_wrapping);
}

live_screen::~live_screen() {
    give_back();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH}) {
        std::signal(signal, SIG_DFL);
    }
    ::sigprocmask(SIG_SETMASK, &_blocked_before, nullptr);
}

bool live_screen::is_possible() {
    return ::isatty(STDOUT_FILENO) != 0;
}

int live_screen::height() {
    constexpr int usual_height = 24;
    winsize size{};
    const bool known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
    return known ? size.ws_row : usual_height;
}

/// Lines are cleared before they are written: after a full one there is nothing left to clear.
void live_screen::show(const std::string& page) {
    std::string output{top_left};
    output += clear_line_end;
    int lines = 1;
    for (const char each : page) {
        output += each;
        if (each == '\n') {
            output += clear_line_end;
            ++lines;
        }
    }
    if (lines < height()) {
        (output += '\n') += clear_page_end;
    }
    put(output);
}

screen_key live_screen::key_within(std::chrono::milliseconds time) {
    if (!_typed.empty()) {
        return take_key(_typed);
    }
    pollfd keyboard{STDIN_FILENO, POLLIN, 0};
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const timespec limit{seconds.count(), std::chrono::nanoseconds(time - seconds).count()};
    // A parent that blocks SIGWINCH passes that on, and the wait must end by it all the same.
    sigset_t blocked = _blocked_before;
    ::sigdelset(&blocked, SIGWINCH);
    if (::ppoll(&keyboard, keyboard_changed ? 1 : 0, &limit, &blocked) <= 0) {
        return screen_key::none;
    }
    std::array<char, 64> typed{};
    const ssize_t count = ::read(STDIN_FILENO, typed.data(), typed.size());
    if (count <= 0) {
        return screen_key::quit;
    }
    _typed.assign(typed.data(), static_cast<size_t>(count));
    return take_key(_typed);
}

} // namespace tarvoctl
