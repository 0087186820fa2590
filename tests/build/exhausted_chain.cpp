#include "ArrayBackedList.hpp"

#include <cstdint>
#include <cstdio>

namespace {

struct element {
    int32_t next;
    int32_t prev;
    uint8_t allocated;
};

ArrayBackedList<element, 3> list;

} // namespace

int main() {
    list.init();
    for (int i = 0; i < 3; ++i) {
        list.alloc();
    }
    std::puts("all 3 handed out");
    std::fflush(stdout);
    list.alloc();
    std::puts("and went on");
}
