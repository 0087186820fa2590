#include "small_list.hpp"

void release(small_list& list, small_element* element) {
    list.free(element);
}

void release(ArrayBackedList<outer_element, 2>& list, outer_element* element) {
    list.free(element);
}
