/* SPDX-License-Identifier: MIT */

/*
 * Finds the buffer of producer.c by its name and size, reads it, answers in it, and lists what the
 * region holds. It leaves the buffer to the process that made it.
 */

#include "tarvo.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

static const char* const name = "rx_ring";
static const size_t ring_bytes = 0x10000;
static const char answer[] = "seen, says the consumer";

/* The lock is held from begin to end: every other process waits meanwhile. */
static void list_chunks(void) {
    char line[256];
    if (!tarvo_dump_begin()) {
        return;
    }
    printf("lists the chunks: number, name, creator, physical address, bytes\n");
    while (tarvo_dump_next(line, sizeof line)) {
        printf("%s\n", line);
    }
    tarvo_dump_end();
}

int main(void) {
    /* The same name and size: the chunk that is there, and no new one. */
    const uint32_t dma = tarvo_alloc_func(name, ring_bytes, "demo_consumer");
    if (dma == 0) {
        fprintf(stderr, "consumer: no DMA memory for %s\n", name);
        return 1;
    }
    printf("asks for %s, 0x%zx bytes: DMA address 0x%08" PRIx32 "\n", name, ring_bytes, dma);

    char* ring = tarvo_map(name, true, 0, 0);
    if (ring == NULL) {
        fprintf(stderr, "consumer: cannot map %s\n", name);
        return 1;
    }
    printf("maps it and reads: \"%s\"\n", ring);
    memcpy(ring, answer, sizeof answer);
    printf("writes an answer: \"%s\"\n", answer);
    list_chunks();
    tarvo_unmap(name, ring, 0);
    return 0;
}
