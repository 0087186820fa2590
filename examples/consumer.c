/* SPDX-License-Identifier: MIT */

/*
 * Finds the buffer of producer.c by its name and size, reads it, answers in it, and lists what the
 * region holds. It leaves the buffer to the process that made it.
 */

#include "tarvo.h"

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char* const name = "rx_ring";
static const size_t ring_bytes = 0x10000;
static const char answer[] = "seen, says the consumer";

enum { most_chunks = 16384, line_bytes = 256 };

/* Copied while the lock is held, for which every other process waits, and printed after it. */
static void list_chunks(void) {
    char(*lines)[line_bytes] = malloc((size_t)most_chunks * line_bytes);
    if (lines == NULL || !tarvo_dump_begin()) {
        free(lines);
        return;
    }
    int count = 0;
    while (tarvo_dump_next(lines[count], line_bytes)) {
        count++;
    }
    tarvo_dump_end();
    printf("lists the chunks: number, name, creator, physical address, bytes\n");
    for (int i = 0; i < count; i++) {
        printf("%s\n", lines[i]);
    }
    free(lines);
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
