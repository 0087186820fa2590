#include "report.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace driver_check {

namespace {

using json = nlohmann::ordered_json;

const char* name_of(verdict found) {
    switch (found) {
    case verdict::passed:
        return "passed";
    case verdict::failed:
        return "failed";
    case verdict::skipped:
        break;
    }
    return "skipped";
}

std::string tap_line(size_t number, const result& each) {
    const std::string line =
        fmt::format("{}ok {} - {} {}", each.found == verdict::failed ? "not " : "", number,
                    each.checked->number, each.checked->title);
    switch (each.found) {
    case verdict::passed:
        return line + "\n";
    case verdict::failed:
        return fmt::format("{}\n# {}\n", line, each.text);
    case verdict::skipped:
        break;
    }
    return fmt::format("{} # SKIP {}\n", line, each.text);
}

json json_of(const result& each) {
    json entry{{"clause", each.checked->number},
               {"title", each.checked->title},
               {"result", name_of(each.found)}};
    if (!each.text.empty()) {
        entry["text"] = each.text;
    }
    return entry;
}

json json_of(const std::optional<tarvo::device>& device) {
    return device ? json(device->text().c_str()) : json(nullptr);
}

} // namespace

std::string tap_text(const std::vector<result>& results) {
    std::string text = fmt::format("TAP version 13\n1..{}\n", results.size());
    for (size_t i = 0; i < results.size(); ++i) {
        text += tap_line(i + 1, results[i]);
    }
    return text;
}

std::string json_text(const subject& all, const std::vector<result>& results) {
    json document{{"device", json_of(all.device)}, {"absent_device", json_of(all.absent_device)}};
    document["checks"] = json::array();
    for (const result& each : results) {
        document["checks"].push_back(json_of(each));
    }
    for (const verdict counted : {verdict::passed, verdict::failed, verdict::skipped}) {
        document[name_of(counted)] = std::ranges::count(results, counted, &result::found);
    }
    return document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace driver_check
