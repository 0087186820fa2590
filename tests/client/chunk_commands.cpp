#include "commands.hpp"
#include "tarvo.h"

#include <algorithm>
#include <vector>

namespace {

std::string status(int result) {
    return std::to_string(result);
}

std::string yes_or_no(bool answer) {
    return answer ? "true" : "false";
}

std::string pointer(const void* address) {
    return address == nullptr ? "null" : hexadecimal(reinterpret_cast<uintptr_t>(address));
}

bool truth(const arguments& a, size_t i) {
    return a.number(i) != 0;
}

std::string alloc(const arguments& a) {
    return hexadecimal(tarvo_alloc_func(a.text(0), a.size(1), a.text(2)));
}

std::string free_chunk(const arguments& a) {
    return status(tarvo_free(a.text(0)));
}

/// Allocates and frees a chunk again and again: two changes a round.
std::string churn(const arguments& a) {
    for (uint64_t round = 0; round < a.number(1); ++round) {
        if (tarvo_alloc_func(a.text(0), 1, "churn") == 0 || tarvo_free(a.text(0)) != 0) {
            return "failed in round " + std::to_string(round);
        }
    }
    return "done";
}

std::string map(const arguments& a) {
    return pointer(tarvo_map(a.text(0), truth(a, 1), a.size(2), a.size(3)));
}

std::string unmap(const arguments& a) {
    return status(tarvo_unmap(a.text(0), a.address(1), a.size(2)));
}

/// The second result is shown as it was left, to distinguish "not written" from "written as 0".
std::string find(const arguments& a) {
    uint32_t chunk_dma = 0xdeadbeef;
    const char* name = tarvo_find(a.number_32(0), &chunk_dma);
    return (name == nullptr ? "null" : quoted(name)) + " " + hexadecimal(chunk_dma);
}

std::string to_pa(const arguments& a) {
    return hexadecimal(tarvo_dma_to_pa(a.number_32(0)));
}

std::string to_dma(const arguments& a) {
    return hexadecimal(tarvo_pa_to_dma(a.number(0)));
}

std::string limits(const arguments& /*none*/) {
    uint32_t start_dma = 0xdeadbeef;
    uint32_t end_dma = 0xdeadbeef;
    const int result = tarvo_get_limits(&start_dma, &end_dma);
    return status(result) + " " + hexadecimal(start_dma) + " " + hexadecimal(end_dma);
}

std::string overhead(const arguments& /*none*/) {
    return std::to_string(tarvo_get_overhead());
}

std::string map_all(const arguments& /*none*/) {
    return pointer(tarvo_map_all());
}

std::string unmap_all(const arguments& /*none*/) {
    tarvo_unmap_all();
    return "done";
}

std::string dump_begin(const arguments& /*none*/) {
    return yes_or_no(tarvo_dump_begin());
}

/// The line, or "end"; "overrun" when a byte after the buffer was written.
std::string listed(const arguments& a, bool (*next)(char*, size_t)) {
    constexpr size_t fence_bytes = 1024; // longer than any line
    constexpr char untouched = '\x5a';
    const size_t room = a.size(0);
    std::vector<char> line(room + fence_bytes, untouched);
    const bool written = next(line.data(), room);
    const bool kept = std::all_of(line.data() + room, line.data() + line.size(),
                                  [](char c) { return c == untouched; });
    return !kept ? "overrun" : written ? quoted(line.data()) : "end";
}

std::string dump_next(const arguments& a) {
    return listed(a, tarvo_dump_next);
}

std::string dump_next_device(const arguments& a) {
    return listed(a, tarvo_dump_next_iommu_device);
}

std::string dump_end(const arguments& /*none*/) {
    return status(tarvo_dump_end());
}

} // namespace

commands chunk_commands() {
    return {
        {"alloc NAME SIZE CREATOR", alloc},
        {"free NAME", free_chunk},
        {"churn NAME ROUNDS", churn},
        {"map NAME WRITABLE OFFSET SIZE", map},
        {"unmap NAME ADDRESS SIZE", unmap},
        {"find DMA", find},
        {"to_pa DMA", to_pa},
        {"to_dma PA", to_dma},
        {"limits", limits},
        {"overhead", overhead},
        {"map_all", map_all},
        {"unmap_all", unmap_all},
        {"dump_begin", dump_begin},
        {"dump_next BYTES", dump_next},
        {"dump_next_device BYTES", dump_next_device},
        {"dump_end", dump_end},
    };
}
