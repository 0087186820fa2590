// The library's inner steps. Their records are addressed as the shared area file lays them out:
// chunks, devices and references by element number in this process's own mapping of the file. They
// take no lock; a test holds it around them, for instance by dump_begin and dump_end.

#include "area.hpp"
#include "commands.hpp"
#include "own_maps.hpp"
#include "tarvo.h"

#include <array>
#include <bit>
#include <cstring>

namespace {

namespace at = area_offset;

unsigned char* area() {
    const auto mapping = mapping_of("/tarvo_lib");
    if (!mapping) {
        throw command_error("the library has not started in this process");
    }
    return std::bit_cast<unsigned char*>(mapping->start);
}

dma_chunk_t* chunk(const arguments& a, size_t i) {
    return reinterpret_cast<dma_chunk_t*>(area() + at::first_chunk + at::chunk_bytes * a.number(i));
}

iommu_dev_t* device(const arguments& a, size_t i) {
    return reinterpret_cast<iommu_dev_t*>(area() + at::first_device +
                                          at::device_bytes * a.number(i));
}

unsigned char* references(dma_chunk_t* chunk) {
    return reinterpret_cast<unsigned char*>(chunk) + at::devs;
}

/// A chunk record of the client's own, in no list.
class loose_chunk {
  public:
    loose_chunk(uint64_t pa, uint32_t size) {
        std::memcpy(&_bytes.at(at::pa), &pa, sizeof pa);
        std::memcpy(&_bytes.at(at::size), &size, sizeof size);
    }
    dma_chunk_t* record() { return reinterpret_cast<dma_chunk_t*>(_bytes.data()); }

  private:
    alignas(4) std::array<unsigned char, at::chunk_bytes> _bytes{};
};

std::string free_size_of_two(const arguments& a) {
    loose_chunk first(a.number(0), a.number_32(1));
    loose_chunk second(a.number(2), 0);
    return hexadecimal(free_size(first.record(), second.record()));
}

std::string free_size_between(const arguments& a) {
    return hexadecimal(free_size(chunk(a, 0), chunk(a, 1)));
}

std::string get_cma(const arguments& a) {
    return hexadecimal(get_cma_allocation(a.text(0), a.number_32(1)));
}

std::string free_cma(const arguments& a) {
    return std::to_string(free_cma_allocation(a.text(0), a.number_32(1)));
}

std::string add_dev(const arguments& a) {
    add_dev_to_chunk(chunk(a, 0), device(a, 1));
    return "done";
}

/// The element number of the reference after the removed one.
std::string remove_dev(const arguments& a) {
    dma_chunk_t* const holder = chunk(a, 0);
    unsigned char* const first = references(holder);
    auto* const doomed = reinterpret_cast<iommu_dev_ref*>(first + at::ref_bytes * a.number(1));
    iommu_dev_ref* const next = remove_dev_from_chunk(holder, doomed);
    if (next == nullptr) {
        return "null";
    }
    const auto bytes = static_cast<size_t>(reinterpret_cast<unsigned char*>(next) - first);
    return std::to_string(bytes / at::ref_bytes);
}

std::string map_unmap(const arguments& a) {
    return std::to_string(map_unmap_chunk(a.text(0), chunk(a, 1), device(a, 2)));
}

std::string map_chunk_everywhere(const arguments& a) {
    return std::to_string(map_chunk_all_devs(chunk(a, 0)));
}

std::string unmap_chunk_everywhere(const arguments& a) {
    return std::to_string(unmap_chunk_all_devs(chunk(a, 0)));
}

std::string map_everything_to(const arguments& a) {
    return std::to_string(map_chunks_to_dev(device(a, 0)));
}

std::string unmap_everything_from(const arguments& a) {
    return std::to_string(unmap_dev_all_chunks(device(a, 0)));
}

/// Where in the shared area the name lies that tarvo_find gives, as a file offset.
std::string place_of_name(const arguments& a) {
    uint32_t chunk_dma = 0;
    const char* const name = tarvo_find(a.number_32(0), &chunk_dma);
    return std::to_string(reinterpret_cast<const unsigned char*>(name) - area());
}

std::string stand_in_text(const arguments& /*none*/) {
    return ::quoted(*to_string_err);
}

} // namespace

commands record_commands() {
    return {
        {"free_size_of PA SIZE NEXT_PA", free_size_of_two},
        {"free_size CHUNK NEXT_CHUNK", free_size_between},
        {"get_cma_allocation NAME SIZE", get_cma},
        {"free_cma_allocation NAME SIZE", free_cma},
        {"add_dev_to_chunk CHUNK DEVICE", add_dev},
        {"remove_dev_from_chunk CHUNK REFERENCE", remove_dev},
        {"map_unmap_chunk OP CHUNK DEVICE", map_unmap},
        {"map_chunk_all_devs CHUNK", map_chunk_everywhere},
        {"unmap_chunk_all_devs CHUNK", unmap_chunk_everywhere},
        {"map_chunks_to_dev DEVICE", map_everything_to},
        {"unmap_dev_all_chunks DEVICE", unmap_everything_from},
        {"place_of_name DMA", place_of_name},
        {"to_string_err", stand_in_text},
    };
}
