#include "commands/commands.hpp"
#include "common/failure.hpp"
#include "host/area_file.hpp"
#include "output/json.hpp"

#include <fmt/format.h>
#include <memory>
#include <unistd.h>

namespace tarvoctl {

namespace {

struct snapshot_options {
    area_source source;
    std::string file;
    bool force = false;
    bool json = false;
};

area_copy read_and_remark(const area_source& source) {
    area_copy area = read_area(source);
    if (source.is_live()) {
        remark_on_region(picture_of(*area).region);
    }
    return area;
}

/// To a pipe or the like.
exit_status print_area(const snapshot_options& options) {
    if (options.json) {
        throw failure{exit_status::usage,
                      "standard output takes the snapshot or the JSON document, not both; name a "
                      "file"};
    }
    if (::isatty(STDOUT_FILENO) != 0) {
        throw failure{exit_status::usage,
                      "a terminal cannot show a snapshot; name a file, or give it to a pipe"};
    }
    print_snapshot(*read_and_remark(options.source));
    return exit_status::good;
}

exit_status snapshot(const snapshot_options& options) {
    if (options.file == standard_stream) {
        return print_area(options);
    }
    const auto area = read_and_remark(options.source);
    write_snapshot({options.file, options.force ? existing_file::replaced : existing_file::refused},
                   *area);
    if (options.json) {
        json document = json_document("snapshot");
        document["consistent"] = area.consistent;
        add_text(document, "file", options.file);
        print_json(document);
    } else {
        fmt::print(
            "{} holds the area as it was; 'tarvoctl list --area', 'check' and 'diff' read it\n",
            options.file);
    }
    return exit_status::good;
}

} // namespace

template <>
action set_up<entry_of("snapshot")>(command_words& words) {
    const auto options = std::make_shared<snapshot_options>();
    words.word("FILE", options->file, "the copy, which must not exist yet; - for standard output");
    words.flag("--force", options->force, "replace an existing file");
    words.json(options->json);
    words.source(options->source);
    return [options] { return snapshot(*options); };
}

} // namespace tarvoctl
