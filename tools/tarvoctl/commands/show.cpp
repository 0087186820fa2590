#include "area/gaps.hpp"
#include "commands/commands.hpp"
#include "commands/named_chunks.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/mappings.hpp"
#include "output/json.hpp"
#include "output/process_text.hpp"
#include "output/text.hpp"

#include <fmt/format.h>
#include <memory>
#include <optional>
#include <vector>

namespace tarvoctl {

namespace {

struct show_options {
    area_source source;
    std::string name;
    bool json = false;
};

/// A chunk and what lies on both sides of it.
struct surroundings {
    const chunk_record* below = nullptr; ///< null: the region's start
    const chunk_record* above = nullptr; ///< null: the region's end
    std::optional<uint64_t> gap_below;   ///< free bytes; nothing where damage hides them
    std::optional<uint64_t> gap_above;
    std::vector<const chunk_record*> overlapping;
};

bool overlap(const chunk_record& a, const chunk_record& b) {
    return &a != &b && a.pa < b.end_pa() && b.pa < a.end_pa();
}

surroundings around(const chunk_record& chunk, const picture& records) {
    surroundings found;
    const auto position = static_cast<size_t>(&chunk - records.chunks.data());
    if (position > 0) {
        found.below = &records.chunks[position - 1];
    }
    if (position + 1 < records.chunks.size()) {
        found.above = &records.chunks[position + 1];
    }
    if (records.all_chunks) {
        found.gap_below = 0;
        found.gap_above = 0;
    }
    for (const auto& each : gaps_of(records)) {
        if (each.pa + each.bytes == chunk.pa) {
            found.gap_below = each.bytes;
        }
        if (each.pa == chunk.end_pa()) {
            found.gap_above = each.bytes;
        }
    }
    for (const auto& each : records.chunks) {
        if (overlap(chunk, each)) {
            found.overlapping.push_back(&each);
        }
    }
    return found;
}

std::string neighbour(const chunk_record* chunk, const char* region_end,
                      std::optional<uint64_t> gap_bytes) {
    if (!gap_bytes) {
        return "unknown";
    }
    const std::string who = chunk == nullptr ? region_end : shown_name(chunk->name);
    return fmt::format("{}, {} between", who, size_text(*gap_bytes));
}

void print_mappings(const chunk_record& chunk, const mapped_memory& memory) {
    process_table processes;
    bool any = false;
    for (const auto& each : memory.mappings) {
        const auto window = shown_of(each, chunk.pa, chunk.end_pa());
        if (!window) {
            continue;
        }
        any = true;
        fmt::print("mapped by  {}, bytes {:#x}-{:#x}, {}\n", processes.text(each.pid),
                   window->pa - chunk.pa, window->end_pa - 1 - chunk.pa,
                   each.writable ? "read and write" : "read only");
    }
    if (!any) {
        fmt::print("mapped by  nobody{}\n", seen_only_text(memory));
    }
}

/// `found`: the chunk that calls by that name find.
void print_as_text(const chunk_record& chunk, const picture& records, const chunk_record& found) {
    const surroundings place = around(chunk, records);
    const std::string remark = &chunk == &found
                                   ? ""
                                   : fmt::format("  (calls by name find record {} at physical {})",
                                                 found.index, pa_text(found.pa));
    fmt::print("name       {}{}\n"
               "physical   {}\n"
               "DMA        {}\n"
               "size       {}\n"
               "creator    {}\n"
               "record     {}\n"
               "below      {}\n"
               "above      {}\n"
               "devices    {}\n",
               shown_name(chunk.name), remark, pa_range(chunk.pa, chunk.end_pa()),
               dma_range(chunk, records), size_with_bytes(chunk.size), shown_name(chunk.creator),
               chunk.index, neighbour(place.below, "the region's start", place.gap_below),
               neighbour(place.above, "the region's end", place.gap_above),
               devices_text(chunk, records));
    for (const auto* each : place.overlapping) {
        fmt::print("OVERLAPS   {}, {}\n", shown_name(each->name),
                   pa_range(each->pa, each->end_pa()));
    }
}

json json_neighbour(const chunk_record* chunk, std::optional<uint64_t> gap_bytes) {
    json made{{"name", nullptr}};
    if (chunk != nullptr) {
        add_text(made, "name", chunk->name);
    }
    made["gap_bytes"] = gap_bytes ? json(*gap_bytes) : json(nullptr);
    return made;
}

json json_mappings(const chunk_record& chunk, const mapped_memory& memory) {
    process_table processes;
    json made = json::array();
    for (const auto& each : memory.mappings) {
        if (const auto window = shown_of(each, chunk.pa, chunk.end_pa())) {
            made.push_back({{"process", json_process(processes.of(each.pid))},
                            {"offset", window->pa - chunk.pa},
                            {"size", window->end_pa - window->pa},
                            {"writable", each.writable}});
        }
    }
    return made;
}

json json_shown(const chunk_record& chunk, const picture& records, const mapped_memory* memory) {
    const surroundings place = around(chunk, records);
    json made = json_chunk(chunk, records);
    made["below"] = json_neighbour(place.below, place.gap_below);
    made["above"] = json_neighbour(place.above, place.gap_above);
    made["overlaps"] = json_list(
        place.overlapping, [&](const chunk_record* each) { return json_chunk(*each, records); });
    made["mappings"] = memory != nullptr ? json_mappings(chunk, *memory) : json::array();
    return made;
}

void print_all_as_text(const std::vector<const chunk_record*>& chunks, const picture& records,
                       const mapped_memory* memory) {
    for (const auto* chunk : chunks) {
        if (chunk != chunks.front()) {
            fmt::print("\n");
        }
        print_as_text(*chunk, records, *chunks.front());
        if (memory != nullptr) {
            print_mappings(*chunk, *memory);
        }
    }
    process_table processes;
    if (memory != nullptr && !memory->is_complete()) {
        fmt::print(stderr, "tarvoctl: {}\n", unseen_text(*memory, processes));
    }
}

void print_all_as_json(const std::vector<const chunk_record*>& chunks, const picture& records,
                       const mapped_memory* memory) {
    json document = json_document("show", records);
    document["chunks"] = json_list(
        chunks, [&](const chunk_record* each) { return json_shown(*each, records, memory); });
    document["unseen"] = json_unseen(memory != nullptr ? *memory : mapped_memory{});
    document["damage"] = records.damage;
    print_json(document);
}

exit_status show(const show_options& options) {
    const picture records = read_picture(options.source);
    const auto chunks = chunks_called(options.name, records);
    std::optional<mapped_memory> memory;
    if (options.source.is_live()) { // nobody maps the chunks of a copy
        memory = mappings_of(find_site());
    }
    (options.json ? print_all_as_json : print_all_as_text)(chunks, records,
                                                           memory ? &*memory : nullptr);
    return report_damage(records.damage, options.source);
}

} // namespace

template <>
action set_up<entry_of("show")>(command_words& words) {
    const auto options = std::make_shared<show_options>();
    words.word("NAME", options->name, "the chunk");
    words.json(options->json);
    words.source(options->source);
    return [options] { return show(*options); };
}

} // namespace tarvoctl
