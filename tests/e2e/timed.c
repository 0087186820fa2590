// Times calls that ask the driver, and prints two times in nanoseconds: of registering the first
// device while there are 1000 chunks, and the median of allocating and freeing a chunk that all
// devices are to reach. One other chunk is there, or each device would change its IOMMU domain.
//
// usage: timed DOMAIN BUS DEVFN...          for each device

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <tarvo.h>
#include <time.h>

enum { chunk_count = 1000, chunk_bytes = 4096, allocations = 21 };

static void require(int holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "timed: cannot %s\n", what);
        exit(1);
    }
}

static int64_t now(void) {
    struct timespec time;
    require(clock_gettime(CLOCK_MONOTONIC, &time) == 0, "read the clock");
    return (int64_t)time.tv_sec * 1000000000 + time.tv_nsec;
}

static int in_order(const void* left, const void* right) {
    const int64_t a = *(const int64_t*)left;
    const int64_t b = *(const int64_t*)right;
    return (a > b) - (a < b);
}

// for_device CALL NUMBERS: three of them, as texts.
static void for_device(int (*call)(uint32_t, uint32_t, uint32_t), char** numbers,
                       const char* what) {
    const uint32_t domain = (uint32_t)strtoul(numbers[0], NULL, 0);
    const uint32_t bus = (uint32_t)strtoul(numbers[1], NULL, 0);
    require(call(domain, bus, (uint32_t)strtoul(numbers[2], NULL, 0)) == 0, what);
}

static void allocate(const char* name) {
    require(tarvo_alloc_func(name, chunk_bytes, "timed") != 0, "allocate a chunk");
}

static void release(const char* name) {
    require(tarvo_free(name) == 0, "free a chunk");
}

static void for_all_chunks(void (*call)(const char*)) {
    for (int i = 0; i < chunk_count; ++i) {
        char name[16];
        snprintf(name, sizeof name, "chunk%d", i);
        call(name);
    }
}

static long long registration(char** device) {
    const int64_t start = now();
    for_device(tarvo_register_device, device, "register a device");
    return now() - start;
}

static long long allocation(void) {
    int64_t times[allocations];
    for (int i = 0; i < allocations; ++i) {
        const int64_t start = now();
        allocate("timed");
        release("timed");
        times[i] = now() - start;
    }
    qsort(times, allocations, sizeof *times, in_order);
    return times[allocations / 2];
}

int main(int argc, char** argv) {
    char** const end = argv + argc;
    require(argc > 1 && argc % 3 == 1, "time: name DOMAIN BUS DEVFN of each device");
    for_all_chunks(allocate);
    printf("%lld ", registration(argv + 1));
    for_all_chunks(release);
    allocate("other");
    for (char** device = argv + 4; device < end; device += 3) {
        for_device(tarvo_register_device, device, "register a device");
    }
    printf("%lld\n", allocation());
    release("other");
    for (char** device = argv + 1; device < end; device += 3) {
        for_device(tarvo_unregister_device, device, "unregister a device");
    }
    return 0;
}
