// first_fit_states: in a region of eight pages, which the sandbox gives it, makes every placement
// of up to five chunks of one to three pages, and from each of them every allocation of one to
// eight pages and every free. Where chunks lie is compared with a map of the pages, in which a new
// chunk takes the lowest pages that fit. Prints the figures; ends with 1 where something differs.

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>
#include <string>
#include <tarvo.h>
#include <vector>

namespace {

constexpr int region_pages = 8;
constexpr int most_chunks = 5;
constexpr int largest_chunk = 3;
constexpr uint32_t page_bytes = 4096;

struct placed {
    int page;
    int pages;
};

/// For each page the name of the chunk that has it; empty where it is free.
using page_map = std::array<std::string, region_pages>;

class machine {
  public:
    bool starts() {
        uint32_t end = 0;
        return tarvo_get_limits(&_first, &end) == 0 && end - _first == region_pages * page_bytes;
    }

    /// Whether the chunk gets the lowest pages that fit, or none where none do.
    void allocate(const std::string& name, int pages) {
        const int page = lowest_fit(pages);
        const uint32_t expected = page < 0 ? 0 : address_of(page);
        const size_t bytes = static_cast<size_t>(pages) * page_bytes;
        note(tarvo_alloc_func(name.c_str(), bytes, "test") == expected);
        for (int i = page; page >= 0 && i < page + pages; ++i) {
            at(i) = name;
        }
        ++allocations;
    }

    void free(const std::string& name) {
        note(tarvo_free(name.c_str()) == 0);
        std::ranges::replace(_map, name, std::string());
        ++frees;
    }

    /// Page by page.
    void compare() {
        for (int i = 0; i < region_pages; ++i) {
            uint32_t dma = 0;
            const char* found = tarvo_find(address_of(i), &dma);
            note(found == nullptr ? at(i).empty() : at(i) == found);
        }
    }

    /// Every free page gets a chunk of its own gap; their names.
    std::vector<std::string> fill_gaps_up_to(int page) {
        std::vector<std::string> names;
        for (int i = 0; i < page; ++i) {
            if (at(i).empty()) {
                names.push_back("filler_" + std::to_string(i));
                allocate(names.back(), 1);
            }
        }
        return names;
    }

    /// With whatever it takes below it for the time being.
    void place(const placed& chunk, const std::string& name) {
        const std::vector<std::string> fillers = fill_gaps_up_to(chunk.page);
        allocate(name, chunk.pages);
        note(at(chunk.page) == name);
        std::ranges::for_each(fillers, [this](const std::string& each) { free(each); });
    }

    bool has(const std::string& name) const { return std::ranges::find(_map, name) != _map.end(); }

    size_t allocations = 0;
    size_t frees = 0;
    size_t differences = 0;

  private:
    std::string& at(int page) { return _map[static_cast<size_t>(page)]; }
    uint32_t address_of(int page) const {
        return _first + static_cast<uint32_t>(page) * page_bytes;
    }
    void note(bool same) { differences += same ? 0U : 1U; }

    int lowest_fit(int pages) const {
        for (int first = 0; first + pages <= region_pages; ++first) {
            const auto begin = _map.begin() + first;
            if (std::all_of(begin, begin + pages, [](const auto& name) { return name.empty(); })) {
                return first;
            }
        }
        return -1;
    }

    uint32_t _first = 0;
    page_map _map;
};

std::string name_of(const placed& chunk) {
    return "chunk_" + std::to_string(chunk.page);
}

/// Every call from a placement that has been made.
void leave(machine& here, const std::vector<placed>& chunks) {
    here.compare();
    for (int pages = 1; pages <= region_pages; ++pages) {
        here.allocate("new", pages);
        if (here.has("new")) {
            here.compare();
            here.free("new");
        }
    }
    for (const placed& each : chunks) {
        here.free(name_of(each));
        here.compare();
        here.place(each, name_of(each));
    }
    here.compare();
}

/// All placements that go on from these chunks upwards.
size_t go_on(machine& here, std::vector<placed>& chunks, int from_page) {
    leave(here, chunks);
    size_t placements = 1;
    if (chunks.size() == most_chunks) {
        return placements;
    }
    for (int page = from_page; page < region_pages; ++page) {
        for (int pages = 1; pages <= largest_chunk && page + pages <= region_pages; ++pages) {
            chunks.push_back({page, pages});
            here.place(chunks.back(), name_of(chunks.back()));
            placements += go_on(here, chunks, page + pages);
            here.free(name_of(chunks.back()));
            chunks.pop_back();
        }
    }
    return placements;
}

} // namespace

int main() {
    // The library says there of every allocation for which the driver has no room.
    if (std::freopen("/dev/null", "w", stderr) == nullptr) {
        return 2;
    }
    machine here;
    if (!here.starts()) {
        std::cout << "no region of " << region_pages << " pages\n";
        return 2;
    }
    std::vector<placed> chunks;
    const size_t placements = go_on(here, chunks, 0);
    std::cout << placements << " placements, " << here.allocations << " allocations, " << here.frees
              << " frees, " << here.differences << " differences\n";
    return here.differences == 0 ? 0 : 1;
}
