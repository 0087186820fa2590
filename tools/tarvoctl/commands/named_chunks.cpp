#include "commands/named_chunks.hpp"

#include "common/failure.hpp"
#include "output/text.hpp"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <numeric>
#include <set>
#include <utility>

namespace tarvoctl {

namespace {

std::string in_lower_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char each) { return static_cast<char>(std::tolower(each)); });
    return text;
}

/// How many letters have to be put in, left out or changed to get from one text to the other.
size_t distance_of(const std::string& from, const std::string& to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t changed = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({row[j] + 1, row[j + 1] + 1, changed});
        }
    }
    return row.back();
}

/// 0: one is in the other. Upper and lower case count as the same.
size_t unlikeness(const std::string& wanted, const std::string& name) {
    const std::string a = in_lower_case(wanted);
    const std::string b = in_lower_case(name);
    const bool within = a.find(b) != std::string::npos || b.find(a) != std::string::npos;
    return within ? 0 : distance_of(a, b);
}

/// The most similar ones first, a few of them.
std::string similar_names(const std::string& wanted, const picture& records) {
    constexpr size_t most_named = 5;
    const size_t limit = std::max<size_t>(1, wanted.size() / 3);
    std::set<std::pair<size_t, std::string>> similar;
    for (const auto& chunk : records.chunks) {
        const size_t distance = unlikeness(wanted, chunk.name);
        if (distance <= limit && !chunk.name.empty()) {
            similar.emplace(distance, chunk.name);
        }
    }
    std::string made;
    size_t named = 0;
    for (auto each = similar.begin(); each != similar.end() && named < most_named;
         ++each, ++named) {
        made += (made.empty() ? "" : ", ") + shown(each->second);
    }
    return made;
}

} // namespace

std::vector<const chunk_record*> chunks_called(const std::string& name, const picture& records) {
    std::vector<const chunk_record*> found;
    for (const auto& chunk : records.chunks) {
        if (chunk.name == name) {
            found.push_back(&chunk);
        }
    }
    if (found.empty() && !records.damage.empty()) {
        throw failure{
            exit_status::damaged,
            fmt::format("no chunk called '{}' could be read, and {}; see 'tarvoctl check'",
                        shown(name), records.damage.front())};
    }
    if (found.empty()) {
        const std::string similar = similar_names(name, records);
        throw failure{exit_status::usage,
                      fmt::format("no chunk is called '{}'; {}", shown(name),
                                  similar.empty() ? "'tarvoctl list' shows those that exist"
                                                  : "similar ones: " + similar)};
    }
    return found;
}

json json_names(const std::vector<const chunk_record*>& chunks) {
    return json_list(chunks, [](const chunk_record* each) { return each->name; });
}

} // namespace tarvoctl
