#include "host/maps.hpp"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <sstream>

namespace tarvoctl {

namespace {

bool parse(const std::string& text, maps_line& line) {
    std::array<char, 5> permissions{};
    int path_at = 0;
    const int fields =
        std::sscanf(text.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64 " %x:%x %" SCNu64 " %n",
                    &line.start, &line.end, permissions.data(), &line.file_offset,
                    &line.file.device_major, &line.file.device_minor, &line.file.inode, &path_at);
    constexpr int fields_before_path = 7;
    if (fields != fields_before_path || line.file.inode == 0) {
        return false;
    }
    line.permissions = permissions.data();
    line.path = text.substr(static_cast<size_t>(path_at));
    return true;
}

} // namespace

void for_each_file_mapping(const std::string& maps,
                           const std::function<void(const maps_line&)>& visit) {
    std::istringstream lines{maps};
    maps_line line;
    for (std::string text; std::getline(lines, text);) {
        if (parse(text, line)) {
            visit(line);
        }
    }
}

} // namespace tarvoctl
