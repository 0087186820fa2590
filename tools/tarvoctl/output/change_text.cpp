#include "output/change_text.hpp"

#include "common/quantities.hpp"
#include "output/text.hpp"

#include <fmt/format.h>

namespace tarvoctl {

namespace {

std::string device_named(const change& each) {
    if (each.device) {
        return device_text(*each.device);
    }
    return fmt::format("device record {}, which is not registered", each.device_index);
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

std::string what_changed(const change& each) {
    if (each.more > 0) {
        return fmt::format("and {} more, which are not listed", each.more);
    }
    switch (each.kind) {
    case change_kind::freed:
    case change_kind::allocated:
        return fmt::format("{}: {}", shown_name(each.chunk().name),
                           place_and_creator(each.chunk()));
    case change_kind::replaced:
        return fmt::format("{}: {}; {}", shown_name(each.chunk().name),
                           place_and_creator(*each.before), now_text(*each.before, *each.after));
    case change_kind::mapped:
    case change_kind::unmapped:
        return fmt::format("{}: for {}", shown_name(each.chunk().name), device_named(each));
    default:
        return device_named(each);
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

std::string change_text(const change& each) {
    return fmt::format("{:<12}  {}", change_word(each.kind), what_changed(each));
}

json json_change(const change& each) {
    json made{{"change", change_word(each.kind)}};
    const bool is_of_chunk = each.before || each.after;
    made["chunk"] = is_of_chunk ? json_changed_chunk(each.chunk()) : json(nullptr);
    const bool is_other = each.kind == change_kind::replaced;
    made["before"] = is_other ? json_changed_chunk(*each.before) : json(nullptr);
    made["device"] = each.device ? json(device_text(*each.device)) : json(nullptr);
    made["device_index"] = each.device_index >= 0 ? json(each.device_index) : json(nullptr);
    if (each.more > 0) {
        made["more"] = each.more;
    }
    return made;
}

} // namespace tarvoctl
