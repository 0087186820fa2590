#include "shared/init.hpp"

#include "shared/fork.hpp"
#include "shared/lock.hpp"
#include "shared/open.hpp"
#include "shared/paths.hpp"
#include "shared/process_state.hpp"
#include "shared/region.hpp"
#include "shared/trace.hpp"
#include "shared/zero.hpp"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr const char* function = "tarvo_init";

/// Gives the shared area file its size. After a failure `shm_fd` is 0, not -1: the clean-up
/// closes descriptor 0 and leaves the file open. That is kept on purpose.
bool size_shared_area(uint32_t area_bytes) {
    if (ftruncate(shm_fd, area_bytes) == -1) {
        // Names the hardware file in simulation too, and stays so: the text is part of the
        // interface.
        fprintf(stderr, "Failed to truncate %s: %s\n", paths::hardware_area, strerror(errno));
        shm_fd = 0;
        return false;
    }
    TARVO_TRACE(trace_progress, function, "%s: Library initialized at 0x%llx of size %zx", function,
                static_cast<unsigned long long>(region_start), size_t{region_size});
    return true;
}

bool report_unmappable_area() {
    constexpr const char* complaint = "failed to map shared memory";
    fprintf(stderr, "%s: %s\n", function, complaint);
    TARVO_TRACE(trace_failure, function, "%s: %s", function, complaint);
    return false;
}

bool map_shared_area(uint32_t area_bytes) {
    void* area = mmap64(nullptr, area_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, shm_fd, 0);
    if (area == MAP_FAILED) {
        return report_unmappable_area();
    }
    // Each record is on a page of its own. Where the file system has large pages a new process
    // takes a fault for 490 records instead of one for every 16; where it has none nothing changes.
    madvise(area, area_bytes, MADV_HUGEPAGE);
    shm_base = static_cast<shared_area_t*>(area);
    return true;
}

/// The variable, not the region in use, chooses the lock file: processes with and without it
/// share a simulated region but not its lock.
bool open_lock_file() {
    if (lock_fd != -1) {
        return true;
    }
    lock_path =
        getenv(simulation_variable) != nullptr ? paths::simulated_lock : paths::hardware_lock;
    lock_fd = open_with_exact_mode(lock_path, O_RDONLY | O_CREAT,
                                   is_simulation ? simulation_mode : hardware_mode);
    if (lock_fd == -1) {
        perror(lock_path);
        TARVO_TRACE(trace_failure, function, "%s: couldn't initialize tarvo lock", function);
        return false;
    }
    return true;
}

dma_chunk_t* append_sentinel(const char* name, uint64_t pa) {
    dma_chunk_t* sentinel = dma_chunks->alloc();
    dma_chunks->append(sentinel);
    sentinel->pa = pa;
    memcpy(sentinel->name, name, strlen(name) + 1);
    return sentinel;
}

/// Builds the shared area's lists. The flag goes up last: a process that dies in here leaves an
/// area that the next one builds again from nothing. An area that the file system has no room for
/// counts as one that cannot be mapped.
bool build_shared_area(uint32_t area_bytes) {
    if (!zero_mapping(shm_base, area_bytes)) {
        return report_unmappable_area();
    }
    dma_chunks->init();
    shm_base->devices.init();
    dma_chunk_head = append_sentinel("__HEAD", region_start);
    dma_chunk_tail = append_sentinel("__TAIL", region_start + region_size);
    TARVO_TRACE(trace_progress, function,
                "%s: Initialized chunk list with HEAD 0x%llx and TAIL 0x%llx", function,
                static_cast<unsigned long long>(dma_chunk_head->pa),
                static_cast<unsigned long long>(dma_chunk_tail->pa));
    std::atomic_ref(shm_base->initialized).store(1, std::memory_order_release);
    return true;
}

/// Takes up the picture that the machine's processes share, or starts it. An area that is already
/// there is not compared with the region of this process.
bool attach_shared_area(uint32_t area_bytes) {
    const lock_guard lock;
    if (!lock.held()) {
        TARVO_TRACE(trace_failure, function, "%s: couldn't acquire tarvo lock", function);
        return false;
    }
    if (!can_be_read(shm_base, sizeof shm_base->initialized)) {
        return report_unmappable_area();
    }
    dma_chunks = &shm_base->chunks;
    if (!shm_base->initialized) {
        return build_shared_area(area_bytes);
    }
    dma_chunk_head = dma_chunks->at(dma_chunks->_head);
    dma_chunk_tail = dma_chunks->at(dma_chunks->_tail);
    return true;
}

bool start_up() {
    const uint32_t area_bytes = reservesize();
    return find_region() && size_shared_area(area_bytes) && map_shared_area(area_bytes) &&
           open_lock_file() && attach_shared_area(area_bytes);
}

/// Back to the state before the attempt, but for `is_cma` and `page_size`: what the kernel driver
/// said of CMA stays, even for a simulated region that the next attempt finds.
void clean_up() {
    if (shm_base != nullptr) {
        munmap(shm_base, reservesize());
        shm_base = nullptr;
    }
    for (int* fd : {&mem_fd, &shm_fd}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
    if (lock_fd != -1) {
        close(lock_fd);
        lock_fd = -1;
    }
    is_simulation = false;
    region_start = 0;
    region_size = 0;
}

/// What the first call does, apart from the others that only ask: these are short.
[[gnu::cold]] int start_or_clean_up() {
    page_size = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
    if (!start_up()) {
        clean_up();
        return -1;
    }
    part_children_from_the_lock();
    TARVO_TRACE(trace_progress, function, "%s: HEAD: 0x%llx, TAIL: 0x%llx", function,
                static_cast<unsigned long long>(dma_chunk_head->pa),
                static_cast<unsigned long long>(dma_chunk_tail->pa));
    return 0;
}

} // namespace

int tarvo_init() {
    return shm_base != nullptr ? 0 : start_or_clean_up();
}

bool start_or_complain() {
    if (start_or_clean_up() != 0) {
        fprintf(stderr, "tarvo: failed to initialize library\n");
        return false;
    }
    return true;
}

uint32_t reservesize() {
    const auto page_bytes = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
    return (page_bytes + uint32_t{sizeof(shared_area_t)} - 1) / page_bytes * page_bytes;
}
