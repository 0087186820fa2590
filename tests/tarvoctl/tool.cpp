#include "tool.hpp"

#include <fstream>
#include <sstream>
#include <stdexcept>

tool_outcome tarvoctl(sandbox& where, const std::vector<std::string>& words,
                      const std::string& input) {
    const temporary_folder folder;
    const std::string input_file = folder.path() / "input";
    const std::string output_file = folder.path() / "output";
    std::ofstream(input_file) << input;
    // The shell gives it the files; the program replaces the shell, and its end is the shell's.
    std::vector<std::string> command{
        "sh",    "-c",       "exec <\"$1\" >\"$2\"; shift 2; LC_ALL=C exec \"$@\"",
        "sh",    input_file, output_file,
        TARVOCTL};
    command.insert(command.end(), words.begin(), words.end());
    process tool = where.start_process(command);
    const ending end = tool.wait();
    return {end.signal == 0 ? end.status : -1, file_text(output_file), tool.error_text()};
}

nlohmann::json json_of(const tool_outcome& outcome) {
    auto document = nlohmann::json::parse(outcome.output, nullptr, false);
    if (!document.is_object()) {
        throw std::runtime_error("no JSON object: " + outcome.output + outcome.errors);
    }
    return document;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}
