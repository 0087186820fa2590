// bit_flips [--every N]: in a sandbox, makes a few chunks and devices, and then flips each single
// bit (or each N-th) of each link, index, flag, address and size that belongs to them, in a copy of
// the area that only one process sees, and makes each call there. A call must come back, or end its
// process by an assertion. Prints the figures; ends with 1 where one did neither.

#include "area.hpp"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/wait.h>
#include <tarvo.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* area_path = "/var/shmem/tarvo_lib";
constexpr uint32_t page_bytes = 4096;

// ---- The fields ------------------------------------------------------------------------------

struct field {
    std::string name;
    size_t offset;
    size_t bytes;
};

void add_link_fields(std::vector<field>& all, const std::string& owner, size_t element) {
    all.push_back({owner + ".next", element + area_offset::next, 4});
    all.push_back({owner + ".prev", element + area_offset::prev, 4});
    all.push_back({owner + ".allocated", element + area_offset::allocated, 1});
}

void add_ends(std::vector<field>& all, const std::string& owner, size_t head) {
    all.push_back({owner + "._head", head, 4});
    all.push_back({owner + "._tail", head + 4, 4});
    all.push_back({owner + "._free", head + 8, 4});
}

void add_chunk(std::vector<field>& all, int index) {
    const size_t chunk = area_offset::chunk(index);
    const std::string name = "chunk " + std::to_string(index);
    add_link_fields(all, name, chunk);
    all.push_back({name + ".pa", chunk + area_offset::pa, 8});
    all.push_back({name + ".size", chunk + area_offset::size, 4});
    add_ends(all, name + ".devs", chunk + area_offset::devs_head);
    constexpr size_t reference_bytes = 16;
    for (size_t i = 0; i < 2; ++i) {
        const size_t reference = chunk + area_offset::devs + i * reference_bytes;
        add_link_fields(all, name + ".devs", reference);
        all.push_back({name + ".devs.dev", reference + area_offset::dev, 4});
    }
}

/// Of the sentinels (0, 1), of three chunks, and of the next elements that are free.
std::vector<field> fields() {
    std::vector<field> all;
    add_ends(all, "chunks", area_offset::chunks_head);
    add_ends(all, "devices", area_offset::devices_head);
    for (const int index : {0, 1, 2, 3, 4, 5, 6}) {
        add_chunk(all, index);
    }
    for (const int index : {0, 1, 2}) {
        const size_t device = area_offset::device(index);
        const std::string name = "device " + std::to_string(index);
        add_link_fields(all, name, device);
        all.push_back({name + ".online", device + area_offset::online, 1});
    }
    return all;
}

// ---- The calls -------------------------------------------------------------------------------

struct call {
    std::string_view name;
    void (*make)();
};

void list_all() {
    std::array<char, 512> line{};
    tarvo_dump_begin();
    while (tarvo_dump_next(line.data(), line.size())) {
    }
    tarvo_dump_end();
}

void find_second_page() {
    uint32_t dma = 0;
    tarvo_find(0x80001000, &dma);
}

void map_middle() {
    if (void* memory = tarvo_map("middle", true, 0, 0)) {
        tarvo_unmap("middle", memory, 0);
    }
}

constexpr std::array<call, 9> calls{{
    {"list", list_all},
    {"find", find_second_page},
    {"get", [] { tarvo_alloc_func("middle", page_bytes, "test"); }},
    {"allocate", [] { tarvo_alloc_func("new", page_bytes, "test"); }},
    {"free", [] { tarvo_free("middle"); }},
    {"free the last", [] { tarvo_free("high"); }},
    {"map", map_middle},
    {"register", [] { tarvo_register_device(0, 5, 0); }},
    {"unregister", [] { tarvo_unregister_device(0, 3, 8); }},
}};

// ---- A copy for one process ------------------------------------------------------------------

/// Where the library has mapped the area.
char* mapped_area() {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.ends_with(area_path)) {
            void* start = nullptr;
            std::istringstream(line) >> start;
            return static_cast<char*>(start);
        }
    }
    return nullptr;
}

/// From here on what this process writes to the area is its own.
bool detach_area(char* area) {
    const int file = open(area_path, O_RDWR | O_CLOEXEC);
    void* copy = mmap(area, area_offset::content_end, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_FIXED, file, 0);
    return copy == area;
}

constexpr int status_of_trouble = 99;
constexpr unsigned seconds_for_a_call = 10;

int end_of_call(const call& one, char* area, const field& where, size_t bit) {
    const pid_t child = fork();
    if (child == 0) {
        if (!detach_area(area)) {
            std::_Exit(status_of_trouble);
        }
        char& flipped = area[where.offset + bit / 8];
        flipped = static_cast<char>(flipped ^ (1 << bit % 8));
        alarm(seconds_for_a_call);
        one.make();
        std::_Exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

// ---- What came of it -------------------------------------------------------------------------

class figures {
  public:
    void add(int status, const call& one, const field& where, size_t bit) {
        ++_calls;
        const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        if (signal == SIGABRT) {
            ++_assertions;
        } else if (status != 0) {
            _wrong.push_back(where.name + ", bit " + std::to_string(bit) + ", " +
                             std::string(one.name) + ": " +
                             (signal == SIGALRM ? "hangs"
                              : signal != 0     ? "signal " + std::to_string(signal)
                                                : "status " + std::to_string(status)));
        }
    }

    bool report(size_t flips) const {
        for (const std::string& each : _wrong) {
            std::cout << each << '\n';
        }
        std::cout << flips << " flips of one bit, " << _calls
                  << " calls: " << _calls - _assertions - _wrong.size() << " came back, "
                  << _assertions << " ended by an assertion, " << _wrong.size()
                  << " by anything else\n";
        return _wrong.empty();
    }

  private:
    size_t _calls = 0;
    size_t _assertions = 0;
    std::vector<std::string> _wrong;
};

bool fill_region() {
    bool good = tarvo_register_device(0, 3, 8) == 0 && tarvo_register_device(0, 4, 16) == 0;
    for (const char* name : {"low", "room", "middle", "high"}) {
        good = good && tarvo_alloc_func(name, page_bytes, "test") != 0;
    }
    return good && tarvo_free("room") == 0;
}

} // namespace

int main(int count, char** words) {
    const size_t every = count == 3 && std::string_view(words[1]) == "--every"
                             ? std::strtoul(words[2], nullptr, 10)
                             : 1;
    // The library reports most of these there.
    if (std::freopen("/dev/null", "w", stderr) == nullptr || every == 0) {
        return 2;
    }
    char* const area = fill_region() ? mapped_area() : nullptr;
    if (area == nullptr) {
        std::cout << "the region could not be filled\n";
        return 2;
    }
    figures all;
    size_t flips = 0;
    size_t passed = 0;
    for (const field& where : fields()) {
        for (size_t bit = 0; bit < 8 * where.bytes; ++bit) {
            if (passed++ % every != 0) {
                continue;
            }
            ++flips;
            for (const call& one : calls) {
                all.add(end_of_call(one, area, where, bit), one, where, bit);
            }
        }
    }
    return all.report(flips) ? 0 : 1;
}
