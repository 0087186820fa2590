#include "script.hpp"

#include "client.hpp"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace model {

namespace {

std::string word_text(const std::optional<std::string>& word) {
    if (!word) {
        return "@null";
    }
    constexpr const char* plain = "0123456789abcdefghijklmnopqrstuvwxyz_";
    const bool is_plain = !word->empty() && word->find_first_not_of(plain) == std::string::npos;
    return is_plain ? *word : ::quoted(*word);
}

/// Reads what quoted() wrote, from after the first quotation mark.
std::string read_quotation(std::istream& line) {
    std::string text;
    for (char c = 0; line.get(c) && c != '"';) {
        if (c == '\\' && line.get(c)) {
            c = c == 'n' ? '\n' : c;
        }
        text += c;
    }
    if (!line) {
        throw std::runtime_error("a quoted text does not end");
    }
    return text;
}

std::optional<std::string> read_word(std::istream& line) {
    if (line.peek() == '"') {
        line.get();
        return read_quotation(line);
    }
    std::string word;
    line >> word;
    return word == "@null" ? std::nullopt : std::optional(word);
}

/// Whether the line is about the place, and not a step.
bool read_setting(const std::string& line, playground& where) {
    std::istringstream words(line);
    std::string key;
    words >> key;
    if (key == "world") {
        words >> where.world_name;
    } else if (key == "region") {
        words >> where.region;
    } else if (key == "processes") {
        words >> where.processes;
    } else {
        return false;
    }
    return true;
}

void set_region(world& changed, const std::string& region) {
    const size_t dash = region.find('-');
    changed.start = std::stoull(region, nullptr, 16);
    changed.bytes = std::stoull(region.substr(dash + 1), nullptr, 16) + 1 - changed.start;
    const bool is_high = changed.start >= four_gib || changed.end() >= four_gib;
    changed.start_dma = is_high ? high_start_dma : static_cast<uint32_t>(changed.start);
}

} // namespace

uint64_t step::number(size_t i) const {
    return std::stoull(word(i), nullptr, 0);
}

bool step::has_null() const {
    return std::any_of(words.begin(), words.end(), [](const auto& word) { return !word; });
}

world playground::place() const {
    for (world known : all_worlds()) {
        if (known.name == world_name) {
            if (!region.empty()) {
                set_region(known, region);
            }
            return known;
        }
    }
    throw std::runtime_error("no world is called '" + world_name + "'");
}

std::vector<std::string> playground::options() const {
    if (region.empty()) {
        return {};
    }
    return {"--region", region + (place().cma ? ":CMA" : ":tarvo")};
}

std::string shown(const step& one) {
    std::string line = one.who == the_machine ? "*" : std::to_string(one.who);
    line += " " + one.verb;
    for (const auto& word : one.words) {
        line += " " + word_text(word);
    }
    return line;
}

std::string shown(const script& all) {
    std::string text = "world " + all.where.world_name + "\n";
    if (!all.where.region.empty()) {
        text += "region " + all.where.region + "\n";
    }
    text += "processes " + std::to_string(all.where.processes) + "\n";
    for (const step& one : all.steps) {
        text += shown(one) + "\n";
    }
    return text;
}

step parse_step(const std::string& line) {
    std::istringstream words(line);
    std::string who;
    step read;
    words >> who >> read.verb;
    if (read.verb.empty()) {
        throw std::runtime_error("not a step: " + line);
    }
    read.who = who == "*" ? the_machine : std::stoi(who);
    while (words >> std::ws && !words.eof()) {
        read.words.push_back(read_word(words));
    }
    return read;
}

script read_script(const std::filesystem::path& path) {
    std::ifstream lines(path);
    if (!lines) {
        throw std::runtime_error("cannot read " + path.string());
    }
    script read;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.front() != '#' && !read_setting(line, read.where)) {
            read.steps.push_back(parse_step(line));
        }
    }
    return read;
}

} // namespace model
