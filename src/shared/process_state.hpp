#pragma once

#include "shared/layout.hpp"

#include <cstdint>

// What one process knows of the region. Start-up (init.cpp, and region.cpp for it) is the only
// writer; everybody else reads, after tarvo_init has succeeded. Not guarded against threads.

extern shared_area_t* shm_base; ///< the mapped shared area; non-null once start-up has mapped it
extern chunk_list* dma_chunks;  ///< the shared area's chunks
extern dma_chunk_t* dma_chunk_head; ///< the sentinel __HEAD
extern dma_chunk_t* dma_chunk_tail; ///< the sentinel __TAIL
extern uint64_t region_start;       ///< physical address of the region's first byte
extern uint32_t region_size;        ///< bytes
extern uint32_t page_size;          ///< bytes
extern bool is_simulation;          ///< a plain file stands in for physical memory
extern bool is_cma;                 ///< the kernel driver chooses where chunks lie
extern int mem_fd;            ///< physical memory, or its stand-in: file offset = physical address
extern int shm_fd;            ///< the shared area file
extern int lock_fd;           ///< the lock file
extern const char* lock_path; ///< which lock file was opened
