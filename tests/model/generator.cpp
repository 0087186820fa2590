#include "generator.hpp"

#include <algorithm>

namespace model {

namespace {

constexpr uint64_t most_bytes_to_zero = 0x100000;

/// Some regions have only 48 pages, so that they are full now and then; some are so large that
/// differences and DMA addresses no longer fit.
std::vector<std::string> regions_of(const std::string& world_name) {
    if (world_name == "low") {
        return {"", "80000000-8002ffff", "80000000-8002ffff", "40000000-dfffffff"};
    }
    if (world_name == "high") {
        return {"", "200000000-20002ffff", "200000000-20002ffff", "200000000-2efffffff"};
    }
    if (world_name == "crossing") {
        return {"", "fffe8000-100017fff", "fffe8000-100017fff", "fffd0000-ffffffff"};
    }
    if (world_name == "cma") {
        return {"", "100000000-10002ffff", "100000000-10002ffff"};
    }
    return {""};
}

/// How much one kind of step is wanted.
struct wish {
    const char* verb;
    unsigned weight;
};

const std::vector<wish>& usual_wishes() {
    static const std::vector<wish> wishes{
        {"alloc", 28},     {"free", 15},      {"map", 9},         {"unmap", 6},
        {"write", 4},      {"look", 5},       {"find", 5},        {"to_pa", 2},
        {"to_dma", 2},     {"limits", 1},     {"overhead", 1},    {"register", 9},
        {"unregister", 5}, {"iommu_map", 2},  {"iommu_unmap", 2}, {"map_all", 2},
        {"unmap_all", 2},  {"dump_begin", 2}, {"dump_next", 1},   {"dump_next_device", 1},
        {"kill", 1},       {"quit", 2}};
    return wishes;
}

/// In the middle of a listing.
const std::vector<wish>& listing_wishes() {
    static const std::vector<wish> wishes{
        {"dump_next", 6}, {"dump_next_device", 4}, {"dump_end", 3},  {"alloc", 1},
        {"free", 1},      {"unregister", 1},       {"dump_begin", 1}};
    return wishes;
}

std::string choose(const std::vector<wish>& wishes, chance& dice) {
    unsigned total = 0;
    for (const wish& one : wishes) {
        total += one.weight;
    }
    uint64_t left = dice.below(total);
    for (const wish& one : wishes) {
        if (left < one.weight) {
            return one.verb;
        }
        left -= one.weight;
    }
    return wishes.back().verb;
}

std::vector<std::optional<std::string>> as_words(const std::vector<std::string>& texts) {
    return {texts.begin(), texts.end()};
}

} // namespace

playground choose_playground(const std::string& world_name, uint64_t seed, int processes) {
    // Not the numbers that the steps are made from.
    chance dice(~seed);
    playground chosen{world_name, dice.any_of(regions_of(world_name)), processes};
    if (processes == 0) {
        chosen.processes = static_cast<int>(1 + dice.below(4));
    }
    return chosen;
}

const std::vector<pci_triple>& all_devices() {
    static const std::vector<pci_triple> all{
        {0, 3, 0}, {0, 3, 1}, {0, 3, 0x10}, {1, 0x80, 0xff}, {0x1234, 0xff, 8}};
    return all;
}

/// Few, so that they are shared, freed twice and used for several chunks.
std::vector<std::string> all_names(const world& where) {
    std::vector<std::string> all{"rx_ring", "tx", "50%s%n%x", "gr\u00f6\u00dfe",
                                 "a_name_of_49_bytes_which_is_the_longest_there_is!"};
    if (!where.cma) {
        all.emplace_back("two \"words\\");
    }
    return all;
}

step generator::next(const prediction& now) {
    for (;;) {
        step proposed = propose(now);
        if (now.is_applicable(proposed) && is_worthwhile(now, proposed)) {
            return proposed;
        }
    }
}

/// Clients that die are asked little, and large chunks take long to zero.
bool generator::is_worthwhile(const prediction& now, const step& one) {
    prediction trial = now;
    const outcome result = trial.carry_out(one);
    if (result.signal != 0 && one.verb != "kill") {
        return _chance.one_in(3);
    }
    return one.verb != "alloc" || result.reply == "0x0" ||
           static_cast<uint32_t>(one.number(1)) <= most_bytes_to_zero;
}

step generator::propose(const prediction& now) {
    if (_chance.one_in(25)) {
        return {the_machine, "rules", as_words(choose_rules(_chance, now.machine()))};
    }
    const auto count = static_cast<uint64_t>(now.process_count());
    return propose_for(now, static_cast<int>(_chance.below(count)));
}

step generator::propose_for(const prediction& now, int who) {
    const process_state& caller = now.process(who);
    const bool lists = caller.chunk_cursor || caller.device_cursor;
    step made{who, choose(lists ? listing_wishes() : usual_wishes(), _chance), {}};
    const std::string& verb = made.verb;
    if (verb == "alloc") {
        made.words = as_words(alloc(now));
    } else if (verb == "free") {
        made.words = as_words({_chance.one_in(3) ? name(now) : listed_name(now)});
    } else if (verb == "map") {
        made.words = as_words(map(now));
    } else if (verb == "unmap") {
        made.words = as_words(unmap(now, caller));
    } else if (verb == "write" || verb == "look") {
        made.words = as_words(touch(caller, verb == "write"));
    } else if (verb == "find" || verb == "to_pa") {
        made.words = as_words({hexadecimal(dma(now))});
    } else if (verb == "to_dma") {
        const world& where = now.machine().where;
        made.words = as_words({hexadecimal(where.start + dma(now) - where.start_dma)});
    } else if (verb == "register" || verb == "unregister" || verb == "iommu_unmap") {
        made.words = as_words(device_words());
    } else if (verb == "iommu_map") {
        made.words = as_words(device_words());
        made.words.emplace_back(_chance.any_of({"0", "1", "3", "0xffffffff"}));
    } else if (verb == "dump_next") {
        made.words = as_words({room(200)});
    } else if (verb == "dump_next_device") {
        made.words = as_words({room(20)});
    }
    // A null pointer for a text, now and then.
    if (_chance.one_in(150) && (verb == "free" || verb == "alloc")) {
        made.words.front() = std::nullopt;
    }
    return made;
}

std::string generator::name(const prediction& now) {
    if (_chance.one_in(20)) {
        return _chance.any_of({std::string(), std::string("__HEAD"), std::string("__TAIL"),
                               std::string(50, 'n'), std::string(300, 'n')});
    }
    return _chance.any_of(all_names(now.machine().where));
}

/// The name of a chunk there is, if there is one.
std::string generator::listed_name(const prediction& now) {
    const std::vector<chunk>& chunks = now.machine().area.chunks;
    if (chunks.size() <= 2) {
        return name(now);
    }
    return chunks[1 + _chance.below(chunks.size() - 2)].name;
}

std::string generator::creator() {
    if (_chance.one_in(60)) {
        return "";
    }
    if (!_chance.one_in(5)) {
        return _chance.any_of({"me", "an agent", "100%s"});
    }
    std::string alphabet;
    for (uint64_t i = _chance.any_of({98U, 99U, 100U, 101U, 400U}); i != 0; i--) {
        alphabet += static_cast<char>('A' + i % 26);
    }
    return alphabet;
}

uint64_t generator::size(const prediction& now) {
    const machine_state& machine = now.machine();
    switch (_chance.below(24)) {
    case 0:
        return 1;
    case 1:
        return pages(1) + 1;
    case 2:
        return four_gib + pages(_chance.below(3)); // modulo 4 GiB
    case 3:
        return machine.where.bytes + pages(1);
    case 4:
        return _chance.any_of({uint64_t{0}, four_gib - pages(1) + 1, four_gib / 2});
    case 5:
    case 6: {
        // What just fits a gap, and what just does not.
        const std::vector<chunk>& chunks = machine.area.chunks;
        const size_t i = chunks.size() < 2 ? 0 : _chance.below(chunks.size() - 1);
        const uint64_t gap = chunks.size() < 2 ? 0 : chunks[i + 1].pa - chunks[i].end();
        return gap + pages(_chance.below(2));
    }
    default:
        return pages(1 + _chance.below(8));
    }
}

std::vector<std::string> generator::alloc(const prediction& now) {
    std::vector<std::string> words{name(now), hexadecimal(size(now)), creator()};
    const std::vector<chunk>& chunks = now.machine().area.chunks;
    if (chunks.size() > 2 && _chance.one_in(3)) {
        const chunk& existing = chunks[1 + _chance.below(chunks.size() - 2)];
        words[0] = existing.name;
        words[1] = hexadecimal(existing.size);
    }
    return words;
}

std::vector<std::string> generator::map(const prediction& now) {
    const uint64_t offset =
        _chance.any_of({uint64_t{0}, uint64_t{0}, uint64_t{0}, pages(1), pages(2), pages(8),
                        pages(9), uint64_t{1}, four_gib, four_gib - 1});
    const uint64_t bytes = _chance.any_of(
        {uint64_t{0}, uint64_t{0}, pages(1), uint64_t{100}, pages(2), pages(9), four_gib});
    return {"m" + std::to_string(_labels++), _chance.one_in(8) ? name(now) : listed_name(now),
            _chance.one_in(3) ? "0" : "1", hexadecimal(offset), hexadecimal(bytes)};
}

std::string generator::label(const process_state& caller) {
    if (caller.mappings.empty()) {
        return "m";
    }
    const auto count = caller.mappings.size();
    return std::next(caller.mappings.begin(), static_cast<std::ptrdiff_t>(_chance.below(count)))
        ->first;
}

std::vector<std::string> generator::unmap(const prediction& now, const process_state& caller) {
    std::string target = label(caller);
    const auto mapped = caller.mappings.find(target);
    const bool by_number = _chance.one_in(8);
    if (by_number) {
        target = _chance.any_of({"0", "0x10001", "0x10000"});
    }
    uint64_t bytes = 0;
    if (mapped != caller.mappings.end() && !_chance.one_in(3)) {
        bytes = mapped->second.bytes;
    }
    return {_chance.one_in(10) ? name(now) : listed_name(now), target, hexadecimal(bytes)};
}

std::vector<std::string> generator::touch(const process_state& caller, bool writes) {
    std::vector<std::string> words{label(caller), std::to_string(_chance.below(4))};
    if (writes) {
        words.push_back(std::to_string(_chance.below(256)));
    }
    return words;
}

/// Mostly at and around the ends of chunks and of the region.
uint64_t generator::dma(const prediction& now) {
    const world& where = now.machine().where;
    const std::vector<chunk>& chunks = now.machine().area.chunks;
    uint64_t pa = where.start + _chance.below(where.bytes + 1);
    if (!chunks.empty() && !_chance.one_in(4)) {
        const chunk& near = _chance.any_of(chunks);
        pa = _chance.any_of({near.pa, near.end(), near.end() - 1, near.pa + 1, near.pa - 1});
    }
    return where.dma(pa);
}

std::vector<std::string> generator::device_words() {
    const pci_triple& one = _chance.any_of(all_devices());
    return {std::to_string(one.domain), std::to_string(one.bus), std::to_string(one.devfn)};
}

/// Mostly enough for a line, and just so, and just not.
std::string generator::room(uint64_t line_length) {
    if (!_chance.one_in(4)) {
        return "256";
    }
    return std::to_string(
        _chance.any_of({uint64_t{0}, uint64_t{1}, line_length, line_length + 1, line_length + 2}));
}

} // namespace model
