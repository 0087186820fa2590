#include "output/json.hpp"

#include "output/text.hpp"

#include <cstdio>
#include <fmt/format.h>

namespace tarvoctl {

namespace {

/// Of share/tarvo/tarvoctl.schema.json. Counted up when a reader of the old one would be misled.
constexpr int schema_number = 1;

void print(const json& document, int indentation) {
    fmt::print("{}\n", document.dump(indentation, ' ', false, json::error_handler_t::replace));
}

json json_reference(int index, const picture& records) {
    const device_record* const device = records.device_at(index);
    json made{{"index", index}, {"registered", device != nullptr}};
    made["device"] = device != nullptr ? json(device_text(*device)) : json(nullptr);
    made["online"] = device != nullptr ? json(device->online) : json(nullptr);
    return made;
}

} // namespace

json json_document(std::string_view command) {
    return {{"schema", schema_number}, {"command", command}};
}

json json_document(std::string_view command, const picture& records) {
    json made = json_document(command);
    made["consistent"] = records.consistent;
    return made;
}

json json_address(uint64_t address) {
    return {{"number", address}, {"hex", fmt::format("{:#x}", address)}};
}

json json_dma(uint64_t pa, const picture& records) {
    return records.has_region() ? json_address(records.region.dma_of(pa)) : json(nullptr);
}

json json_region(const picture& records) {
    if (!records.has_region())
        return nullptr;
    const dma_window& region = records.region;
    return {{"pa", json_address(region.first_pa)},
            {"pa_end", json_address(region.end_pa - 1)},
            {"dma", json_address(region.dma_of(region.first_pa))},
            {"dma_end", json_address(region.dma_of(region.end_pa - 1))},
            {"size", region.end_pa - region.first_pa}};
}

json json_device(const device_record& device) {
    return {{"index", device.index}, {"device", device_text(device)}, {"domain", device.domain},
            {"bus", device.bus},     {"devfn", device.devfn},         {"online", device.online}};
}

void add_text(json& to, const std::string& key, const std::string& text) {
    to[key] = text;
    if (is_utf8(text))
        return;
    std::string digits;
    for (const char each : text)
        digits += fmt::format("{:02x}", static_cast<unsigned char>(each));
    to[key + "_bytes"] = digits;
}

json json_chunk(const chunk_record& chunk, const picture& records) {
    json made{{"index", chunk.index}};
    add_text(made, "name", chunk.name);
    made["dma"] = json_dma(chunk.pa, records);
    made["dma_end"] = json_dma(chunk.end_pa() - 1, records);
    made["pa"] = json_address(chunk.pa);
    made["pa_end"] = json_address(chunk.end_pa() - 1);
    made["size"] = chunk.size;
    add_text(made, "creator", chunk.creator);
    made["devices"] = json::array();
    for (const int index : chunk.devices)
        made["devices"].push_back(json_reference(index, records));
    return made;
}

void print_json(const json& document) {
    constexpr int indentation = 2;
    print(document, indentation);
}

void print_json_line(const json& document) {
    print(document, -1);
}

} // namespace tarvoctl
