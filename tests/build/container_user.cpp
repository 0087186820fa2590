// What somebody may expect who includes the container: it brings all that it needs, holds any
// element that is bytes, and leaves the includer's own assertions as they are. Compiled by its test
// with NDEBUG.

#include "ArrayBackedList.hpp"

#ifndef NDEBUG
#error "the container has undefined NDEBUG"
#endif
#ifdef assert
#error "the container has defined assert"
#endif

#include <cassert>
#include <cstdio>

namespace {

struct element {
    int32_t next = -1;
    int32_t prev = -1;
    bool allocated = false;
    int32_t payload = 7;
};

} // namespace

/// Every member, used or not.
template struct ArrayBackedList<element, 2>;

int main() {
    ArrayBackedList<element, 2> list{};
    list.init();
    element* taken = list.alloc();
    list.append(taken);
    list.erase(taken);
    if (taken->payload != 0 || taken->allocated) {
        std::printf("a free element is not zero\n");
        return 1;
    }
    int evaluations = 0;
    assert(++evaluations == 0);
    if (evaluations != 0) {
        std::printf("an assertion is on in spite of NDEBUG\n");
        return 1;
    }
    return 0;
}
