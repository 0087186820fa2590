#include "iommu/request.hpp"
#include "shared/chunk_walk.hpp"
#include "shared/process_state.hpp"
#include "shared/text.hpp"
#include "shared/trace.hpp"
#include "tarvo.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

// Which devices each chunk is mapped for, kept in step with what the kernel driver accepted. A
// device is known here by its place in `devices`, not by its PCI address. Everything is done with
// the lock held.
//
// The two ways of unmapping differ on purpose. A chunk is unmapped because it is about to go: its
// `devs` ends up empty, whatever the driver said. A device is unmapped to be forgotten: only what
// the driver accepted is struck off, the rest may still stand in the IOMMU and stays on record.

namespace {

constexpr unsigned read_and_write = 3;

/// What became of one request.
enum class outcome {
    accepted,
    device_gone, ///< no such device any more: it goes offline, which is not an error
    refused,
};

/// A chunk as its requests name it, translated end first. The end is the last byte, and the
/// request line carries one less still: kernel and library have always agreed on that for a chunk,
/// unlike for the whole region.
struct chunk_range {
    uint64_t start_pa;
    uint64_t end_pa;
    uint32_t end_dma;
    uint32_t start_dma;

    explicit chunk_range(const dma_chunk_t& chunk)
        : start_pa(chunk.pa), end_pa(chunk.pa + chunk.size - 1), end_dma(tarvo_pa_to_dma(end_pa)),
          start_dma(tarvo_pa_to_dma(start_pa)) {}
};

std::shared_ptr<std::string> range_text(const chunk_range& range) {
    char* text = nullptr;
    const int length = asprintf(&text, "DMA(0x%x - 0x%x) -> PA(0x%llx - 0x%llx)", range.start_dma,
                                range.end_dma, static_cast<unsigned long long>(range.start_pa),
                                static_cast<unsigned long long>(range.end_pa));
    return adopt_text(length, text);
}

void report_failed_request(const char* op, const iommu_dev_t& dev, int result,
                           const chunk_range& range) {
    static constexpr char format[] = "%s: %s on dev %s failed: %d, %s\n";
    constexpr const char* function = "map_unmap_chunk";
    const std::shared_ptr<std::string> device = device_name(dev);
    const std::shared_ptr<std::string> where = range_text(range);
    TARVO_TRACE_AT(trace_failure, 561, function,
                   Zul::format(format, function, op, device->c_str(), result, where->c_str()));
    fprintf(stderr, format, function, op, device->c_str(), result, where->c_str());
}

/// Sends one request for one chunk and reads the answer from errno as it stands then. Writing a
/// report can have changed it: nothing restores it, and the messages show the value that decides.
outcome send_for_chunk(const char* op, dma_chunk_t* chunk, iommu_dev_t* dev) {
    if (map_unmap_chunk(op, chunk, dev) == 0) {
        return outcome::accepted;
    }
    if (errno == ENODEV || errno == EUNATCH) {
        dev->online = 0;
        return outcome::device_gone;
    }
    return outcome::refused;
}

void report_refusal(const char* doing) {
    fprintf(stderr, "Error IOMMU %s chunk %s\n", doing, strerror(errno));
}

/// The chunk's reference to the device with that place in `devices`; null when it has none.
iommu_dev_ref* find_ref(dma_chunk_t* chunk, int device_index) {
    for (iommu_dev_ref& ref : chunk->devs) {
        if (ref.dev == device_index) {
            return &ref;
        }
    }
    return nullptr;
}

} // namespace

int map_unmap_chunk(const char* op, dma_chunk_t* chunk, iommu_dev_t* dev) {
    const chunk_range range(*chunk);
    iommu_mapping_t mapping(
        static_cast<int64_t>(range.start_pa), static_cast<int64_t>(range.end_pa),
        static_cast<int32_t>(range.start_dma), static_cast<int32_t>(range.end_dma));
    const int result =
        tarvo_iommu_act(op, static_cast<unsigned>(dev->domain), static_cast<unsigned>(dev->bus),
                        static_cast<unsigned>(dev->devfn), read_and_write, &mapping);
    if (result != 0) {
        report_failed_request(op, *dev, result, range);
    }
    return result;
}

void add_dev_to_chunk(dma_chunk_t* chunk, iommu_dev_t* dev) {
    const int device_index = shm_base->devices.index(dev);
    if (find_ref(chunk, device_index) != nullptr) {
        return;
    }
    iommu_dev_ref* ref = chunk->devs.alloc();
    ref->dev = device_index;
    chunk->devs.append(ref);
}

iommu_dev_ref* remove_dev_from_chunk(dma_chunk_t* chunk, iommu_dev_ref* ref) {
    iommu_dev_ref* following = chunk->devs.next(ref);
    chunk->devs.erase(ref);
    return following;
}

int map_chunk_all_devs(dma_chunk_t* chunk) {
    for (iommu_dev_t& dev : shm_base->devices) {
        if (!dev.online) {
            continue;
        }
        const outcome answer = send_for_chunk("map", chunk, &dev);
        if (answer == outcome::accepted) {
            add_dev_to_chunk(chunk, &dev);
        } else if (answer == outcome::refused) {
            report_refusal("mapping");
            unmap_chunk_all_devs(chunk);
            return -1;
        }
    }
    return 0;
}

int unmap_chunk_all_devs(dma_chunk_t* chunk) {
    int result = 0;
    iommu_dev_ref* ref = chunk->devs.arr_elem(chunk->devs._head);
    while (ref != nullptr) {
        iommu_dev_t* dev = shm_base->devices.at(ref->dev);
        if (dev->online && send_for_chunk("unmap", chunk, dev) == outcome::refused) {
            report_refusal("unmapping");
            result = -1;
        }
        ref = remove_dev_from_chunk(chunk, ref);
    }
    return result;
}

int map_chunks_to_dev(iommu_dev_t* dev) {
    for (dma_chunk_t& chunk : chunks_between_sentinels()) {
        // A device that goes offline on the way is still asked for every later chunk.
        const outcome answer = send_for_chunk("map", &chunk, dev);
        if (answer == outcome::accepted) {
            add_dev_to_chunk(&chunk, dev);
        } else if (answer == outcome::refused) {
            report_refusal("mapping");
            unmap_dev_all_chunks(dev);
            return -1;
        }
    }
    return 0;
}

int unmap_dev_all_chunks(iommu_dev_t* dev) {
    int result = 0;
    const int device_index = shm_base->devices.index(dev);
    for (dma_chunk_t& chunk : chunks_between_sentinels()) {
        iommu_dev_ref* ref = find_ref(&chunk, device_index);
        if (ref == nullptr || !dev->online) {
            continue;
        }
        const outcome answer = send_for_chunk("unmap", &chunk, dev);
        if (answer == outcome::accepted) {
            remove_dev_from_chunk(&chunk, ref);
        } else if (answer == outcome::refused) {
            result = -1;
        }
    }
    return result;
}
