#include "commands/commands.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/area_source.hpp"
#include "library/arguments.hpp"
#include "output/json.hpp"
#include "output/text.hpp"
#include "tarvo.h"

#include <fmt/format.h>
#include <memory>
#include <optional>

// Answered from the records alone, by the library's own arithmetic: for a wrong address the library
// would end the process.

namespace tarvoctl {

namespace {

struct address_options {
    area_source source;
    std::string address;
    bool is_pa = false;
    bool is_dma = false;
    bool json = false;
};

bool lies_in(const dma_window& region, uint64_t pa) {
    return pa >= region.first_pa && pa < region.end_pa;
}

/// The chunks that hold the byte, in the order of the list: calls find the first one.
std::vector<const chunk_record*> owners_of(uint64_t pa, const picture& records) {
    std::vector<const chunk_record*> owners;
    for (const auto& each : records.chunks) {
        if (each.pa <= pa && pa < each.end_pa()) {
            owners.push_back(&each);
        }
    }
    return owners;
}

/// The physical address a DMA address stands for, if it lies in the region. Where DMA addresses
/// wrap, converting back would not do.
std::optional<uint64_t> pa_of_dma(uint64_t address, const dma_window& region) {
    if (address > UINT32_MAX) {
        return std::nullopt;
    }
    const uint64_t pa = region.pa_of(static_cast<uint32_t>(address));
    return lies_in(region, pa) ? std::optional{pa} : std::nullopt;
}

std::string region_text(const dma_window& region) {
    return fmt::format("the region is DMA {}, physical {}",
                       dma_range(region, region.first_pa, region.end_pa),
                       pa_range(region.first_pa, region.end_pa));
}

[[noreturn]] void refuse_outside(const std::string& address, const char* kind,
                                 const picture& records, const area_source& source) {
    const bool is_sound = report_damage(records.damage, source) == exit_status::good;
    throw failure{is_sound ? exit_status::usage : exit_status::damaged,
                  fmt::format("{} address {} is not in the region; {}", kind, address,
                              region_text(records.region))};
}

uint64_t pa_by_reading(const address_options& options, const picture& records) {
    const dma_window& region = known_region(records, options.source);
    const uint64_t address = parse_number(options.address, "ADDRESS", UINT64_MAX);
    const auto as_dma = options.is_pa ? std::nullopt : pa_of_dma(address, region);
    const bool as_pa = !options.is_dma && lies_in(region, address);
    if (as_dma && as_pa && *as_dma != address) {
        throw failure{exit_status::usage,
                      fmt::format("{} is a DMA address and a physical one; say --dma or --pa",
                                  options.address)};
    }
    if (!as_dma && !as_pa) {
        const char* const kind = options.is_pa    ? "physical"
                                 : options.is_dma ? "DMA"
                                                  : "DMA or physical";
        refuse_outside(options.address, kind, records, options.source);
    }
    return as_dma ? *as_dma : address;
}

json json_owner(const chunk_record& owner, uint64_t pa, const picture& records) {
    return {{"chunk", json_chunk(owner, records)}, {"offset", pa - owner.pa}};
}

json json_place(const char* command, uint64_t pa, const picture& records) {
    const auto owners = owners_of(pa, records);
    json document = json_document(command, records);
    document["dma"] = json_address(records.region.dma_of(pa));
    document["pa"] = json_address(pa);
    document.update(owners.empty() ? json{{"chunk", nullptr}, {"offset", nullptr}}
                                   : json_owner(*owners.front(), pa, records));
    document["also_in"] = json::array();
    for (size_t i = 1; i < owners.size(); ++i) {
        document["also_in"].push_back(json_owner(*owners[i], pa, records));
    }
    document["damage"] = records.damage;
    return document;
}

std::string place_text(uint64_t pa, const picture& records) {
    const auto owners = owners_of(pa, records);
    if (owners.empty()) {
        return records.all_chunks ? "in no chunk" : "in no chunk that could be read";
    }
    std::string text;
    for (const auto* owner : owners) {
        text += fmt::format("{} '{}', offset {:#x} of {}", text.empty() ? "in" : ", and in",
                            shown_name(owner->name), pa - owner->pa, size_text(owner->size));
    }
    return text;
}

exit_status find(const address_options& options) {
    const picture records = read_picture(options.source);
    const uint64_t dma = parse_number(options.address, "DMA", UINT32_MAX);
    const auto pa = pa_of_dma(dma, known_region(records, options.source));
    if (!pa) {
        refuse_outside(options.address, "DMA", records, options.source);
    }
    if (options.json) {
        print_json(json_place("find", *pa, records));
    } else {
        fmt::print("DMA {} is {}\n", dma_text(static_cast<uint32_t>(dma)),
                   place_text(*pa, records));
    }
    const exit_status read = report_damage(records.damage, options.source);
    const bool found = !owners_of(*pa, records).empty();
    return read == exit_status::good && !found ? exit_status::finding : read;
}

exit_status translate(const address_options& options) {
    const picture records = read_picture(options.source);
    const uint64_t pa = pa_by_reading(options, records);
    if (options.json) {
        print_json(json_place("translate", pa, records));
    } else {
        fmt::print("{}, {}\n", address_text(pa, records.region), place_text(pa, records));
    }
    return report_damage(records.damage, options.source);
}

exit_status limits(const address_options& options) {
    const picture records = read_picture(options.source);
    const dma_window& region = known_region(records, options.source);
    if (options.json) {
        json document = json_document("limits", records);
        document["region"] = json_region(records);
        document["bookkeeping_bytes"] = tarvo_get_overhead();
        print_json(document);
    } else {
        fmt::print("DMA          {}\nphysical     {}\nsize         {}\nbookkeeping  {}\n",
                   dma_range(region, region.first_pa, region.end_pa),
                   pa_range(region.first_pa, region.end_pa),
                   size_with_bytes(region.end_pa - region.first_pa),
                   size_with_bytes(tarvo_get_overhead()));
    }
    return report_damage(records.damage, options.source);
}

void question_words(command_words& words, address_options& options) {
    words.json(options.json);
    words.source(options.source);
}

} // namespace

template <>
action set_up<entry_of("find")>(command_words& words) {
    const auto options = std::make_shared<address_options>();
    question_words(words, *options);
    words.word("DMA", options->address, "such as 0x20001000");
    return [options] { return find(*options); };
}

template <>
action set_up<entry_of("translate")>(command_words& words) {
    const auto options = std::make_shared<address_options>();
    question_words(words, *options);
    words.word("ADDRESS", options->address, "such as 0x20001000");
    words.flag("--pa", options->is_pa, "it is a physical address");
    words.flag("--dma", options->is_dma, "it is a DMA address");
    words.exclude("--pa", "--dma");
    return [options] { return translate(*options); };
}

template <>
action set_up<entry_of("limits")>(command_words& words) {
    const auto options = std::make_shared<address_options>();
    question_words(words, *options);
    return [options] { return limits(*options); };
}

} // namespace tarvoctl
