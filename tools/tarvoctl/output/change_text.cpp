#include "output/change_text.hpp"

#include "output/text.hpp"
#include "quantities.hpp"

#include <fmt/format.h>

namespace tarvoctl {

namespace {

std::string device_named(const change& told) {
    if (told.device) {
        return device_text(*told.device);
    }
    return fmt::format("device record {}, which is not registered", told.device_index);
}

std::string place_and_creator(const chunk_record& chunk) {
    return fmt::format("{} at physical {}, creator {}", size_text(chunk.size), pa_text(chunk.pa),
                       shown_name(chunk.creator));
}

/// Another chunk of the name may look the same, and be another element.
std::string now_text(const chunk_record& before, const chunk_record& after) {
    const std::string now = place_and_creator(after);
    return place_and_creator(before) == now ? "allocated anew alike" : "now " + now;
}

std::string what_changed(const change& told) {
    if (told.more > 0) {
        return fmt::format("and {} more, which are not listed", told.more);
    }
    switch (told.kind) {
    case change_kind::freed:
    case change_kind::allocated:
        return fmt::format("{}: {}", shown_name(told.chunk().name),
                           place_and_creator(told.chunk()));
    case change_kind::replaced:
        return fmt::format("{}: {}; {}", shown_name(told.chunk().name),
                           place_and_creator(*told.before), now_text(*told.before, *told.after));
    case change_kind::mapped:
    case change_kind::unmapped:
        return fmt::format("{}: for {}", shown_name(told.chunk().name), device_named(told));
    default:
        return device_named(told);
    }
}

/// Without DMA addresses: a change does not know the region.
json json_changed_chunk(const chunk_record& chunk) {
    json made{{"index", chunk.index}};
    add_text(made, "name", chunk.name);
    made["pa"] = json_address(chunk.pa);
    made["size"] = chunk.size;
    add_text(made, "creator", chunk.creator);
    return made;
}

} // namespace

std::string change_text(const change& told) {
    return fmt::format("{:<12}  {}", change_word(told.kind), what_changed(told));
}

json json_change(const change& told) {
    json made{{"change", change_word(told.kind)}};
    const bool is_of_chunk = told.before || told.after;
    made["chunk"] = is_of_chunk ? json_changed_chunk(told.chunk()) : json(nullptr);
    const bool is_other = told.kind == change_kind::replaced;
    made["before"] = is_other ? json_changed_chunk(*told.before) : json(nullptr);
    made["device"] = told.device ? json(device_text(*told.device)) : json(nullptr);
    made["device_index"] = told.device_index >= 0 ? json(told.device_index) : json(nullptr);
    if (told.more > 0) {
        made["more"] = told.more;
    }
    return made;
}

} // namespace tarvoctl
