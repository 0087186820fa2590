#include "commands/commands.hpp"
#include "host/area_file.hpp"
#include "output/json.hpp"
#include "program.hpp"

#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

struct snapshot_options {
    area_source source;
    std::string file;
    bool force = false;
    bool json = false;
};

exit_status snapshot(const snapshot_options& options) {
    const auto area = read_area(options.source);
    write_area({options.file, options.force ? existing_file::replaced : existing_file::refused},
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

void add_snapshot(program& to) {
    const auto options = std::make_shared<snapshot_options>();
    command_words command =
        to.add("snapshot", "a consistent copy of the area, for later", looking, options, snapshot);
    command.word("FILE", options->file, "the copy, which must not be there yet");
    command.flag("--force", options->force, "replace a file that is there");
    command.json(options->json);
    command.source(options->source);
}

} // namespace tarvoctl
