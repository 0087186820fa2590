#include "commands/commands.hpp"
#include "commands/named_chunks.hpp"
#include "common/quantities.hpp"
#include "host/mappings.hpp"
#include "output/json.hpp"
#include "output/process_text.hpp"
#include "output/table.hpp"
#include "output/text.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <memory>

namespace tarvoctl {

namespace {

struct who_options {
    area_source source;
    std::string name;
    bool json = false;
};

/// What one mapping shows of one chunk, or of bytes that no chunk holds.
struct view {
    const region_mapping* mapping;
    pa_window window;
};

struct chunk_views {
    const chunk_record* chunk;
    std::vector<view> views;
};

/// All that is asked for, sorted out. Mappings of the whole region are not repeated for each chunk.
struct answer {
    std::vector<chunk_views> chunks;
    std::vector<view> whole_region;
    std::vector<view> stale; ///< bytes of the region that no chunk holds (any more)
};

std::vector<view> views_of(const chunk_record& chunk,
                           const std::vector<const region_mapping*>& mappings) {
    std::vector<view> found;
    for (const auto* mapping : mappings) {
        if (const auto window = shown_of(*mapping, chunk.pa, chunk.end_pa())) {
            found.push_back({mapping, *window});
        }
    }
    return found;
}

/// What a mapping shows of the region beside the chunks, which are in ascending address.
void add_stale(const region_mapping& mapping, const picture& records, std::vector<view>& stale) {
    const auto shown = shown_of(mapping, records.region.first_pa, records.region.end_pa);
    if (!shown) {
        return;
    }
    uint64_t from = shown->pa;
    for (const auto& chunk : records.chunks) {
        if (chunk.end_pa() <= from || from >= shown->end_pa) {
            continue;
        }
        if (chunk.pa > from) {
            stale.push_back({&mapping, {from, std::min(chunk.pa, shown->end_pa)}});
        }
        from = chunk.end_pa();
    }
    if (from < shown->end_pa) {
        stale.push_back({&mapping, {from, shown->end_pa}});
    }
}

answer answer_of(const std::vector<const chunk_record*>& wanted, const picture& records,
                 const mapped_memory& memory) {
    answer made;
    std::vector<const region_mapping*> partial;
    for (const auto& mapping : memory.mappings) {
        if (shows_all_of(mapping, records.region)) {
            made.whole_region.push_back(
                {&mapping, {records.region.first_pa, records.region.end_pa}});
        } else {
            partial.push_back(&mapping);
            add_stale(mapping, records, made.stale);
        }
    }
    for (const auto* chunk : wanted) {
        made.chunks.push_back({chunk, views_of(*chunk, partial)});
    }
    return made;
}

std::vector<const chunk_record*> wanted_of(const who_options& options, const picture& records) {
    if (!options.name.empty()) {
        return chunks_called(options.name, records);
    }
    std::vector<const chunk_record*> all;
    for (const auto& chunk : records.chunks) {
        all.push_back(&chunk);
    }
    return all;
}

std::string access_text(const region_mapping& mapping) {
    const std::string access = mapping.readable && mapping.writable ? "read, write"
                               : mapping.writable                   ? "write"
                               : mapping.readable                   ? "read"
                                                                    : "none";
    return access + (mapping.shared ? "" : ", private copy") +
           (mapping.removed ? ", removed memory" : "");
}

std::string window_text(const view& each, const chunk_record& chunk) {
    const bool whole = each.window.pa == chunk.pa && each.window.end_pa == chunk.end_pa();
    return whole ? "all"
                 : fmt::format("{:#x}-{:#x}", each.window.pa - chunk.pa,
                               each.window.end_pa - 1 - chunk.pa);
}

class who_table {
  public:
    explicit who_table(process_table& processes) : _processes{processes} {}

    void add(const std::string& what, const std::string& window, const region_mapping& mapping) {
        const process_info& process = _processes.of(mapping.pid);
        _lines.add({what, window, fmt::format("{}", process.pid), shown(process.command),
                    shown(process.user), access_text(mapping)});
        _empty = false;
    }

    std::string text() const { return _empty ? "" : _lines.text(); }

  private:
    process_table& _processes;
    table _lines{{{"CHUNK"}, {"WINDOW"}, {"PID", align::right}, {"COMMAND"}, {"USER"}, {"ACCESS"}}};
    bool _empty = true;
};

/// The chunks that nobody maps, a few by name.
void print_unmapped(const answer& found, const mapped_memory& memory) {
    constexpr size_t most_named = 10;
    std::vector<std::string> names;
    for (const auto& [chunk, views] : found.chunks) {
        if (views.empty()) {
            names.push_back(shown_name(chunk->name));
        }
    }
    if (!names.empty()) {
        fmt::print("Mapped by nobody{}{}: {}\n", seen_only_text(memory),
                   found.whole_region.empty() ? "" : " but with the whole region",
                   first_few(names, most_named, std::identity{}));
    }
}

/// `only`: the name that was asked for; empty: all were.
void print_remarks(const answer& found, const picture& records, const std::string& only) {
    if (records.chunks.empty()) {
        fmt::print("There are no chunks\n");
    }
    if (only.empty() && !found.stale.empty()) {
        fmt::print(stderr, "tarvoctl: (freed): the mapping outlives its chunk, and shows whatever "
                           "is put there next; the process should unmap it\n");
    }
    report_duplicates(records, only);
}

void print_as_table(const answer& found, const picture& records, const mapped_memory& memory,
                    process_table& processes, const std::string& only) {
    who_table lines{processes};
    for (const auto& [chunk, views] : found.chunks) {
        for (const auto& each : views) {
            lines.add(shown_name(chunk->name), window_text(each, *chunk), *each.mapping);
        }
    }
    for (const auto& each : found.whole_region) {
        lines.add("(whole region)", "all", *each.mapping);
    }
    if (only.empty()) {
        for (const auto& [mapping, window] : found.stale) {
            lines.add("(freed)", "pa " + pa_range(window.pa, window.end_pa), *mapping);
        }
    }
    fmt::print("{}", lines.text());
    print_unmapped(found, memory);
    print_remarks(found, records, only);
}

json json_views(const std::vector<view>& views, uint64_t base_pa, process_table& processes) {
    return json_list(views, [&](const view& each) {
        const auto& [mapping, window] = each;
        json made = json_process(processes.of(mapping->pid));
        made["va"] = json_address(mapping->va + (window.pa - mapping->pa));
        made["pa"] = json_address(window.pa);
        made["pa_end"] = json_address(window.end_pa - 1);
        made["offset"] = window.pa - base_pa;
        made["size"] = window.end_pa - window.pa;
        made["read"] = mapping->readable;
        made["write"] = mapping->writable;
        made["shared"] = mapping->shared;
        made["removed"] = mapping->removed;
        return made;
    });
}

void print_as_json(const answer& found, const picture& records, const mapped_memory& memory,
                   process_table& processes) {
    json document = json_document("who", records);
    document["region"] = json_region(records);
    document["chunks"] = json_list(found.chunks, [&](const chunk_views& each) {
        json made = json_chunk(*each.chunk, records);
        made["mappings"] = json_views(each.views, each.chunk->pa, processes);
        return made;
    });
    document["whole_region"] = json_views(found.whole_region, records.region.first_pa, processes);
    document["stale"] = json_views(found.stale, records.region.first_pa, processes);
    document["unseen"] = json_unseen(memory);
    document["damage"] = records.damage;
    print_json(document);
}

bool is_mapped(const answer& found) {
    return !found.whole_region.empty() ||
           std::ranges::any_of(found.chunks,
                               [](const chunk_views& each) { return !each.views.empty(); });
}

exit_status who(const who_options& options) {
    const picture records = read_picture(options.source);
    const auto wanted = wanted_of(options, records);
    const mapped_memory memory = mappings_of(find_site());
    const answer found = answer_of(wanted, records, memory);
    process_table processes;
    if (options.json) {
        print_as_json(found, records, memory, processes);
    } else {
        print_as_table(found, records, memory, processes, options.name);
        if (!memory.is_complete()) {
            fmt::print(stderr, "tarvoctl: {}\n", unseen_text(memory, processes));
        }
    }
    const exit_status damage = report_damage(records.damage, options.source);
    const bool nobody = !options.name.empty() && !is_mapped(found);
    return damage == exit_status::good && nobody ? exit_status::finding : damage;
}

} // namespace

template <>
action set_up<entry_of("who")>(command_words& words) {
    const auto options = std::make_shared<who_options>();
    words.optional_word("NAME", options->name, "this chunk alone");
    words.json(options->json);
    words.live(options->source);
    return [options] { return who(*options); };
}

} // namespace tarvoctl
