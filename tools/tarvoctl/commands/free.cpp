#include "commands/commands.hpp"
#include "commands/named_chunks.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/area_source.hpp"
#include "library/arguments.hpp"
#include "library/library_call.hpp"
#include "library/ready_area.hpp"
#include "output/confirm.hpp"
#include "output/json.hpp"
#include "output/process_text.hpp"
#include "output/text.hpp"
#include "tarvo.h"

#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

struct free_options {
    std::string name;
    std::chrono::milliseconds timeout = area_source{}.timeout;
    bool force = false;
    bool json = false;
};

/// What freeing the chunk does to others.
std::vector<std::string> effects_of(const chunk_record& chunk, const std::vector<pid_t>& holders,
                                    const mapped_memory& memory, const picture& records,
                                    process_table& processes) {
    std::vector<std::string> effects;
    if (memory.root_would_see_more()) {
        effects.push_back(fmt::format("who has '{}' mapped is not all known: {}", shown(chunk.name),
                                      unseen_text(memory, processes)));
    }
    if (!holders.empty()) {
        effects.push_back(fmt::format("'{}' is mapped by {}, which would go on seeing memory that "
                                      "may become another chunk's",
                                      shown(chunk.name), processes_text(holders, processes)));
    }
    if (!chunk.devices.empty()) {
        effects.push_back(fmt::format("'{}' is mapped for {}, which would lose it",
                                      shown(chunk.name), devices_text(chunk, records)));
    }
    return effects;
}

void print_remarks(const std::vector<const chunk_record*>& called, const mapped_memory& memory,
                   process_table& processes) {
    const chunk_record& lowest = *called.front();
    if (called.size() > 1) {
        fmt::print(stderr,
                   "tarvoctl: {} chunks are called '{}'; this is the lowest, at physical {}\n",
                   called.size(), shown(lowest.name), pa_text(lowest.pa));
    }
    if (!memory.is_complete() && !memory.root_would_see_more()) {
        fmt::print(stderr, "tarvoctl: {}\n", unseen_text(memory, processes));
    }
}

void print_outcome(const chunk_record& chunk, const picture& records,
                   const std::vector<pid_t>& holders, process_table& processes, bool freed) {
    json document = json_document("free");
    document["freed"] = freed;
    document["chunk"] = json_chunk(chunk, records);
    document["processes"] =
        json_list(holders, [&](pid_t each) { return json_process(processes.of(each)); });
    print_json(document);
}

int free_uninterrupted(const std::string& name) {
    const change_of_records uninterrupted;
    return tarvo_free(name.c_str());
}

exit_status call_free(const free_options& options) {
    if (free_uninterrupted(options.name) == 0) {
        return exit_status::good;
    }
    const picture records = read_picture({{}, options.timeout});
    static_cast<void>(chunks_called(options.name, records)); // or somebody else has freed it
    throw failure{exit_status::finding,
                  fmt::format("'{}' could not be freed; the reason is above", shown(options.name))};
}

exit_status free_chunk(const free_options& options) {
    check_chunk_name(options.name);
    const picture records = ready_area(options.timeout, remedy::free_chunk);
    const auto called = chunks_called(options.name, records);
    const chunk_record& chunk = *called.front();
    const mapped_memory memory = mappings_of(find_site());
    const auto holders = holders_of(chunk, memory);
    process_table processes;
    print_remarks(called, memory, processes);
    const bool freed =
        may_change(effects_of(chunk, holders, memory, records, processes), options.force,
                   fmt::format("Free '{}', {}?", shown(chunk.name), size_text(chunk.size))) &&
        in_library(options.timeout, [&] { return call_free(options); }) == exit_status::good;
    if (options.json) {
        print_outcome(chunk, records, holders, processes, freed);
    } else if (freed) {
        fmt::print("{}: freed, {} at {}\n", shown_name(chunk.name), size_text(chunk.size),
                   address_text(chunk.pa, records.region));
    }
    return freed ? exit_status::good : exit_status::finding;
}

} // namespace

template <>
action set_up<entry_of("free")>(command_words& words) {
    const auto options = std::make_shared<free_options>();
    words.word("NAME", options->name, "the lowest chunk of that name");
    words.flag("--force", options->force, "do not ask");
    words.json(options->json);
    words.timeout(options->timeout);
    return [options] { return free_chunk(*options); };
}

} // namespace tarvoctl
