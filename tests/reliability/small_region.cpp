#include "small_region.hpp"

#include "area.hpp"

#include <array>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <tarvo.h>

namespace {

constexpr const char* area_path = "/var/shmem/tarvo_lib";
constexpr uint32_t page_bytes = 4096;

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

constexpr std::array<call, 9> all_calls{{
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

} // namespace

std::span<const call> calls() {
    return all_calls;
}

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

bool detach_area(char* area) {
    static const int file = open(area_path, O_RDWR | O_CLOEXEC);
    void* copy = mmap(area, area_offset::content_end, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_FIXED, file, 0);
    return copy == area;
}

bool fill_region() {
    bool good = tarvo_register_device(0, 3, 8) == 0 && tarvo_register_device(0, 4, 16) == 0;
    for (const char* name : {"low", "room", "middle", "high"}) {
        good = good && tarvo_alloc_func(name, page_bytes, "test") != 0;
    }
    return good && tarvo_free("room") == 0;
}
