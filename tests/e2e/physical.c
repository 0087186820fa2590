// Reads and writes physical memory through the memory device, as the library maps it.
//
// usage: physical read ADDRESS SIZE        to standard output
//        physical write ADDRESS            from standard input, at most 64 KiB
//
// Numbers are as in C; the address is that of a page.

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

enum { largest = 65536 };

static int fail(const char* what) {
    fprintf(stderr, "physical: %s: %s\n", what, strerror(errno));
    return 1;
}

static void* map(const char* address, size_t size) {
    const int file = open("/dev/mem", O_RDWR | O_CLOEXEC);
    if (file == -1) {
        return MAP_FAILED;
    }
    void* const mapped = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, file,
                              (off_t)strtoull(address, NULL, 0));
    close(file);
    return mapped;
}

static int read_memory(const char* address, size_t size) {
    const void* const memory = map(address, size);
    if (memory == MAP_FAILED) {
        return fail(address);
    }
    return fwrite(memory, 1, size, stdout) == size && fflush(stdout) == 0 ? 0 : fail("output");
}

static int write_memory(const char* address) {
    static char bytes[largest];
    const size_t size = fread(bytes, 1, sizeof bytes, stdin);
    void* const memory = size == 0 ? MAP_FAILED : map(address, size);
    if (memory == MAP_FAILED) {
        return fail(address);
    }
    memcpy(memory, bytes, size);
    return 0;
}

int main(int argc, char** argv) {
    if (argc == 4 && strcmp(argv[1], "read") == 0) {
        return read_memory(argv[2], strtoul(argv[3], NULL, 0));
    }
    if (argc == 3 && strcmp(argv[1], "write") == 0) {
        return write_memory(argv[2]);
    }
    fputs("usage: physical read ADDRESS SIZE | write ADDRESS\n", stderr);
    return 1;
}
