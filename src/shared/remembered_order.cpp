#include "shared/remembered_order.hpp"

constinit remembered_order chunk_order;

void remembered_order::learn_all(const chunk_list& list) {
    constexpr int unused_in_a_row = 64; // elements that were never in use come last
    int unused = 0;
    for (std::size_t element = 0; element < chunk_capacity && unused < unused_in_a_row; ++element) {
        const dma_chunk_t& chunk = list._arr[element];
        unused = chunk.allocated ? 0 : unused + 1;
        if (chunk.next >= 0 && chunk.next < chunk_capacity) {
            learn(element, static_cast<std::size_t>(chunk.next));
        }
    }
}
