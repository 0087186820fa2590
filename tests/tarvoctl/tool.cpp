#include "tool.hpp"

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace {

testing::AssertionResult result(bool is_true, const std::string& text) {
    return (is_true ? testing::AssertionSuccess() : testing::AssertionFailure()) << text;
}

} // namespace

arguments operator+(arguments first, const arguments& more) {
    first.insert(first.end(), more.begin(), more.end());
    return first;
}

std::ostream& operator<<(std::ostream& stream, const tool_outcome& outcome) {
    return stream << "status " << outcome.status << "\noutput:\n"
                  << outcome.output << "errors:\n"
                  << outcome.errors;
}

tool_outcome printed(const std::string& output) {
    return {0, output, ""};
}

tool_outcome failed(int status, const std::string& message) {
    return {status, "", "tarvoctl: " + message + "\n"};
}

tool_outcome run_program(sandbox& where, const arguments& words, const std::string& input) {
    const temporary_folder folder;
    const std::string input_file = folder.path() / "input";
    const std::string output_file = folder.path() / "output";
    std::ofstream(input_file) << input;
    // The shell gives it the files; the program replaces the shell, and its end is the shell's.
    process tool = where.start_process(
        arguments{"sh", "-c", "exec <\"$1\" >\"$2\"; shift 2; LC_ALL=C exec \"$@\"", "sh",
                  input_file, output_file} +
        words);
    const ending end = tool.wait();
    return {end.signal == 0 ? end.status : -1, file_text(output_file), tool.error_text()};
}

tool_outcome tarvoctl(sandbox& where, const arguments& words, const std::string& input) {
    return run_program(where, arguments{TARVOCTL} + words, input);
}

tool_outcome tarvoctl_of_stranger(sandbox& where, const arguments& words,
                                  const arguments& through) {
    // Works also where the tests do not run as root: only the namespace knows the other user.
    const arguments stranger{"unshare", "--user", "--map-user=65534", "--map-group=65534"};
    return run_program(where, stranger + through + arguments{TARVOCTL} + words);
}

ending running_tool::end_by(int signal) {
    kill(pid, signal);
    return program.wait();
}

running_tool start_tarvoctl(sandbox& where, const arguments& words, const std::string& terminal) {
    // The shell prints its number, which becomes the program's.
    const std::string script = terminal.empty() ? "echo $$; shift; exec \"$@\""
                                                : "echo $$; exec <>\"$1\" >&0; shift; exec \"$@\"";
    process program =
        where.start_process(arguments{"sh", "-c", script, "sh", terminal, TARVOCTL} + words);
    const pid_t pid = std::stoi(program.read_line().value());
    return {std::move(program), pid};
}

std::string own_errors(const tool_outcome& outcome) {
    std::string own;
    for (const std::string& line : lines_of(outcome.errors)) {
        if (!line.starts_with("tarvoctl: could not look into ")) {
            own += line + '\n';
        }
    }
    return own;
}

std::string with_all_seen(const std::string& output) {
    const std::string limited = " that can be seen";
    std::string plain = output;
    for (auto at = plain.find(limited); at != std::string::npos; at = plain.find(limited)) {
        plain.erase(at, limited.size());
    }
    return plain;
}

nlohmann::json json_of(const tool_outcome& outcome) {
    auto document = nlohmann::json::parse(outcome.output, nullptr, false);
    if (!document.is_object()) {
        throw std::runtime_error("no JSON object: " + outcome.output + outcome.errors);
    }
    return document;
}

taken_snapshot::taken_snapshot(sandbox& where) {
    EXPECT_EQ(tarvoctl(where, {"snapshot", path}).status, 0);
}

std::vector<uint8_t> unpacked(const std::string& snapshot) {
    const temporary_folder folder;
    const std::string plain = folder.path() / "plain";
    process zcat({"sh", "-c", "zcat \"$0\" >\"$1\"", snapshot, plain}, folder.path() / "errors");
    zcat.wait();
    return area_file(plain).snapshot();
}

std::vector<std::string> files_of(const sandbox& where) {
    std::vector<std::string> found;
    for (const auto& file : {where.shared_area(), where.memory_file(), where.lock_file()}) {
        if (exists(file)) {
            found.push_back(file);
        }
    }
    return found;
}

std::string this_process() {
    std::string name = file_text("/proc/self/comm");
    name.pop_back(); // the line's end
    return std::to_string(::getpid()) + " (" + name + ")";
}

testing::AssertionResult ended(const tool_outcome& outcome, int status) {
    return (outcome.status == status ? testing::AssertionSuccess() : testing::AssertionFailure())
           << outcome;
}

testing::AssertionResult contains(const std::string& text, const std::string& part) {
    return result(text.find(part) != std::string::npos, text);
}

testing::AssertionResult starts_with(const std::string& text, const std::string& start) {
    return result(text.starts_with(start), text);
}

testing::AssertionResult ends_with(const std::string& text, const std::string& end) {
    return result(text.ends_with(end), text);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}
