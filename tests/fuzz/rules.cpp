// The rules of tarvo-sandbox and the lines that are written to its driver, whatever their bytes
// are: they are read or refused, and a request is read alike in the library's format.

#include "common/trouble.hpp"
#include "driver/rule.hpp"
#include "shared/driver_lines.hpp"
#include "target.hpp"

#include <array>
#include <optional>

namespace {

using sandbox::driver_file;

std::string printed(const sandbox::request& asked, int prot) {
    std::array<char, 512> line{};
    const int length = std::snprintf(
        line.data(), line.size(), request_format,
        asked.op == sandbox::operation::map ? "map" : "unmap",
        static_cast<int>(asked.device.domain), static_cast<int>(asked.device.bus),
        static_cast<int>(asked.device.devfn), static_cast<unsigned long long>(asked.start_pa),
        static_cast<unsigned long long>(asked.end_pa), static_cast<unsigned long>(asked.start_dma),
        prot);
    return {line.data(), static_cast<size_t>(length)};
}

/// Protection is not kept: it is the last word.
int protection_in(std::string_view line) {
    const size_t at = line.rfind(' ');
    return std::atoi(std::string(line.substr(at)).c_str());
}

std::optional<sandbox::rule> rule_of(std::string_view text) {
    try {
        return sandbox::parse_rule(text);
    } catch (const trouble&) {
        return std::nullopt;
    }
}

void check_line(std::string_view line, const std::optional<sandbox::rule>& rule) {
    for (const driver_file file : {driver_file::proc, driver_file::sysfs}) {
        const auto asked = sandbox::parse_request(file, line);
        if (asked && file == driver_file::sysfs) {
            const std::string again = printed(*asked, protection_in(line));
            const auto asked_again = sandbox::parse_request(file, again);
            expect(asked_again && printed(*asked_again, protection_in(line)) == again,
                   "the same request, as the library writes it, is read alike");
        }
        if (rule) {
            sandbox::matches(*rule, {file, rule->at, false, true, asked ? &*asked : nullptr});
        }
    }
}

} // namespace

/// A rule, and after a zero byte a line.
int try_bytes(const uint8_t* data, size_t size) {
    const std::string_view all(reinterpret_cast<const char*>(data), size);
    const size_t end = std::min(all.find('\0'), all.size());
    const auto rule = rule_of(all.substr(0, end));
    expect(!rule || rule->text == all.substr(0, end), "a rule keeps its text");
    check_line(all.substr(std::min(end + 1, all.size())), rule);
    return 0;
}
