#include "zul/Trace.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string_view>

namespace Zul {

namespace {

/// The level that one entry of ZUL_TRACE enables for `facility`; -1 when it is not about it.
int level_of_entry(std::string_view entry, std::string_view facility) {
    const size_t equals = entry.find('=');
    if (equals != std::string_view::npos) {
        if (entry.substr(0, equals) != facility) {
            return -1;
        }
        entry.remove_prefix(equals + 1);
    }
    int level = -1;
    const auto [end, error] = std::from_chars(entry.data(), entry.data() + entry.size(), level);
    const bool whole = error == std::errc() && end == entry.data() + entry.size();
    return whole ? level : -1;
}

/// The highest level that any entry enables for `facility`; -1 when none does.
int level_from_environment(std::string_view facility) {
    const char* setting = std::getenv("ZUL_TRACE");
    std::string_view rest = setting != nullptr ? setting : "";
    int level = -1;
    while (!rest.empty()) {
        const std::string_view entry = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(entry.size() + 1, rest.size()));
        level = std::max(level, level_of_entry(entry, facility));
    }
    return level;
}

/// `text` as it fits on one line: a final newline falls together with the record's own end, any
/// other is shown as \n.
std::string on_one_line(std::string_view text) {
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    std::string line;
    for (const char c : text) {
        if (c == '\n') {
            line += "\\n";
        } else {
            line += c;
        }
    }
    return line;
}

} // namespace

TraceHandle::TraceHandle(const String& facility, bool /*unused*/)
    : _facility(facility.text()), _enabled_up_to(level_from_environment(_facility)) {}

TraceHelper* TraceHelper::createIfEnabled(TraceHandle& handle, TraceFacility::FacilityLevel level,
                                          void* storage) {
    return handle.enabled(level) ? new (storage) TraceHelper(handle, level) : nullptr;
}

void TraceHelper::trace(const char* file, int line, const char* function) {
    const std::string record = "[" + _handle.facility() + ":" + std::to_string(_level) + "] " +
                               file + ":" + std::to_string(line) + " " + function + ": " +
                               on_one_line(_text.str()) + "\n";
    std::fwrite(record.data(), 1, record.size(), stderr);
}

} // namespace Zul
