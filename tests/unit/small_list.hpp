#pragma once

#include "ArrayBackedList.hpp"

#include <cstdint>
#include <vector>

/// The least an element can be, with a payload.
struct small_element {
    int32_t next;
    int32_t prev;
    uint8_t allocated;
    int32_t payload;
};

template <int MAX>
using list_of = ArrayBackedList<small_element, MAX>;
using small_list = list_of<5>;

/// A list as its first process makes it, on zeroed storage.
template <int MAX = 5>
list_of<MAX> fresh_list() {
    list_of<MAX> list{};
    list.init();
    return list;
}

/// A fresh list to which the first `count` elements were appended, in order.
inline small_list list_with(int count) {
    small_list list = fresh_list();
    for (int i = 0; i < count; ++i) {
        list.append(list.alloc());
    }
    return list;
}

/// The indices that the usual walk visits.
template <int MAX>
std::vector<int> walk(list_of<MAX>& list) {
    std::vector<int> visited;
    for (small_element& element : list) {
        visited.push_back(list.index(&element));
    }
    return visited;
}

/// The indices on the free chain, as many as there can be.
template <int MAX>
std::vector<int> free_chain(const list_of<MAX>& list) {
    std::vector<int> chain;
    for (int at = list._free; at != -1 && chain.size() < MAX; at = list._arr[at].next) {
        chain.push_back(at);
    }
    return chain;
}
