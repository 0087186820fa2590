#include "shared/remembered_order.hpp"

constinit remembered_order chunk_order;

void remembered_order::learn_all(const chunk_list& list) {
    // Elements that were never in use come last, each leading to its neighbour, and are not touched
    // any further. Those of chunks that were freed lead anywhere.
    constexpr int unused_in_a_row = 64;
    int unused = 0;
    for (int element = 0; element < chunk_capacity && unused < unused_in_a_row; ++element) {
        const dma_chunk_t& chunk = list._arr[element];
        unused = !chunk.allocated && chunk.next == element + 1 ? unused + 1 : 0;
        if (chunk.next >= 0 && chunk.next < chunk_capacity) {
            learn(static_cast<size_t>(element), static_cast<size_t>(chunk.next));
        }
    }
}
