#include "area/changes.hpp"
#include "commands/commands.hpp"
#include "common/failure.hpp"
#include "output/change_text.hpp"
#include "output/json.hpp"
#include "output/text.hpp"

#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

struct diff_options {
    area_source before;
    area_source after;
    bool json = false;
};

exit_status diff(const diff_options& options) {
    if (options.before.file == standard_stream && options.after.file == standard_stream) {
        throw failure{exit_status::usage,
                      "standard input can be read once; name a file for one of the two"};
    }
    const picture before = read_picture(options.before);
    const picture after = read_picture(options.after);
    std::vector<std::string> damage = before.damage;
    damage.insert(damage.end(), after.damage.begin(), after.damage.end());
    // What cannot be read is not gone.
    const auto changes = damage.empty() ? changes_between(before, after) : std::vector<change>{};
    if (options.json) {
        json document = json_document("diff", after);
        document["changes"] = json_list(changes, json_change);
        document["damage"] = damage;
        print_json(document);
    } else {
        for (const auto& each : changes) {
            fmt::print("{}\n", change_text(each));
        }
    }
    const exit_status read_before = report_damage(before.damage, options.before);
    const exit_status read_after = report_damage(after.damage, options.after);
    if (read_before != exit_status::good || read_after != exit_status::good) {
        return exit_status::damaged;
    }
    return changes.empty() ? exit_status::good : exit_status::finding;
}

} // namespace

template <>
action set_up<entry_of("diff")>(command_words& words) {
    const auto options = std::make_shared<diff_options>();
    words.word("A", options->before.file, "the snapshot from before");
    words.optional_word("B", options->after.file, "the one from after; default: the live area");
    words.json(options->json);
    words.live(options->after);
    return [options] { return diff(*options); };
}

} // namespace tarvoctl
