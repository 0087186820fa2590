#include "commands/commands.hpp"
#include "common/quantities.hpp"
#include "host/mappings.hpp"
#include "host/running_programs.hpp"
#include "output/json.hpp"
#include "output/process_text.hpp"
#include "output/text.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <memory>

namespace tarvoctl {

namespace {

struct leaks_options {
    area_source source;
    bool all = false;
    bool json = false;
};

/// A chunk that nobody seems to need any more, with the reasons for and against that.
struct suspected_leak {
    const chunk_record* chunk;
    std::vector<std::string> reasons;
    std::vector<std::string> doubts;
};

class leak_search {
  public:
    leak_search(const picture& records, const mapped_memory& memory, process_table& processes)
        : _records{records}, _processes{processes}, _seen_only{seen_only_text(memory)} {
        for (const auto& mapping : memory.mappings) {
            if (!shows_all_of(mapping, records.region)) {
                _partial.push_back(&mapping);
            } else if (_whole_region.empty() || _whole_region.back() != mapping.pid) {
                _whole_region.push_back(mapping.pid);
            }
        }
    }

    std::vector<suspected_leak> suspects() {
        std::vector<suspected_leak> found;
        for (const auto& chunk : _records.chunks) {
            if (!is_mapped(chunk) && !_programs.may_include(chunk.creator)) {
                found.push_back({&chunk, reasons_of(chunk), doubts_of(chunk)});
            }
        }
        return found;
    }

  private:
    /// Mappings of the whole region show every chunk, and so say nothing about any.
    bool is_mapped(const chunk_record& chunk) const {
        return std::ranges::any_of(_partial, [&chunk](const auto* mapping) {
            return shown_of(*mapping, chunk.pa, chunk.end_pa()).has_value();
        });
    }

    std::vector<std::string> reasons_of(const chunk_record& chunk) const {
        const std::string creator = shown(chunk.creator);
        std::vector<std::string> reasons{
            fmt::format("no process{} has it mapped{}", _seen_only,
                        _whole_region.empty() ? "" : " by itself"),
            chunk.creator.empty()
                ? "nobody is named as its creator"
                : fmt::format("no program{} called '{}' runs", _seen_only, creator)};
        if (chunk.devices.empty()) {
            reasons.emplace_back("it is mapped for no device");
        }
        return reasons;
    }

    std::vector<std::string> doubts_of(const chunk_record& chunk) {
        std::vector<std::string> doubts;
        if (const std::string online = online_devices_of(chunk); !online.empty()) {
            doubts.push_back("mapped for " + online + ", which may be using it");
        }
        if (!looks_like_a_program(chunk.creator)) {
            doubts.push_back(fmt::format("its creator '{}' is not the name of a program, so "
                                         "whether that program runs is unknown",
                                         shown(chunk.creator)));
        }
        if (!_whole_region.empty()) {
            doubts.push_back("seen through a mapping of the whole region by " +
                             processes_text(_whole_region, _processes));
        }
        return doubts;
    }

    std::string online_devices_of(const chunk_record& chunk) const {
        std::string made;
        for (const int index : chunk.devices) {
            const device_record* const device = _records.device_at(index);
            if (device != nullptr && device->online) {
                made += (made.empty() ? "" : ", ") + device_text(*device);
            }
        }
        return made;
    }

    const picture& _records;
    process_table& _processes;
    const char* _seen_only;
    running_programs _programs;
    std::vector<const region_mapping*> _partial;
    std::vector<pid_t> _whole_region;
};

uint64_t bytes_of(const std::vector<suspected_leak>& found) {
    uint64_t bytes = 0;
    for (const auto& each : found) {
        bytes += each.chunk->size;
    }
    return bytes;
}

void print_reasons(const char* heading, const std::vector<std::string>& reasons) {
    for (const auto& each : reasons) {
        fmt::print("  {:9}{}\n", heading, each);
    }
}

/// The largest, in ascending address as before.
void keep_largest(std::vector<suspected_leak>& found, size_t most) {
    std::ranges::stable_sort(found, std::greater{},
                             [](const suspected_leak& each) { return each.chunk->size; });
    found.resize(std::min(found.size(), most));
    std::ranges::sort(found, {}, [](const suspected_leak& each) { return each.chunk->pa; });
}

/// The summary comes last, where it is seen on a terminal that scrolls.
void print_for_people(const std::vector<suspected_leak>& found, bool all) {
    constexpr size_t most_listed = 20;
    if (found.empty()) {
        fmt::print("No suspects: of every chunk, a process has it mapped or its creator runs\n");
        return;
    }
    std::vector<suspected_leak> listed = found;
    if (!all) {
        keep_largest(listed, most_listed);
    }
    for (const auto& each : listed) {
        fmt::print("{}  {}, created by {}\n", shown_name(each.chunk->name),
                   size_text(each.chunk->size), shown_name(each.chunk->creator));
        print_reasons("for", each.reasons);
        print_reasons("against", each.doubts);
    }
    if (listed.size() < found.size()) {
        fmt::print("\nThe {} largest of {} suspects; 'tarvoctl leaks --all' lists all\n",
                   listed.size(), found.size());
    }
    fmt::print("\n{}, {} in all; nothing was freed. A chunk belongs to no process: ask "
               "who else expects it, then 'tarvoctl free NAME'\n",
               counted(found.size(), "suspect"), size_text(bytes_of(found)));
}

void print_as_json(const std::vector<suspected_leak>& found, const picture& records,
                   const mapped_memory& memory) {
    json document = json_document("leaks", records);
    document["suspects"] = json_list(found, [&](const suspected_leak& each) {
        json made = json_chunk(*each.chunk, records);
        made["for"] = each.reasons;
        made["against"] = each.doubts;
        return made;
    });
    document["size"] = bytes_of(found);
    document["unseen"] = json_unseen(memory);
    document["damage"] = records.damage;
    print_json(document);
}

exit_status leaks(const leaks_options& options) {
    // In this order: the program of a chunk that is on record was there before the look at the
    // processes. The other way round every chunk made in between would be suspected.
    const picture records = read_picture(options.source);
    const mapped_memory memory = mappings_of(find_site());
    process_table processes;
    const auto found = leak_search{records, memory, processes}.suspects();
    if (options.json) {
        print_as_json(found, records, memory);
    } else {
        print_for_people(found, options.all);
        if (!memory.is_complete()) {
            fmt::print(stderr, "tarvoctl: {}\n", unseen_text(memory, processes));
        }
    }
    const exit_status damage = report_damage(records.damage, options.source);
    return damage == exit_status::good && !found.empty() ? exit_status::finding : damage;
}

} // namespace

template <>
action set_up<entry_of("leaks")>(command_words& words) {
    const auto options = std::make_shared<leaks_options>();
    words.flag("--all", options->all, "list all suspects, not the 20 largest alone");
    words.json(options->json);
    words.live(options->source);
    return [options] { return leaks(*options); };
}

} // namespace tarvoctl
