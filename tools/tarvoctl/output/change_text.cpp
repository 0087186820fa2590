#include "output/change_text.hpp"

#include "output/text.hpp"
#include "quantities.hpp"

#include <fmt/format.h>

namespace tarvoctl {

namespace {

std::string device_named(const change& told) {
    if (told.device)
        return device_text(*told.device);
    return fmt::format("device record {}, which is not registered", told.device_index);
}

std::string chunk_described(const chunk_record& chunk) {
    return fmt::format("{}: {} at physical {}, creator {}", shown(chunk.name),
                       size_text(chunk.size), pa_text(chunk.pa), shown(chunk.creator));
}

std::string what_changed(const change& told) {
    if (told.more > 0) {
        return fmt::format("and {} more, which are not listed", told.more);
    }
    switch (told.kind) {
    case change_kind::freed:
    case change_kind::allocated:
        return chunk_described(told.chunk());
    case change_kind::moved:
        return fmt::format("{}: from physical {} to {}", shown(told.chunk().name),
                           pa_text(told.before->pa), pa_text(told.after->pa));
    case change_kind::resized:
        return fmt::format("{}: from {} to {}", shown(told.chunk().name),
                           size_text(told.before->size), size_text(told.after->size));
    case change_kind::mapped:
    case change_kind::unmapped:
        return fmt::format("{}: for {}", shown(told.chunk().name), device_named(told));
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
    const bool is_other = told.kind == change_kind::moved || told.kind == change_kind::resized;
    made["before"] = is_other ? json_changed_chunk(*told.before) : json(nullptr);
    made["device"] = told.device ? json(device_text(*told.device)) : json(nullptr);
    made["device_index"] = told.device_index >= 0 ? json(told.device_index) : json(nullptr);
    if (told.more > 0) {
        made["more"] = told.more;
    }
    return made;
}

} // namespace tarvoctl
