#include "output/place_text.hpp"

#include "area/raw_records.hpp"
#include "area/records.hpp"
#include "output/text.hpp"

#include <fmt/format.h>
#include <optional>

namespace tarvoctl {

namespace {

/// Null where it is in no chunk.
const dma_chunk_t* chunk_of(const place& where, const shared_area_t& area) {
    const bool in_chunk = where.list == area_list::chunks || where.list == area_list::refs;
    const bool exists = where.element >= 0 && where.element < chunk_capacity;
    return in_chunk && exists ? &area.chunks._arr[where.element] : nullptr;
}

std::string label_of(const dma_chunk_t& chunk) {
    const std::string name{text_up_to_end(chunk.name)};
    const std::string creator{text_up_to_end(chunk.creator)};
    return (name.empty() ? "" : fmt::format(" '{}'", shown(name))) +
           (creator.empty() ? "" : fmt::format(" (creator {})", shown(creator)));
}

/// Nothing for an element that is not in use: a free one holds no address.
std::optional<std::string> device_of(const place& where, const shared_area_t& area) {
    const bool exists = where.element >= 0 && where.element < device_capacity;
    if (where.list != area_list::devices || !exists) {
        return std::nullopt;
    }
    const iommu_dev_t& device = area.devices._arr[where.element];
    return device.allocated == 0 ? std::nullopt
                                 : std::optional{device_text(record_of(where.element, device))};
}

/// The chunk's name and creator; null for a place in no chunk.
json json_label(const place& where, const shared_area_t& area) {
    const dma_chunk_t* const chunk = chunk_of(where, area);
    if (chunk == nullptr) {
        return nullptr;
    }
    json made = json::object();
    add_text(made, "name", std::string{text_up_to_end(chunk->name)});
    add_text(made, "creator", std::string{text_up_to_end(chunk->creator)});
    return made;
}

} // namespace

std::string place_text(const place& where, const shared_area_t& area) {
    if (const auto device = device_of(where, area)) {
        return text_of(where, fmt::format(" ({})", *device));
    }
    const dma_chunk_t* const chunk = chunk_of(where, area);
    return text_of(where, chunk != nullptr ? label_of(*chunk) : "");
}

std::string finding_text(const finding& each, const shared_area_t& area) {
    return fmt::format("{}: {} [{}]", place_text(each.where, area), shown(each.text), each.rule);
}

json json_place(const place& where, const shared_area_t& area) {
    const auto device = device_of(where, area);
    return {{"where", text_of(where)},
            {"chunk", json_label(where, area)},
            {"device", device ? json(*device) : json(nullptr)},
            {"element", where.element},
            {"reference", where.ref}};
}

json json_findings(const std::vector<finding>& findings, const shared_area_t& area) {
    return json_list(findings, [&](const finding& each) {
        json made{{"class", name_of(each.cls)}, {"rule", each.rule}};
        made.update(json_place(each.where, area));
        made["text"] = each.text;
        made["unlisted"] = each.unlisted;
        return made;
    });
}

} // namespace tarvoctl
