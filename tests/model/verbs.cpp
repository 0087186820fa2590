#include "verbs.hpp"

#include "client.hpp"

#include <algorithm>

namespace model {

namespace {

constexpr uint64_t most_bytes_by_number = 0x100000;
constexpr unsigned not_written = 0xdeadbeef;

std::string shown_mapping(const machine_state& machine, const mapping& one) {
    return (one.writable ? "rw-s " : "r--s ") + hexadecimal(one.pa) + " " +
           machine.where.memory_path();
}

std::string alloc(const verb_context& c) {
    return hexadecimal(c.tarvo.alloc(c.what.words[0], c.what.number(1), c.what.words[2]));
}

std::string free_chunk(const verb_context& c) {
    return std::to_string(c.tarvo.free(c.what.words[0]));
}

/// map LABEL NAME WRITABLE OFFSET SIZE
std::string map(const verb_context& c) {
    const auto made =
        c.tarvo.map(c.what.words[1], c.what.number(2) != 0, c.what.number(3), c.what.number(4));
    if (!made) {
        return "null";
    }
    c.caller.mappings.insert_or_assign(c.what.word(0), *made);
    return shown_mapping(c.machine, *made);
}

bool is_number(const std::string& word) {
    return word.front() >= '0' && word.front() <= '9';
}

/// unmap NAME LABEL SIZE, or an address that is not mapped in place of the label
std::string unmap(const verb_context& c) {
    const auto& target = c.what.words[1];
    const auto& name = c.what.words[0];
    const uint64_t size = c.what.number(2);
    if (!target || is_number(*target)) {
        const uint64_t va = target ? c.what.number(1) : 0;
        return std::to_string(c.tarvo.unmap(name, va, size, hexadecimal(va)));
    }
    const uint64_t mapped_before = c.caller.held.memory_bytes;
    // Wherever it is, it starts on a page.
    const int result = c.tarvo.unmap(name, page_bytes(), size, *target);
    if (c.caller.held.memory_bytes == mapped_before) {
        return std::to_string(result) + " kept";
    }
    c.caller.mappings.erase(*target);
    return std::to_string(result) + " gone";
}

uint64_t page_pa(const verb_context& c) {
    return c.caller.mappings.at(c.what.word(0)).pa + pages(c.what.number(1));
}

/// write LABEL PAGE BYTE
std::string write(const verb_context& c) {
    c.machine.pages[page_pa(c)] = static_cast<uint8_t>(c.what.number(2));
    return "done";
}

/// look LABEL PAGE
std::string look(const verb_context& c) {
    const auto filled = c.machine.pages.find(page_pa(c));
    const std::string byte =
        text_of("%02x", unsigned{filled == c.machine.pages.end() ? uint8_t{} : filled->second});
    std::string bytes;
    for (uint64_t i = 0; i < page_bytes(); i++) {
        bytes += byte;
    }
    return bytes;
}

std::string find(const verb_context& c) {
    const library::answer seen = c.tarvo.find(c.what.number_32(0));
    return (seen.name ? ::quoted(*seen.name) : "null") + " " +
           hexadecimal(seen.chunk_dma.value_or(not_written));
}

std::string to_pa(const verb_context& c) {
    return hexadecimal(c.tarvo.dma_to_pa(c.what.number_32(0)));
}

std::string to_dma(const verb_context& c) {
    return hexadecimal(c.tarvo.pa_to_dma(c.what.number(0)));
}

std::string limits(const verb_context& c) {
    const auto range = c.tarvo.get_limits();
    return range ? text_of("0 0x%x 0x%x", range->start, range->end)
                 : text_of("-1 0x%x 0x%x", not_written, not_written);
}

std::string overhead(const verb_context& /*none*/) {
    return std::to_string(rounded_to_pages(content_bytes));
}

std::string map_all(const verb_context& c) {
    switch (c.tarvo.map_all()) {
    case library::whole_region::null:
        return "null";
    case library::whole_region::same:
        return "same";
    case library::whole_region::fresh:
        break;
    }
    return shown_mapping(c.machine, {c.machine.where.start, c.machine.where.bytes, true});
}

std::string unmap_all(const verb_context& c) {
    const uint64_t mapped_before = c.caller.held.memory_bytes;
    c.tarvo.unmap_all();
    return c.caller.held.memory_bytes != mapped_before ? "done gone" : "done kept";
}

device device_of(const step& one) {
    return {0, one.number_32(0), one.number_32(1), one.number_32(2), false};
}

std::string register_device(const verb_context& c) {
    return std::to_string(c.tarvo.register_device(device_of(c.what)));
}

std::string unregister_device(const verb_context& c) {
    return std::to_string(c.tarvo.unregister_device(device_of(c.what)));
}

std::string iommu_map(const verb_context& c) {
    return std::to_string(c.tarvo.iommu_map(device_of(c.what), c.what.number_32(3)));
}

std::string iommu_unmap(const verb_context& c) {
    return std::to_string(c.tarvo.iommu_unmap(device_of(c.what)));
}

std::string dump_begin(const verb_context& c) {
    return c.tarvo.dump_begin() ? "true" : "false";
}

std::string line_or_end(const std::optional<std::string>& line) {
    return line ? ::quoted(*line) : "end";
}

std::string dump_next(const verb_context& c) {
    return line_or_end(c.tarvo.dump_next(c.what.number(0)));
}

std::string dump_next_device(const verb_context& c) {
    return line_or_end(c.tarvo.dump_next_device(c.what.number(0)));
}

std::string dump_end(const verb_context& c) {
    return std::to_string(c.tarvo.dump_end());
}

/// fail CALL ERRNO NTH
std::string fail(const verb_context& c) {
    c.caller.refusals.push_back({c.what.word(0), error_number(c.what.word(1)), c.what.number(2)});
    return "done";
}

std::string fail_nothing(const verb_context& c) {
    c.caller.refusals.clear();
    return "done";
}

std::string shown_mapped(const char* path, uint64_t bytes) {
    return bytes == 0 ? "" : std::string(" ") + path + "*" + std::to_string(bytes);
}

/// The files of the machine that are open and mapped, and whether standard input is open.
std::string holdings_of(const verb_context& c) {
    const holdings& held = c.caller.held;
    std::multiset<std::string> open = held.descriptors;
    open.insert(held.lost.begin(), held.lost.end());
    std::string text = held.has_standard_input ? "input" : "no input";
    for (const std::string& path : open) {
        text += " " + path;
    }
    const world& where = c.machine.where;
    return text + shown_mapped(where.area_path(), held.area_bytes) +
           shown_mapped(where.memory_path(), held.memory_bytes);
}

const chunk* first_of_name(const machine_state& machine, const library::text& name) {
    const auto found = std::ranges::find_if(
        machine.area.chunks, [&](const chunk& one) { return name && one.name == *name; });
    return found == machine.area.chunks.end() ? nullptr : &*found;
}

/// A found chunk of no bytes is taken for a fresh one and linked after itself.
bool ends_in_a_circle(const machine_state& machine, const step& alloc) {
    const auto size = static_cast<uint32_t>(alloc.number(1));
    const chunk* const existing = first_of_name(machine, alloc.words[0]);
    return static_cast<uint32_t>(rounded_to_pages(size)) == 0 && existing != nullptr &&
           existing->size == 0;
}

/// Whether nothing but what the step means is unmapped: a client must not lose other memory.
bool unmaps_safely(const machine_state& machine, const process_state& caller, const step& one) {
    const chunk* const existing = first_of_name(machine, one.words[0]);
    if (!one.words[1] || existing == nullptr || one.number(2) > existing->size) {
        return !one.words[1] || is_number(one.word(1)) || caller.mappings.contains(one.word(1));
    }
    const uint64_t bytes = one.number(2) != 0 ? one.number(2) : existing->size;
    if (is_number(one.word(1))) {
        return bytes <= most_bytes_by_number;
    }
    const auto mapped = caller.mappings.find(one.word(1));
    return mapped != caller.mappings.end() && bytes != 0 &&
           rounded_to_pages(bytes) <= rounded_to_pages(mapped->second.bytes);
}

bool touches_mapped_page(const process_state& caller, const step& one) {
    const auto mapped = caller.mappings.find(one.word(0));
    return mapped != caller.mappings.end() && pages(one.number(1)) < mapped->second.bytes &&
           (one.verb == "look" || mapped->second.writable);
}

} // namespace

const verb* find_verb(const std::string& name) {
    static const std::vector<verb> all{
        {"alloc", 3, lock_use::always, alloc},
        {"free", 1, lock_use::always, free_chunk},
        {"map", 5, lock_use::always, map},
        {"unmap", 3, lock_use::always, unmap},
        {"write", 3, lock_use::never, write},
        {"look", 2, lock_use::never, look},
        {"find", 1, lock_use::always, find},
        {"to_pa", 1, lock_use::to_start, to_pa},
        {"to_dma", 1, lock_use::to_start, to_dma},
        {"limits", 0, lock_use::to_start, limits},
        {"overhead", 0, lock_use::never, overhead},
        {"map_all", 0, lock_use::to_start, map_all},
        {"unmap_all", 0, lock_use::never, unmap_all},
        {"register", 3, lock_use::always, register_device},
        {"unregister", 3, lock_use::always, unregister_device},
        {"iommu_map", 4, lock_use::to_start, iommu_map},
        {"iommu_unmap", 3, lock_use::always, iommu_unmap},
        {"dump_begin", 0, lock_use::always, dump_begin},
        {"dump_next", 1, lock_use::never, dump_next},
        {"dump_next_device", 1, lock_use::never, dump_next_device},
        {"dump_end", 0, lock_use::never, dump_end},
        {"fail", 3, lock_use::never, fail},
        {"fail_nothing", 0, lock_use::never, fail_nothing},
        {"holdings", 0, lock_use::never, holdings_of},
    };
    const auto found = std::ranges::find_if(all, [&](const verb& v) { return v.name == name; });
    return found == all.end() ? nullptr : &*found;
}

bool makes_sense(const machine_state& machine, const process_state& caller, const step& one) {
    if (one.verb == "alloc") {
        return !ends_in_a_circle(machine, one);
    }
    if (one.verb == "unmap") {
        return unmaps_safely(machine, caller, one);
    }
    if (one.verb == "write" || one.verb == "look") {
        return touches_mapped_page(caller, one);
    }
    // Nothing is promised to a process that never started.
    return one.verb != "dump_end" || caller.started;
}

} // namespace model
