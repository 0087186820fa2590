#include <tarvo.h>

#include <stdio.h>
#include <unistd.h>

typedef void (*any_function)(void);

/* Everything that C can call. A name that does not link fails here. */
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
};

int main(void) {
    const size_t page_bytes = (size_t)sysconf(_SC_PAGESIZE);
    const size_t expected = (70130716 + page_bytes - 1) / page_bytes * page_bytes;
    for (size_t i = 0; i < sizeof functions / sizeof functions[0]; ++i) {
        if (functions[i] == NULL) {
            printf("function %zu is not there\n", i);
            return 1;
        }
    }
    /* The one call that needs neither a region nor a file. */
    if (tarvo_get_overhead() != expected) {
        printf("tarvo_get_overhead() is %zu, not %zu\n", tarvo_get_overhead(), expected);
        return 1;
    }
    return 0;
}
