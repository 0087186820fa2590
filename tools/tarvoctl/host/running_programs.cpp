#include "host/running_programs.hpp"

#include "host/processes.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <unistd.h>

namespace tarvoctl {

namespace {

constexpr size_t kernels_name_bytes = 15;

std::string last_component(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string first_word(const std::string& text) {
    return text.substr(0, text.find_first_of(" \t:;,[("));
}

/// Runs a program that is one of its arguments.
bool is_interpreter(const std::string& program) {
    constexpr std::array<std::string_view, 8> known{"python", "perl", "ruby", "node",
                                                    "bash",   "sh",   "dash", "lua"};
    return std::ranges::any_of(known,
                               [&](std::string_view each) { return program.starts_with(each); });
}

/// The first argument that is not an option; empty where there is none.
std::string script_of(const process_info& process) {
    const auto& words = process.arguments;
    const auto found = std::find_if(words.begin() + (words.empty() ? 0 : 1), words.end(),
                                    [](const auto& word) { return !word.starts_with('-'); });
    return found == words.end() ? std::string{} : last_component(*found);
}

} // namespace

running_programs::running_programs() {
    for (const pid_t pid : all_processes()) {
        const auto process = pid == ::getpid() ? std::nullopt : process_of(pid);
        if (!process || process->state == 'Z') {
            continue;
        }
        const std::string program = last_component(process->executable);
        _names.insert({process->command, program});
        if (!process->arguments.empty()) {
            _names.insert(last_component(first_word(process->arguments.front())));
        }
        if (is_interpreter(program)) {
            _names.insert(script_of(*process));
        }
    }
    _names.erase("");
}

bool running_programs::may_include(const std::string& creator) const {
    const std::array candidates{creator, last_component(creator), first_word(creator),
                                last_component(first_word(creator))};
    return std::ranges::any_of(candidates, [this](const std::string& each) {
        const bool cut = each.size() > kernels_name_bytes;
        return _names.contains(each) ||
               (cut && _names.contains(each.substr(0, kernels_name_bytes)));
    });
}

bool looks_like_a_program(const std::string& creator) {
    return !creator.empty() && std::ranges::all_of(creator, [](unsigned char each) {
        return each > ' ' && each < 0x7f &&
               std::string_view{"\"'()[]{}<>,;*?!|&$"}.find(static_cast<char>(each)) ==
                   std::string_view::npos;
    });
}

} // namespace tarvoctl
