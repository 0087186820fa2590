/* SPDX-License-Identifier: MIT */

/*
 * Fills a named DMA buffer and shares it until standard input ends. It made the buffer, so it is
 * the one to free it: consumer.c only looks.
 */

#include "tarvo.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

static const char* const name = "rx_ring";
static const size_t ring_bytes = 0x10000;
static const char message[] = "one buffer, two processes";

int main(void) {
    const uint32_t dma = tarvo_alloc_func(name, ring_bytes, "demo_producer");
    if (dma == 0) {
        fprintf(stderr, "producer: no DMA memory for %s\n", name);
        return 1;
    }
    printf("asks for %s, 0x%zx bytes: DMA address 0x%08" PRIx32 "\n", name, ring_bytes, dma);

    /* A device would be given `dma`; this process needs a pointer of its own. */
    char* ring = tarvo_map(name, true, 0, 0);
    if (ring == NULL) {
        fprintf(stderr, "producer: cannot map %s\n", name);
        return 1;
    }
    memcpy(ring, message, sizeof message);
    printf("maps it and writes: \"%s\"\n", message);
    printf("waits for the end of its input\n");
    fflush(stdout);
    while (getchar() != EOF) {
    }

    printf("finds in the buffer: \"%s\"\n", ring);

    /* Unmap first: unmapping looks the chunk up by name. */
    tarvo_unmap(name, ring, 0);
    if (tarvo_free(name) != 0) {
        fprintf(stderr, "producer: cannot free %s\n", name);
        return 1;
    }
    printf("unmaps and frees it\n");
    return 0;
}
