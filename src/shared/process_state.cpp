#include "shared/process_state.hpp"

shared_area_t* shm_base = nullptr;
chunk_list* dma_chunks = nullptr;
dma_chunk_t* dma_chunk_head = nullptr;
dma_chunk_t* dma_chunk_tail = nullptr;
uint64_t region_start = 0;
uint32_t region_size = 0;
uint32_t page_size = 0;
bool is_simulation = false;
bool is_cma = false;
int mem_fd = -1;
int shm_fd = -1;
int lock_fd = -1;
const char* lock_path = nullptr;
