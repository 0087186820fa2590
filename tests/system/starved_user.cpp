// starved_user: makes every call of the library in simulation with trace records on, again and
// again, and lets one allocation after the other fail, then that one and all later ones. Reports
// for each call whether it needed any, and what came out differently from when none fails. With an
// argument, none does fail.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iostream>
#include <new>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/wait.h>
#include <tarvo.h>
#include <unistd.h>
#include <vector>

namespace {

// ---- Allocations that fail -----------------------------------------------------------------

enum class shortage { once, from_then_on };

constexpr int never = 0;

int allocations_made = 0;
int allocations_needed = 0; ///< by the last call
int first_to_fail = never;
shortage lasting = shortage::once;

bool memory_is_short() {
    ++allocations_made;
    const bool later = lasting == shortage::from_then_on && allocations_made > first_to_fail;
    const bool fails = first_to_fail != never && (allocations_made == first_to_fail || later);
    if (fails) {
        errno = ENOMEM;
    }
    return fails;
}

void let_fail(int nth, shortage how_long) {
    allocations_made = 0;
    first_to_fail = nth;
    lasting = how_long;
}

// ---- What came out -------------------------------------------------------------------------

constexpr const char* area_path = "/var/tmp/tarvo_lib";
constexpr const char* lock_path = "/var/tmp/tarvo_lock";
constexpr std::streamoff area_bytes = 70131712;

struct outcome {
    std::string result;
    std::string area; ///< its ends: the first chunks, and the lists and devices
    bool lock_is_free = false;

    bool operator==(const outcome&) const = default;
};

std::string ends_of_the_area() {
    constexpr std::streamsize end_bytes = 1 << 16;
    std::string ends(2 * end_bytes, '\0');
    std::ifstream area(area_path, std::ios::binary);
    area.read(ends.data(), end_bytes);
    area.seekg(area_bytes - end_bytes);
    area.read(ends.data() + end_bytes, end_bytes);
    return ends;
}

bool lock_is_free() {
    const int lock = open(lock_path, O_RDONLY | O_CLOEXEC);
    const bool taken = flock(lock, LOCK_EX | LOCK_NB) == 0;
    close(lock);
    return taken;
}

// ---- The calls: their results are short, so that telling them allocates nothing --------------

void nothing() {}

struct call {
    std::string_view name;
    std::function<std::string()> make;
    void (*before)() = nothing;
    void (*afterwards)() = nothing;
};

constexpr const char* name = "rx_ring";
void* mapped = nullptr;

std::string alloc_of(size_t bytes) {
    return std::to_string(tarvo_alloc_func(name, bytes, "starved"));
}
void have_chunk() {
    tarvo_alloc_func(name, 4096, "starved");
}
void free_chunk() {
    tarvo_free(name);
}
/// And leaves the records in the order in which they were taken.
void free_both() {
    free_chunk();
    free_chunk();
    for (const char* other : {"first", "second"}) {
        tarvo_alloc_func(other, 4096, "starved");
    }
    tarvo_free("first");
    tarvo_free("second");
}
void have_mapping() {
    mapped = tarvo_map(name, true, 0, 0);
}
void unmap_chunk() {
    tarvo_unmap(name, mapped, 0);
}
void have_device() {
    tarvo_register_device(0, 3, 0);
}
void forget_device() {
    tarvo_unregister_device(0, 3, 0);
}
void have_whole_region() {
    mapped = tarvo_map_all();
}
void have_listing() {
    tarvo_dump_begin();
}
void end_listing() {
    tarvo_dump_end();
}

std::string map_it(const char* which) {
    mapped = tarvo_map(which, true, 0, 0);
    return mapped != nullptr ? "mapped" : "null";
}

std::string found(uint32_t dma) {
    uint32_t chunk_dma = 1;
    const char* chunk = tarvo_find(dma, &chunk_dma);
    return std::string(chunk != nullptr ? chunk : "null") + " " + std::to_string(chunk_dma);
}

std::string limits() {
    uint32_t first = 0;
    uint32_t end = 0;
    const int result = tarvo_get_limits(&first, &end);
    return first == 0x1000 && end == 0x2a801000 ? std::to_string(result) : "wrong";
}

std::string line() {
    std::array<char, 256> text{};
    return tarvo_dump_next(text.data(), text.size()) ? "a line" : "end";
}

/// A device whose requests the machine refuses.
constexpr uint32_t refused_bus = 4;

const std::vector<call> calls{
    {"alloc, new", [] { return alloc_of(4096); }, nothing, free_chunk},
    {"alloc, the second of a name", [] { return alloc_of(8192); }, have_chunk, free_both},
    {"alloc, too large", [] { return alloc_of(0x7ffff000); }},
    {"alloc, shared", [] { return alloc_of(4096); }, have_chunk, free_chunk},
    {"alloc, for a device", [] { return alloc_of(4096); }, have_device,
     [] {
         free_chunk();
         forget_device();
     }},
    {"free", [] { return std::to_string(tarvo_free(name)); }, have_chunk},
    {"free, unknown", [] { return std::to_string(tarvo_free("unknown")); }},
    {"map", [] { return map_it(name); }, have_chunk,
     [] {
         unmap_chunk();
         free_chunk();
     }},
    {"map, unknown", [] { return map_it("unknown"); }},
    {"unmap", [] { return std::to_string(tarvo_unmap(name, mapped, 0)); },
     [] {
         have_chunk();
         have_mapping();
     },
     free_chunk},
    {"find", [] { return found(0x1000); }, have_chunk, free_chunk},
    {"dma_to_pa", [] { return std::to_string(tarvo_dma_to_pa(0x1000)); }},
    {"pa_to_dma", [] { return std::to_string(tarvo_pa_to_dma(0x1000)); }},
    {"get_limits", limits},
    {"map_all", [] { return std::string(tarvo_map_all() != nullptr ? "mapped" : "null"); }, nothing,
     tarvo_unmap_all},
    {"unmap_all",
     [] {
         tarvo_unmap_all();
         return std::string();
     },
     have_whole_region},
    {"dump_begin", [] { return std::to_string(tarvo_dump_begin()); }, nothing, end_listing},
    {"dump_next", line,
     [] {
         have_chunk();
         have_listing();
     },
     [] {
         end_listing();
         free_chunk();
     }},
    {"dump_end", [] { return std::to_string(tarvo_dump_end()); }, have_listing},
    {"register_device", [] { return std::to_string(tarvo_register_device(0, 3, 0)); }, have_chunk,
     [] {
         forget_device();
         free_chunk();
     }},
    {"register_device, refused",
     [] { return std::to_string(tarvo_register_device(0, refused_bus, 0)); }, have_chunk,
     [] {
         tarvo_unregister_device(0, refused_bus, 0);
         free_chunk();
     }},
    {"unregister_device", [] { return std::to_string(tarvo_unregister_device(0, 3, 0)); },
     [] {
         have_chunk();
         have_device();
     },
     free_chunk},
    {"unregister_device, unknown", [] { return std::to_string(tarvo_unregister_device(0, 3, 0)); }},
    {"iommu_map", [] { return std::to_string(tarvo_iommu_map(0, 3, 0, 3)); }},
    {"iommu_unmap", [] { return std::to_string(tarvo_iommu_unmap(0, 3, 0)); }},
};

outcome made(const call& one, int failing, shortage how_long) {
    one.before();
    let_fail(failing, how_long);
    std::string result = one.make();
    allocations_needed = allocations_made;
    first_to_fail = never;
    const outcome made{std::move(result), ends_of_the_area(), lock_is_free()};
    one.afterwards();
    return made;
}

/// A start builds the area, and can be seen only once in a process: each one is a child's.
outcome started(int failing, shortage how_long) {
    unlink(area_path);
    const pid_t child = fork();
    if (child == 0) {
        let_fail(failing, how_long);
        const bool good = limits() == "0";
        std::_Exit(good ? std::min(allocations_made, 200) : 255);
    }
    int status = 0;
    waitpid(child, &status, 0);
    allocations_needed = WEXITSTATUS(status);
    const bool good = WIFEXITED(status) && allocations_needed != 255;
    return {good ? "ready" : "not ready", ends_of_the_area(), lock_is_free()};
}

// ---- One allocation after the other --------------------------------------------------------

using maker = std::function<outcome(int failing, shortage how_long)>;

/// Does not let any fail where `fed`.
void starve(std::string_view what, bool fed, const maker& make) {
    const outcome usual = make(never, shortage::once);
    const int usual_allocations = allocations_needed;
    std::string differences;
    for (const shortage how_long : {shortage::once, shortage::from_then_on}) {
        for (int nth = 1; nth <= usual_allocations && !fed; ++nth) {
            const outcome starved = make(nth, how_long);
            if (starved != usual) {
                differences += " " + std::to_string(nth) + ": " + starved.result;
            }
        }
    }
    std::cout << what << (usual_allocations > 0 ? ": starved," : ": needs none,")
              << (differences.empty() ? " all the same" : differences) << std::endl;
}

} // namespace

// ---- What the library calls instead of the C and C++ libraries' own ------------------------

void* operator new(size_t bytes) {
    void* memory = memory_is_short() ? nullptr : std::malloc(bytes);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t /*bytes*/) noexcept {
    std::free(memory);
}

extern "C" {

int vasprintf(char** ptr, const char* f, std::va_list arg) noexcept {
    if (memory_is_short()) {
        return -1;
    }
    std::va_list again;
    va_copy(again, arg);
    const int length = std::vsnprintf(nullptr, 0, f, again);
    va_end(again);
    const auto room = static_cast<size_t>(length) + 1;
    *ptr = static_cast<char*>(std::malloc(room));
    return std::vsnprintf(*ptr, room, f, arg);
}

// What the C library's headers make of it where lengths are checked.
int checked_vasprintf(char** ptr, int flag, const char* f, std::va_list arg) noexcept
    __asm__("__vasprintf_chk");
int checked_vasprintf(char** ptr, int /*flag*/, const char* f, std::va_list arg) noexcept {
    return vasprintf(ptr, f, arg);
}

} // extern "C"

int main(int count, char** /*arguments*/) {
    const bool fed = count > 1;
    setenv("ZUL_TRACE", "6", 1);
    starve("start", fed, started);
    for (const call& one : calls) {
        starve(one.name, fed,
               [&](int failing, shortage how_long) { return made(one, failing, how_long); });
    }
}
