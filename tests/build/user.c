#include <stdio.h>
#include <string.h>
#include <tarvo.h>
#include <unistd.h>

typedef void (*any_function)(void);

/* Everything there is. A name that does not link fails here. */
static const any_function functions[] = {
    (any_function)tarvo_alloc_func,
    (any_function)tarvo_free,
    (any_function)tarvo_map,
    (any_function)tarvo_unmap,
    (any_function)tarvo_find,
    (any_function)tarvo_dma_to_pa,
    (any_function)tarvo_pa_to_dma,
    (any_function)tarvo_get_limits,
    (any_function)tarvo_get_overhead,
    (any_function)tarvo_map_all,
    (any_function)tarvo_unmap_all,
    (any_function)tarvo_dump_begin,
    (any_function)tarvo_dump_next,
    (any_function)tarvo_dump_next_iommu_device,
    (any_function)tarvo_dump_end,
    (any_function)tarvo_register_device,
    (any_function)tarvo_unregister_device,
    (any_function)tarvo_iommu_map,
    (any_function)tarvo_iommu_unmap,
    (any_function)free_size,
    (any_function)get_cma_allocation,
    (any_function)free_cma_allocation,
    (any_function)add_dev_to_chunk,
    (any_function)remove_dev_from_chunk,
    (any_function)map_unmap_chunk,
    (any_function)map_chunk_all_devs,
    (any_function)unmap_chunk_all_devs,
    (any_function)map_chunks_to_dev,
    (any_function)unmap_dev_all_chunks,
};

/* Chunk records by their bytes, as the area file has them. */
static uint64_t free_size_of(uint64_t pa, uint32_t size, uint64_t next_pa) {
    static uint32_t first[4280 / 4];
    static uint32_t second[4280 / 4];
    memcpy(&first[60 / 4], &pa, sizeof pa);
    memcpy(&first[68 / 4], &size, sizeof size);
    memcpy(&second[60 / 4], &next_pa, sizeof next_pa);
    return free_size((dma_chunk_t*)first, (dma_chunk_t*)second);
}

int main(void) {
    const size_t page_bytes = (size_t)sysconf(_SC_PAGESIZE);
    const size_t expected = (70130716 + page_bytes - 1) / page_bytes * page_bytes;
    for (size_t i = 0; i < sizeof functions / sizeof functions[0]; ++i) {
        if (functions[i] == NULL) {
            printf("function %zu does not exist\n", i);
            return 1;
        }
    }
    /* The two calls that need neither a region nor a file. */
    if (free_size_of(0x200000000, 0x1000, 0x200005000) != 0x4000) {
        printf("free_size() is wrong\n");
        return 1;
    }
    if (tarvo_get_overhead() != expected) {
        printf("tarvo_get_overhead() is %zu, not %zu\n", tarvo_get_overhead(), expected);
        return 1;
    }
    return 0;
}
