#pragma once

#include <bitset>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

namespace tarvoctl {

/// Visits the elements of a list of the area (`_arr`, `_head`, `_tail`) from head to tail, without
/// trust in what it finds: `visit` gets each element's number and the element, once. Returns why
/// elements may be missing, or nothing: the walk ended early, or an element does not name the one
/// the walk came from as its predecessor, so that a link may have skipped some.
template <typename List, typename Visit>
std::optional<std::string> walk_list(const List& list, Visit visit) {
    constexpr auto capacity = static_cast<int32_t>(std::extent_v<decltype(list._arr)>);
    if (list._head == -1) {
        return std::nullopt;
    }
    std::bitset<capacity> seen;
    std::optional<std::string> skipped;
    int32_t previous = list._tail;
    for (int32_t index = list._head;; index = list._arr[index].next) {
        if (index < 0 || index >= capacity) {
            return "it leads to element " + std::to_string(index) + ", which does not exist";
        }
        if (seen[static_cast<size_t>(index)]) {
            return "it leads back to element " + std::to_string(index);
        }
        if (list._arr[index].allocated == 0) {
            return "it leads to element " + std::to_string(index) + ", which is not in use";
        }
        seen.set(static_cast<size_t>(index));
        visit(index, list._arr[index]);
        if (list._arr[index].prev != previous && !skipped) {
            skipped = "it leads from element " + std::to_string(previous) + " to " +
                      std::to_string(index) + ", which names " +
                      std::to_string(list._arr[index].prev) + " as its predecessor";
        }
        if (index == list._tail) {
            return skipped;
        }
        previous = index;
    }
}

} // namespace tarvoctl
