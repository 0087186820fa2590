#include "area/gaps.hpp"
#include "commands/commands.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/area_source.hpp"
#include "host/file_shortage.hpp"
#include "library/arguments.hpp"
#include "library/library_call.hpp"
#include "library/new_chunk.hpp"
#include "library/ready_area.hpp"
#include "output/json.hpp"
#include "output/text.hpp"
#include "tarvo.h"
#include "tarvo/chunk.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

struct alloc_options {
    std::string name;
    std::string size;
    std::string creator = "tarvoctl";
    std::chrono::milliseconds timeout = area_source{}.timeout;
    bool duplicate = false;
    bool json = false;
};

void check_existing(const chunk_record* existing, uint32_t size, bool duplicate) {
    if (existing == nullptr || existing->size == size || duplicate) {
        return;
    }
    throw failure{exit_status::usage,
                  fmt::format("there is a chunk '{}' of {}, not {}; ask for that size, or "
                              "for a second chunk of the name with --duplicate",
                              shown(existing->name), size_with_bytes(existing->size),
                              size_with_bytes(size))};
}

failure no_room(const std::string& name, const std::string& obstacle) {
    return {exit_status::finding,
            fmt::format("no room for '{}': {}; see 'tarvoctl map'", shown(name), obstacle)};
}

/// The library zeroes a new chunk once it is on the list: without room for that its process ends,
/// and the chunk stays.
void check_memory(const site& here, uint32_t size, const picture& records) {
    const auto place = first_fit(gaps_of(records), size);
    if (place) {
        refuse_shortage(chunk_without_room(here, place->pa, size), exit_status::unreadable);
    }
}

/// What the library would refuse, or not survive, is refused before it touches any file.
void check_new_chunk(const std::string& name, uint32_t size, const picture& records) {
    const site here = find_site();
    if (const auto obstacle = obstacle_to(size, records, here.is_cma())) {
        throw no_room(name, *obstacle);
    }
    check_memory(here, size, records);
}

/// Why the library gave nothing, as far as the records show afterwards.
failure refusal(const std::string& name, uint32_t size, const picture& records) {
    const bool is_cma = find_site().is_cma();
    if (const auto obstacle = obstacle_to(size, records, is_cma)) {
        return no_room(name, *obstacle);
    }
    if (is_cma) {
        return {exit_status::finding,
                fmt::format("the kernel driver gave no place for {}", size_text(size))};
    }
    return {exit_status::finding, "the library allocated nothing; its reason is above"};
}

const chunk_record& chunk_at(uint64_t pa, const std::string& name, const picture& records) {
    const auto found = std::ranges::find_if(records.chunks, [&](const chunk_record& each) {
        return each.pa == pa && each.name == name;
    });
    if (found == records.chunks.end()) {
        throw failure{exit_status::finding,
                      fmt::format("the chunk '{}' was allocated, and freed again at once by "
                                  "another process",
                                  shown(name))};
    }
    return *found;
}

void print_chunk(const chunk_record& chunk, const picture& records, bool is_shared, bool as_json) {
    if (as_json) {
        json document = json_document("alloc");
        document["shared"] = is_shared;
        document["chunk"] = json_chunk(chunk, records);
        print_json(document);
    } else {
        fmt::print("{}: {}, {} at {}\n", shown_name(chunk.name),
                   is_shared ? "shared, it was there" : "new", size_text(chunk.size),
                   address_text(chunk.pa, records.region));
    }
}

uint32_t alloc_uninterrupted(const alloc_options& options, uint32_t size) {
    const change_of_records uninterrupted;
    return tarvo_alloc_func(options.name.c_str(), size, options.creator.c_str());
}

exit_status call_alloc(const alloc_options& options, uint32_t size, const picture& before) {
    const uint32_t dma = alloc_uninterrupted(options, size);
    const picture after = read_picture({{}, options.timeout});
    if (dma == 0) {
        throw refusal(options.name, size, after);
    }
    const chunk_record& chunk = chunk_at(after.region.pa_of(dma), options.name, after);
    const bool is_shared = std::ranges::any_of(before.chunks, [&chunk](const auto& each) {
        return each.index == chunk.index && each.name == chunk.name && each.pa == chunk.pa;
    });
    print_chunk(chunk, after, is_shared, options.json);
    return exit_status::good;
}

exit_status alloc(const alloc_options& options) {
    check_new_name(options.name);
    check_creator(options.creator);
    const uint32_t size = parse_chunk_size(options.size, "SIZE");
    const picture before = ready_or_new_area(options.timeout);
    const chunk_record* const existing = before.find(options.name);
    check_existing(existing, size, options.duplicate);
    if (existing == nullptr || existing->size != size) {
        check_new_chunk(options.name, size, before);
    }
    return in_started_library(options.timeout, [&] { return call_alloc(options, size, before); });
}

} // namespace

template <>
action set_up<entry_of("alloc")>(command_words& words) {
    const auto options = std::make_shared<alloc_options>();
    words.word("NAME", options->name, fmt::format("1 to {} bytes", tarvo::longest_name));
    words.word("SIZE", options->size, "such as 64K, 2M, 0x1000; whole pages are taken");
    words.option(
        "--creator", "TEXT", options->creator,
        fmt::format("who allocates, 1 to {} bytes; default 'tarvoctl'", tarvo::longest_creator));
    words.flag("--duplicate", options->duplicate,
               "where the name has another size: make a second chunk of it");
    words.json(options->json);
    words.timeout(options->timeout);
    return [options] { return alloc(*options); };
}

} // namespace tarvoctl
