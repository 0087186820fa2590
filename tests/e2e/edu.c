// Drives QEMU's device for teaching, "edu", from user space: its DMA engine reads and writes memory
// at the addresses that it is given, as the device's IOMMU lets it.
//
// usage: edu DEVICE take DMA SIZE          the device reads into its own memory, at most 3072 bytes
//        edu DEVICE put DMA SIZE           it writes what it took there
//        edu DEVICE copy FROM TO SIZE      both, piece by piece
//        edu DEVICE serve                  lines "FROM TO SIZE" from standard input, as copy
//
// DEVICE is a PCI address such as 0000:00:04.0; numbers are as in C.

#include <errno.h>
#include <fcntl.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

enum {
    bar_bytes = 0x100000,
    command_register = 4,
    memory_and_master = 6,
    dma_source = 0x80,
    dma_target = 0x88,
    dma_count = 0x90,
    dma_command = 0x98,
    start = 1,
    to_memory = 2,
    own_memory = 0x40000,
    /// Less than the device has, which refuses a transfer of all.
    largest_transfer = 3072,
    longest_wait = 500,
};

static volatile uint8_t* bar;

static void fail(const char* what, const char* why) {
    fprintf(stderr, "edu: %s: %s\n", what, why);
    exit(1);
}

static int open_file_of(const char* device, const char* name) {
    char path[128];
    snprintf(path, sizeof path, "/sys/bus/pci/devices/%s/%s", device, name);
    const int file = open(path, O_RDWR | O_SYNC | O_CLOEXEC);
    if (file == -1) {
        fail(path, strerror(errno));
    }
    return file;
}

/// The kernel enables the device and the bridges above it; only a driver makes it a bus master.
static void enable(const char* device) {
    const int switch_file = open_file_of(device, "enable");
    if (write(switch_file, "1", 1) != 1) {
        fail("enable", strerror(errno));
    }
    close(switch_file);

    const int config = open_file_of(device, "config");
    uint16_t command = 0;
    bool done = pread(config, &command, sizeof command, command_register) == sizeof command;
    command |= memory_and_master;
    done = done && pwrite(config, &command, sizeof command, command_register) == sizeof command;
    if (!done) {
        fail("config", strerror(errno));
    }
    close(config);
}

static void map_registers(const char* device) {
    const int file = open_file_of(device, "resource0");
    void* const mapped = mmap(NULL, bar_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (mapped == MAP_FAILED) {
        fail("resource0", strerror(errno));
    }
    bar = mapped;
    close(file);
}

static void set(uint32_t at, uint32_t value) {
    *(volatile uint32_t*)(bar + at) = value;
}

static uint32_t get(uint32_t at) {
    return *(volatile uint32_t*)(bar + at);
}

static void wait_for_the_device(void) {
    const struct timespec ten_milliseconds = {.tv_nsec = 10000000};
    for (int i = 0; (get(dma_command) & start) != 0; i++) {
        if (i == longest_wait) {
            fail("transfer", "the device does not finish");
        }
        nanosleep(&ten_milliseconds, NULL);
    }
}

static void transfer(uint32_t source, uint32_t target, uint32_t size, uint32_t direction) {
    set(dma_source, source);
    set(dma_target, target);
    set(dma_count, size);
    set(dma_command, start | direction);
    wait_for_the_device();
}

static void take(uint32_t dma, uint32_t size) {
    transfer(dma, own_memory, size, 0);
}

static void put(uint32_t dma, uint32_t size) {
    transfer(own_memory, dma, size, to_memory);
}

static uint32_t piece_of(uint32_t size) {
    return size < largest_transfer ? size : largest_transfer;
}

static void copy(uint32_t from, uint32_t to, uint32_t size) {
    while (size > 0) {
        const uint32_t piece = piece_of(size);
        take(from, piece);
        put(to, piece);
        from += piece;
        to += piece;
        size -= piece;
    }
}

static uint32_t number(const char* text) {
    char* end = NULL;
    errno = 0;
    const unsigned long value = strtoul(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || value > UINT32_MAX) {
        fail(text, "not a number of 32 bits");
    }
    return (uint32_t)value;
}

static void serve(void) {
    char from[16];
    char to[16];
    char size[16];
    while (scanf("%15s %15s %15s", from, to, size) == 3) {
        copy(number(from), number(to), number(size));
        puts("copied");
        fflush(stdout);
    }
}

static bool is(const char* word, const char* command) {
    return strcmp(word, command) == 0;
}

int main(int argc, char** argv) {
    if (argc < 3) {
        fail("usage", "edu DEVICE take|put|copy|serve ..., see edu.c");
    }
    enable(argv[1]);
    map_registers(argv[1]);
    if (is(argv[2], "take") && argc == 5) {
        take(number(argv[3]), piece_of(number(argv[4])));
    } else if (is(argv[2], "put") && argc == 5) {
        put(number(argv[3]), piece_of(number(argv[4])));
    } else if (is(argv[2], "copy") && argc == 6) {
        copy(number(argv[3]), number(argv[4]), number(argv[5]));
    } else if (is(argv[2], "serve") && argc == 3) {
        serve();
    } else {
        fail(argv[2], "unknown command, or not its number of arguments");
    }
    return 0;
}
