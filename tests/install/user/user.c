#include <stdio.h>
#include <string.h>
#include <tarvo.h>

int main(void) {
    const uint32_t dma = tarvo_alloc_func("ring", 0x10000, "user");
    char* memory = tarvo_map("ring", true, 0, 0);
    if (dma == 0 || memory == NULL) {
        return 1;
    }
    strcpy(memory, "ready");
    printf("%s at 0x%08x\n", memory, (unsigned)dma);
    return 0;
}
