#include "output/json.hpp"

#include "common/shown.hpp"

#include <fmt/format.h>
#include <vector>

namespace tarvoctl {

namespace {

/// Of share/tarvo/tarvoctl.schema.json, whose description says when it rises.
constexpr int schema_number = 1;

json_layout chosen_layout = json_layout::readable;

std::string on_one_line(const json& value) {
    constexpr int no_indentation = -1;
    return value.dump(no_indentation, ' ', false, json::error_handler_t::replace);
}

/// What opens and closes it, with its parts between them, a line each.
std::string on_lines(char opening, const std::vector<std::string>& parts, char closing,
                     size_t indentation) {
    const std::string blanks(indentation, ' ');
    std::string made{opening};
    for (const auto& part : parts) {
        made += fmt::format("{}\n{}  {}", made.size() == 1 ? "" : ",", blanks, part);
    }
    return fmt::format("{}\n{}{}", made, blanks, closing);
}

std::string member_text(const std::string& key, const json& value) {
    constexpr size_t indentation = 2;
    std::vector<std::string> elements;
    if (value.is_array()) {
        for (const auto& each : value) {
            elements.push_back(on_one_line(each));
        }
    }
    return on_one_line(key) + ": " +
           (elements.empty() ? on_one_line(value) : on_lines('[', elements, ']', indentation));
}

/// The key of the status in the table of tarvoctl(1).
const char* word_of(exit_status status) {
    constexpr const char* words[] = {"good",       "finding", "usage",
                                     "unreadable", "damaged", "timed_out"};
    return words[static_cast<int>(status)];
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
    if (!records.has_region()) {
        return nullptr;
    }
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
    if (is_utf8(text)) {
        return;
    }
    std::string digits;
    for (const char each : text) {
        digits += fmt::format("{:02x}", static_cast<unsigned char>(each));
    }
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
    made["devices"] =
        json_list(chunk.devices, [&](int index) { return json_reference(index, records); });
    return made;
}

void lay_json_out(json_layout wanted) {
    chosen_layout = wanted;
}

std::string json_text(const json& document) {
    if (chosen_layout == json_layout::compact) {
        return on_one_line(document) + '\n';
    }
    std::vector<std::string> members;
    for (const auto& [key, value] : document.items()) {
        members.push_back(member_text(key, value));
    }
    return on_lines('{', members, '}', 0) + '\n';
}

void print_json(const json& document) {
    fmt::print("{}", json_text(document));
}

json json_error(std::string_view command, exit_status status, std::string_view message) {
    json made = json_document(command);
    if (command.empty()) {
        made["command"] = nullptr;
    }
    made["error"] = {
        {"status", static_cast<int>(status)}, {"kind", word_of(status)}, {"message", message}};
    return made;
}

} // namespace tarvoctl
