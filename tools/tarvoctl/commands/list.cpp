#include "commands/commands.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "output/json.hpp"
#include "output/table.hpp"
#include "output/text.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <memory>
#include <numeric>

namespace tarvoctl {

namespace {

struct list_options {
    area_source source;
    std::vector<std::string> columns; ///< as data; empty: all, for people
    std::string sort = "pa";
    bool bytes = false;
    bool reverse = false;
    bool no_header = false;
    bool json = false;
};

/// What a cell is made from.
struct listed_chunk {
    const chunk_record& chunk;
    const picture& records;
    bool bytes;
    bool for_people;

    std::string text(const std::string& name) const {
        return for_people ? shown_name(name) : shown(name);
    }
};

struct list_column {
    const char* key;
    column head;
    std::string (*cell)(const listed_chunk&);
};

const list_column all_columns[] = {
    {"index",
     {"INDEX", align::right},
     [](const listed_chunk& each) { return fmt::format("{}", each.chunk.index); }},
    {"name", {"NAME"}, [](const listed_chunk& each) { return each.text(each.chunk.name); }},
    {"dma", {"DMA"}, [](const listed_chunk& each) { return dma_range(each.chunk, each.records); }},
    {"pa",
     {"PHYSICAL"},
     [](const listed_chunk& each) { return pa_range(each.chunk.pa, each.chunk.end_pa()); }},
    {"size",
     {"SIZE", align::right},
     [](const listed_chunk& each) {
         return each.bytes ? fmt::format("{}", each.chunk.size) : size_text(each.chunk.size);
     }},
    {"creator",
     {"CREATOR"},
     [](const listed_chunk& each) { return each.text(each.chunk.creator); }},
    {"devices",
     {"DEVICES"},
     [](const listed_chunk& each) { return devices_text(each.chunk, each.records); }},
};

const list_column& column_called(const std::string& key) {
    const auto* const found = std::ranges::find(all_columns, key, &list_column::key);
    if (found == std::end(all_columns)) {
        throw failure{
            exit_status::usage,
            fmt::format("-o: unknown column '{}'; choose from index, name, dma, pa, size, "
                        "creator and devices",
                        key)};
    }
    return *found;
}

/// The chunks' positions in the order wanted; equal ones in ascending address.
std::vector<size_t> order_of(const picture& records, const list_options& options) {
    std::vector<size_t> order(records.chunks.size());
    std::iota(order.begin(), order.end(), 0);
    const auto sort_by = [&](auto key) {
        const auto key_of = [&](size_t position) -> const auto& {
            return records.chunks[position].*key;
        };
        std::ranges::stable_sort(order, {}, key_of);
    };
    if (options.sort == "name") {
        sort_by(&chunk_record::name);
    }
    if (options.sort == "creator") {
        sort_by(&chunk_record::creator);
    }
    if (options.sort == "size") {
        sort_by(&chunk_record::size);
    }
    if (options.sort == "index") {
        sort_by(&chunk_record::index);
    }
    if (options.reverse) {
        std::reverse(order.begin(), order.end());
    }
    return order;
}

std::vector<const list_column*> columns_of(const list_options& options) {
    std::vector<const list_column*> chosen;
    for (const auto& key : options.columns) {
        chosen.push_back(&column_called(key));
    }
    if (chosen.empty()) {
        for (const auto& each : all_columns) {
            chosen.push_back(&each);
        }
    }
    return chosen;
}

void print_as_table(const picture& records, const list_options& options) {
    const auto chosen = columns_of(options);
    std::vector<column> heads;
    heads.reserve(chosen.size());
    for (const auto* each : chosen) {
        heads.push_back(each->head);
    }
    table lines{heads};
    for (const size_t position : order_of(records, options)) {
        const listed_chunk each{records.chunks[position], records, options.bytes,
                                options.columns.empty()};
        std::vector<std::string> row;
        row.reserve(chosen.size());
        for (const auto* wanted : chosen) {
            row.push_back(wanted->cell(each));
        }
        lines.add(std::move(row));
    }
    fmt::print("{}", lines.text(!options.no_header));
    report_duplicates(records, "");
}

void print_as_json(const picture& records, const list_options& options) {
    const auto duplicates = records.duplicates();
    json document = json_document("list", records);
    document["region"] = json_region(records);
    document["chunks"] = json_list(order_of(records, options), [&](size_t position) {
        json chunk = json_chunk(records.chunks[position], records);
        chunk["duplicate"] = static_cast<bool>(duplicates[position]);
        return chunk;
    });
    document["damage"] = records.damage;
    print_json(document);
}

exit_status list(const list_options& options) {
    const picture records = read_picture(options.source);
    if (options.json) {
        print_as_json(records, options);
    } else {
        print_as_table(records, options);
    }
    return report_damage(records.damage, options.source);
}

} // namespace

template <>
action set_up<entry_of("list")>(command_words& words) {
    const auto options = std::make_shared<list_options>();
    words.list("-o,--columns", "COLUMNS", options->columns,
               "which, as in name,size: index, name, dma, pa, size, creator, devices");
    words.choice("--sort", "KEY", {"pa", "dma", "name", "size", "creator", "index"}, options->sort,
                 "by pa (also dma), name, size, creator or index");
    words.flag("-r,--reverse", options->reverse, "the other way round");
    words.flag("--bytes", options->bytes, "sizes as plain numbers of bytes, for scripts");
    words.flag("--no-header", options->no_header, "without the line of titles");
    words.json(options->json);
    words.source(options->source);
    return [options] { return list(*options); };
}

} // namespace tarvoctl
