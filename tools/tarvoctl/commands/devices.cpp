#include "commands/commands.hpp"
#include "commands/named_chunks.hpp"
#include "common/quantities.hpp"
#include "output/json.hpp"
#include "output/table.hpp"
#include "output/text.hpp"

#include <fmt/format.h>
#include <map>
#include <memory>

namespace tarvoctl {

namespace {

struct devices_options {
    area_source source;
    bool json = false;
};

/// For each element number that a chunk refers to, the chunks that do.
using references = std::map<int, std::vector<const chunk_record*>>;

references references_in(const picture& records) {
    references found;
    for (const auto& chunk : records.chunks) {
        for (const int index : chunk.devices) {
            found[index].push_back(&chunk);
        }
    }
    return found;
}

/// Leaves those that point at no registered device.
references dangling(references all, const picture& records) {
    for (const auto& device : records.devices) {
        all.erase(device.index);
    }
    return all;
}

void print_as_table(const picture& records, const references& all) {
    table lines{{{"INDEX", align::right}, {"DEVICE"}, {"STATE"}, {"CHUNKS", align::right}}};
    for (const auto& device : records.devices) {
        const auto found = all.find(device.index);
        const size_t chunks = found == all.end() ? 0 : found->second.size();
        lines.add({fmt::format("{}", device.index), device_text(device),
                   device.online ? "online" : "offline",
                   fmt::format("{}/{}", chunks, records.chunks.size())});
    }
    fmt::print("{}", lines.text());
    for (const auto& [index, chunks] : dangling(all, records)) {
        const bool one = chunks.size() == 1;
        fmt::print(
            "device record {} is not registered, yet {} {} to it, and the next device in that "
            "record inherits {}:",
            index, counted(chunks.size(), "chunk"), one ? "refers" : "refer", one ? "it" : "them");
        for (const auto* chunk : chunks) {
            fmt::print(" {}", shown_name(chunk->name));
        }
        fmt::print("\n");
    }
}

void print_as_json(const picture& records, references all) {
    json document = json_document("devices", records);
    document["devices"] = json_list(records.devices, [&](const device_record& each) {
        json made = json_device(each);
        made["chunks"] = json_names(all[each.index]);
        return made;
    });
    document["left_over_references"] = json_list(dangling(all, records), [](const auto& each) {
        return json{{"index", each.first}, {"chunks", json_names(each.second)}};
    });
    document["damage"] = records.damage;
    print_json(document);
}

exit_status devices(const devices_options& options) {
    const picture records = read_picture(options.source);
    if (options.json) {
        print_as_json(records, references_in(records));
    } else {
        print_as_table(records, references_in(records));
    }
    return report_damage(records.damage, options.source);
}

} // namespace

template <>
action set_up<entry_of("devices")>(command_words& words) {
    const auto options = std::make_shared<devices_options>();
    words.json(options->json);
    words.source(options->source);
    return [options] { return devices(*options); };
}

} // namespace tarvoctl
