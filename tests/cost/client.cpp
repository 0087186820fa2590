// cost_client OPERATION CHUNKS TIMES: allocates so many chunks and does what OPERATION needs
// beforehand. Then does it a few times for what is done once in a process, and TIMES more within
// measure(), which alone is counted from outside.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <tarvo.h>

namespace {

constexpr size_t chunk_bytes = 4096;
constexpr const char* creator = "cost";

int chunk_count = 0;
std::string middle_name;
uint32_t last_dma = 0;

void require(bool good, const char* call) {
    if (!good) {
        std::printf("cost_client: %s failed\n", call);
        std::exit(1);
    }
}

uint32_t allocate(const char* name) {
    const uint32_t dma = tarvo_alloc_func(name, chunk_bytes, creator);
    require(dma != 0, "tarvo_alloc_func");
    return dma;
}

void get() {
    allocate(middle_name.c_str());
}

void allocate_and_free() {
    allocate("one_more");
    require(tarvo_free("one_more") == 0, "tarvo_free");
}

void find_last() {
    uint32_t chunk_dma = 0;
    require(tarvo_find(last_dma, &chunk_dma) != nullptr && chunk_dma == last_dma, "tarvo_find");
}

void map_and_unmap() {
    void* memory = tarvo_map(middle_name.c_str(), true, 0, 0);
    require(memory != nullptr, "tarvo_map");
    require(tarvo_unmap(middle_name.c_str(), memory, 0) == 0, "tarvo_unmap");
}

/// A listing that stops after so many lines.
void list_lines(int lines) {
    std::array<char, 256> line{};
    require(tarvo_dump_begin(), "tarvo_dump_begin");
    for (int i = 0; i < lines; ++i) {
        require(tarvo_dump_next(line.data(), line.size()), "tarvo_dump_next");
    }
    require(tarvo_dump_end() == 0, "tarvo_dump_end");
}

void list_first() {
    list_lines(1);
}

void list_all() {
    list_lines(chunk_count);
}

void translate() {
    require(tarvo_pa_to_dma(tarvo_dma_to_pa(last_dma)) == last_dma, "a translation");
}

void add_device(uint32_t devfn) {
    require(tarvo_register_device(0, 3, devfn) == 0, "tarvo_register_device");
}

void register_and_unregister() {
    add_device(0);
    require(tarvo_unregister_device(0, 3, 0) == 0, "tarvo_unregister_device");
}

void add_four_devices() {
    for (uint32_t devfn = 0; devfn < 4; ++devfn) {
        add_device(devfn);
    }
}

void nothing() {}

struct operation {
    std::string_view name;
    void (*once)();
    void (*beforehand)() = nothing;
};

constexpr std::array operations{
    operation{"get", get},
    operation{"allocate_and_free", allocate_and_free},
    operation{"find_last", find_last},
    operation{"map_and_unmap", map_and_unmap},
    operation{"list_first", list_first},
    operation{"list_all", list_all},
    operation{"translate", translate},
    operation{"register_and_unregister", register_and_unregister},
    operation{"allocate_and_free_for_four_devices", allocate_and_free, add_four_devices},
};

const operation& operation_called(std::string_view name) {
    for (const operation& candidate : operations) {
        if (candidate.name == name) {
            return candidate;
        }
    }
    std::printf("cost_client: no operation is called so\n");
    std::exit(2);
}

/// All names are of one length, as most names are in practice.
void make_chunks() {
    for (int i = 0; i < chunk_count; ++i) {
        std::string name = std::to_string(100000 + i);
        last_dma = allocate(name.c_str());
        if (i == chunk_count / 2) {
            middle_name = name;
        }
    }
}

void repeat(const operation& wanted, int times) {
    for (int i = 0; i < times; ++i) {
        wanted.once();
    }
}

} // namespace

/// Counting starts and stops with this function; the name is known outside.
extern "C" void measure(const operation& wanted, int times) {
    repeat(wanted, times);
}

int main(int argc, char** argv) {
    require(argc == 4, "reading the arguments");
    const operation& wanted = operation_called(argv[1]);
    chunk_count = std::atoi(argv[2]);
    make_chunks();
    wanted.beforehand();
    repeat(wanted, 3);
    measure(wanted, std::atoi(argv[3]));
}
