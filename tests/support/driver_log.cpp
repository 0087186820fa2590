#include "driver_log.hpp"

#include <fstream>
#include <nlohmann/json.hpp>

namespace {

/// The log shows each byte as the character of the same number; back to bytes.
std::string bytes_of(const std::string& utf_8) {
    std::string bytes;
    for (size_t i = 0; i < utf_8.size(); i++) {
        const auto first = static_cast<unsigned char>(utf_8[i]);
        if (first < 0x80) {
            bytes += utf_8[i];
        } else {
            const auto second = static_cast<unsigned char>(utf_8.at(++i));
            bytes += static_cast<char>((first & 0x3U) << 6U | (second & 0x3fU));
        }
    }
    return bytes;
}

driver_event event_of(const std::string& line) {
    const nlohmann::json fields = nlohmann::json::parse(line);
    return {fields.at("seq"),   fields.at("pid"),   fields.at("file"),
            fields.at("event"), fields.at("flags"), bytes_of(fields.at("bytes")),
            fields.at("answer")};
}

} // namespace

std::vector<driver_event> driver_events(const std::filesystem::path& log) {
    std::vector<driver_event> events;
    std::ifstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        events.push_back(event_of(line));
    }
    return events;
}

std::string shown(const driver_event& event) {
    std::string text = event.file + " " + event.event;
    if (event.event == "open") {
        text += " " + event.flags;
    }
    if (event.answer != "ok") {
        text += " " + event.answer;
    }
    return event.bytes.empty() ? text : text + ": " + event.bytes;
}
