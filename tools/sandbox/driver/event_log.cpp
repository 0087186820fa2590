#include "driver/event_log.hpp"

#include "common/failure.hpp"

#include <nlohmann/json.hpp>

namespace sandbox {

namespace {

/// Each byte becomes the code point of its value, so that every byte survives in a JSON string.
std::string latin1_to_utf8(std::string_view bytes) {
    std::string utf8;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        if (value < 0x80) {
            utf8 += byte;
        } else {
            utf8 += static_cast<char>(0xc0 | value >> 6);
            utf8 += static_cast<char>(0x80 | (value & 0x3f));
        }
    }
    return utf8;
}

const char* name_of(moment at) {
    switch (at) {
    case moment::open:
        return "open";
    case moment::write:
        return "write";
    case moment::close:
        break;
    }
    return "close";
}

std::string flags_of(const event& seen) {
    return std::string{seen.reads ? "r" : ""} + (seen.writes ? "w" : "");
}

} // namespace

void event_log::add(const event& seen, const log_entry& entry) {
    if (!_file) {
        return;
    }
    nlohmann::ordered_json line{
        {"seq", ++_seq},
        {"pid", entry.pid},
        {"file", seen.file == driver_file::proc ? "proc" : "sysfs"},
        {"event", name_of(seen.at)},
        {"flags", flags_of(seen)},
        {"trunc", entry.truncates},
        {"bytes", latin1_to_utf8(entry.bytes)},
        {"answer", entry.error == 0 ? "ok" : error_name(entry.error)},
    };
    if (entry.error == 0 && entry.accepted_bytes < entry.bytes.size()) {
        line["accepted"] = entry.accepted_bytes;
    }
    const std::string text = line.dump() + "\n";
    // A log that cannot take the line must not change what the command sees.
    [[maybe_unused]] const auto written = ::write(_file.get(), text.data(), text.size());
}

} // namespace sandbox
