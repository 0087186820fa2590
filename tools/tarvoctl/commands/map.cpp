#include "area/gaps.hpp"
#include "commands/commands.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/mappings.hpp"
#include "host/new_file.hpp"
#include "library/arguments.hpp"
#include "library/new_chunk.hpp"
#include "output/json.hpp"
#include "output/map_svg.hpp"
#include "output/process_text.hpp"
#include "output/region_bar.hpp"
#include "output/screen.hpp"
#include "output/table.hpp"
#include "output/text.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <memory>

namespace tarvoctl {

namespace {

struct map_options {
    area_source source;
    std::string fit;
    std::string svg_file;
    bool force = false;
    bool cma = false;
    bool json = false;
};

bool driver_chooses_places(const map_options& options) {
    return options.cma || (options.source.is_live() && find_site().is_cma());
}

/// Where a chunk of a size would go.
struct fit_answer {
    uint32_t size; ///< rounded to whole pages
    bool driver_chooses;
    std::optional<std::string> damage;   ///< why that is unknown
    std::optional<std::string> obstacle; ///< why it cannot be had
    std::optional<gap> place;            ///< where nothing is in the way
};

fit_answer fit_of(const map_options& options, const picture& records, const std::vector<gap>& gaps,
                  const std::optional<std::string>& damage) {
    const uint32_t size = parse_chunk_size(options.fit, "--fit");
    fit_answer answer{size, driver_chooses_places(options), damage, std::nullopt, std::nullopt};
    if (damage) {
        return answer;
    }
    answer.obstacle = obstacle_to(size, records, answer.driver_chooses);
    if (!answer.obstacle) {
        answer.place = first_fit(gaps, size);
    }
    return answer;
}

std::string name_before(const gap& place) {
    return place.before == nullptr ? "at the region's start"
                                   : fmt::format("after '{}'", shown(place.before->name));
}

void print_fit(const fit_answer& answer, const picture& records) {
    if (answer.damage) {
        fmt::print("{}: where it would go is unknown, because {}\n", size_text(answer.size),
                   *answer.damage);
    } else if (answer.obstacle) {
        fmt::print("does not fit: {}\n", *answer.obstacle);
    } else if (answer.driver_chooses) {
        fmt::print("{}: the kernel driver chooses the place in a CMA region; only it knows "
                   "whether there is one\n",
                   size_text(answer.size));
    } else {
        const auto [size, gap] = size_texts<2>({answer.size, answer.place->bytes});
        fmt::print("{} fits at {}, {}, in a gap of {}\n", size,
                   address_text(answer.place->pa, records.region), name_before(*answer.place), gap);
    }
}

std::string text_of(const piece& each) {
    switch (each.state) {
    case piece_state::free:
        return "(free)";
    case piece_state::used:
        return shown_name(each.owner->name);
    case piece_state::unknown:
        return "unknown";
    case piece_state::overlapping:
        break;
    }
    const std::string more =
        each.owners > 2 ? fmt::format(" and {} more", each.owners - 2) : std::string{};
    return fmt::format("OVERLAP of {} and {}{}", shown_name(each.owner->name),
                       shown_name(each.other->name), more);
}

/// What is listed below the picture: all pieces, or the largest chunks where those are too many.
std::vector<piece> listed_of(std::vector<piece> pieces) {
    constexpr size_t most_pieces = 104; // a chunk for each letter, and the gaps between
    constexpr size_t most_chunks = 20;
    if (pieces.size() <= most_pieces) {
        return pieces;
    }
    std::erase_if(pieces, [](const piece& each) { return each.owner == nullptr; });
    std::ranges::stable_sort(pieces, std::greater{}, &piece::bytes);
    pieces.resize(std::min(pieces.size(), most_chunks));
    std::ranges::sort(pieces, {}, &piece::pa);
    return pieces;
}

std::vector<const chunk_record*> owners_of(const std::vector<piece>& pieces) {
    std::vector<const chunk_record*> owners;
    for (const piece& each : pieces) {
        if (each.owner != nullptr) {
            owners.push_back(each.owner);
        }
    }
    return owners;
}

void print_pieces(const std::vector<piece>& listed, const region_picture& drawn) {
    table lines{{{"KEY"}, {"PHYSICAL"}, {"SIZE", align::right}, {"WHAT"}}};
    for (const piece& each : listed) {
        const auto letter = drawn.letters.find(each.owner);
        const bool has_letter = each.state == piece_state::used && letter != drawn.letters.end();
        lines.add({has_letter ? std::string(1, letter->second) : "", pa_text(each.pa),
                   size_text(each.bytes), text_of(each)});
    }
    fmt::print("\n{}", lines.text());
}

std::string totals_text(const picture& records, const std::vector<gap>& gaps,
                        const free_space& free) {
    const uint64_t bytes = records.region.end_pa - records.region.first_pa;
    if (!records.all_chunks) {
        return fmt::format("how much of {} is free is unknown; {} could be read", size_text(bytes),
                           counted(records.chunks.size(), "chunk"));
    }
    const auto [total, region, largest] =
        size_texts<3>({free.total_bytes, bytes, free.largest_bytes});
    return fmt::format("{} of {} free in {}, the largest {}; {}; fragmentation {:.0f} %", total,
                       region, counted(gaps.size(), "gap"), largest,
                       counted(records.chunks.size(), "chunk"), 100 * free.fragmentation());
}

void print_as_text(const picture& records, const std::vector<gap>& gaps, const free_space& free) {
    constexpr size_t picture_lines = 12;
    const auto pieces = pieces_of(records);
    const auto listed = listed_of(pieces);
    const auto drawn = draw_region(records, standard_screen(), picture_lines, owners_of(listed));
    fmt::print("{}\n{}\n{}\n", drawn.text, drawn.legend, totals_text(records, gaps, free));
    print_pieces(listed, drawn);
    if (listed.size() < pieces.size()) {
        fmt::print("\nThe {} largest of {}; 'tarvoctl list' shows all\n", listed.size(),
                   counted(records.chunks.size(), "chunk"));
    }
}

json json_gap(const gap& each, const picture& records) {
    return {{"pa", json_address(each.pa)},
            {"dma", json_address(records.region.dma_of(each.pa))},
            {"size", each.bytes},
            {"behind", each.before == nullptr ? json(nullptr) : json(each.before->name)}};
}

json json_fit(const fit_answer& answer, const picture& records) {
    return {{"size", answer.size},
            {"driver_chooses", answer.driver_chooses},
            {"damage", answer.damage ? json(*answer.damage) : json(nullptr)},
            {"obstacle", answer.obstacle ? json(*answer.obstacle) : json(nullptr)},
            {"place", answer.place ? json_gap(*answer.place, records) : json(nullptr)}};
}

json json_overlaps(const picture& records) {
    json made = json::array();
    for (const auto& each : pieces_of(records)) {
        if (each.state == piece_state::overlapping) {
            made.push_back({{"pa", json_address(each.pa)},
                            {"dma", json_address(records.region.dma_of(each.pa))},
                            {"size", each.bytes},
                            {"chunks", {each.owner->name, each.other->name}},
                            {"owners", each.owners}});
        }
    }
    return made;
}

void print_as_json(const picture& records, const std::vector<gap>& gaps, const free_space& free,
                   const std::optional<fit_answer>& fit) {
    json document = json_document("map", records);
    document["region"] = json_region(records);
    document["chunk_count"] = records.chunks.size();
    const bool known = records.all_chunks;
    document["free_bytes"] = known ? json(free.total_bytes) : json(nullptr);
    document["largest_gap_bytes"] = known ? json(free.largest_bytes) : json(nullptr);
    document["fragmentation"] = known ? json(free.fragmentation()) : json(nullptr);
    document["gaps"] = json_list(gaps, [&](const gap& each) { return json_gap(each, records); });
    document["overlaps"] = json_overlaps(records);
    document["fit"] = fit ? json_fit(*fit, records) : json(nullptr);
    document["damage"] = records.damage;
    print_json(document);
}

std::string svg_of(const map_options& options, const picture& records) {
    process_table processes;
    std::optional<mapped_memory> memory;
    if (options.source.is_live()) { // nobody maps the chunks of a copy
        memory = mappings_of(find_site());
    }
    return svg_of(layout_of(records, memory ? &*memory : nullptr, processes));
}

void write_svg(const map_options& options, const std::string& text) {
    constexpr mode_t everybody = 0666;
    new_file file{
        {options.svg_file, options.force ? existing_file::replaced : existing_file::refused},
        everybody};
    file.write_at(text.data(), text.size(), 0);
    file.finish();
}

/// Damage to the places that does not keep the lists from being read counts as well.
std::vector<std::string> reported_damage(const std::optional<std::string>& damage,
                                         const picture& records) {
    return damage && records.damage.empty() ? std::vector{*damage} : records.damage;
}

bool svg_is_output(const map_options& options) {
    return options.svg_file == standard_stream;
}

/// Standard output takes one document.
void refuse_two_outputs(const map_options& options) {
    if (!svg_is_output(options) || (!options.json && options.fit.empty())) {
        return;
    }
    throw failure{exit_status::usage,
                  fmt::format("standard output takes the SVG of --svg - or the output of {}, not "
                              "both; name a file",
                              options.json ? "--json" : "--fit")};
}

exit_status map(const map_options& options) {
    refuse_two_outputs(options);
    const picture records = read_picture(options.source);
    static_cast<void>(known_region(records, options.source)); // or there is nothing to draw
    const auto gaps = gaps_of(records);
    const free_space free = free_space_of(gaps);
    const auto damage = damage_to_places(records, driver_chooses_places(options));
    const auto fit =
        options.fit.empty() ? std::nullopt : std::optional{fit_of(options, records, gaps, damage)};
    const std::string svg = options.svg_file.empty() ? "" : svg_of(options, records);
    if (svg_is_output(options)) {
        fmt::print("{}", svg);
    } else if (!svg.empty()) {
        write_svg(options, svg);
    }
    if (options.json) {
        print_as_json(records, gaps, free, fit);
    } else if (fit) {
        print_fit(*fit, records);
    } else if (!svg_is_output(options)) {
        print_as_text(records, gaps, free);
    }
    const exit_status read = report_damage(reported_damage(damage, records), options.source);
    const bool refused = fit && (fit->driver_chooses || fit->obstacle);
    return read == exit_status::good && refused ? exit_status::finding : read;
}

} // namespace

template <>
action set_up<entry_of("map")>(command_words& words) {
    const auto options = std::make_shared<map_options>();
    words.option("--fit", "SIZE", options->fit, "would a chunk of that size fit, and where?");
    words.flag("--cma", options->cma,
               "the copy is of a CMA region: chunks may overlap, and the driver chooses places");
    words.option("--svg", "FILE", options->svg_file,
                 "write the picture to this file, too; - for standard output alone");
    words.flag("--force", options->force, "replace an existing file of --svg");
    words.json(options->json);
    words.source(options->source);
    return [options] { return map(*options); };
}

} // namespace tarvoctl
