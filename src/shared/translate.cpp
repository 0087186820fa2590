#include "assertion.hpp"
#include "shared/dma_window.hpp"
#include "shared/init.hpp"
#include "shared/process_state.hpp"
#include "shared/trace.hpp"
#include "tarvo.h"

namespace {

/// The sentinels never move once they are made, so nothing here takes the lock.
dma_window window() {
    return {dma_chunk_head->pa, dma_chunk_tail->pa};
}

} // namespace

uint64_t tarvo_dma_to_pa(uint32_t dma) {
    if (!library_is_ready()) {
        return 0;
    }
    const uint64_t res = window().pa_of(dma);
    // Traced before it is checked, so that the trace shows the address that ended the process.
    TARVO_TRACE(trace_translation, "tarvo_dma_to_pa", "%s: %x -> %llx", "tarvo_dma_to_pa", dma,
                static_cast<unsigned long long>(res));
    TARVO_ASSERT(res >= dma_chunk_head->pa && res <= dma_chunk_tail->pa,
                 "res >= dma_chunk_head->pa && res <= dma_chunk_tail->pa");
    return res;
}

uint32_t tarvo_pa_to_dma(uint64_t pa) {
    if (!library_is_ready()) {
        return 0;
    }
    TARVO_ASSERT(pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa,
                 "pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa");
    const uint32_t dma = window().dma_of(pa);
    TARVO_TRACE(trace_translation, "tarvo_pa_to_dma", "%s: %llx->  %x", "tarvo_pa_to_dma",
                static_cast<unsigned long long>(pa), dma);
    return dma;
}

int tarvo_get_limits(uint32_t* start_dma, uint32_t* end_dma) {
    if (!library_is_ready()) {
        return -1;
    }
    *start_dma = tarvo_pa_to_dma(dma_chunk_head->pa);
    *end_dma = tarvo_pa_to_dma(dma_chunk_tail->pa);
    return 0;
}

size_t tarvo_get_overhead() {
    return reservesize();
}
