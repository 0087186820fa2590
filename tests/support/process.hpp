#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

/// How long anything may take before a test gives it up as hung. Says nothing about speed.
inline constexpr std::chrono::seconds patience{60};

/// Asks every millisecond until it is so. False where it is not so within `time`.
bool eventually(const std::function<bool()>& is_so, std::chrono::milliseconds time = patience);

/// How a process ended: by itself with a status, or by a signal.
struct ending {
    int status = -1;
    int signal = 0;

    bool operator==(const ending&) const = default;
};

inline constexpr ending normal_end{0, 0};
ending ended_by(int signal);
std::string shown(const ending& end);

/// A program that runs with pipes to its standard input and output, and a file that can be read
/// and written as its standard error: the C library's perror reopens it for both.
class process {
  public:
    process(const std::vector<std::string>& words, const std::filesystem::path& error_file);
    /// Closes its input, and kills it when that does not end it.
    ~process();
    process(process&& other) noexcept;
    process& operator=(process&&) = delete;
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    void write_line(std::string_view line);
    /// The next line of its output without its end; nothing when the output ends first. Throws,
    /// with what it said on standard error, when nothing comes.
    std::optional<std::string> read_line();
    /// All the output that is still to come. Throws when it does not end.
    std::string read_rest();
    /// Whether a whole line or the end of the output is there within `time`.
    bool has_line(std::chrono::milliseconds time);

    /// Sends it a signal, unless it has been waited for.
    void kill(int signal);
    void close_input();
    /// Waits for its end. Throws when it does not come.
    ending wait();
    pid_t pid() const { return _pid; }

    /// All of standard error so far.
    std::string error_text() const;

  private:
    bool receive(std::chrono::milliseconds time);
    bool reap();
    void give_up();
    [[noreturn]] void complain(const std::string& what);

    std::filesystem::path _error_file;
    pid_t _pid = -1;
    int _input = -1;
    int _output = -1;
    std::string _received;
    bool _output_ended = false;
    std::optional<ending> _end;
};

/// How a program ended, and all it printed.
struct finished : ending {
    std::string output;
    std::string errors;
};

/// Runs a program to its end.
finished run_to_end(const std::vector<std::string>& words);

std::string file_text(const std::filesystem::path& path);
