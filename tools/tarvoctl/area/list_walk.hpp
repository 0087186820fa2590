#pragma once

#include <bitset>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

namespace tarvoctl {

/// Visits the elements of a list of the area (`_arr`, `_head`, `_tail`) from head to tail, without
/// trust in what it finds: `visit` gets each element's number and the element, once. Returns why
/// the walk ended early, or nothing.
template <typename List, typename Visit>
std::optional<std::string> walk_list(const List& list, Visit visit) {
    constexpr auto capacity = static_cast<int32_t>(std::extent_v<decltype(list._arr)>);
    if (list._head == -1)
        return std::nullopt;
    std::bitset<capacity> seen;
    for (int32_t index = list._head;; index = list._arr[index].next) {
        if (index < 0 || index >= capacity)
            return "it leads to element " + std::to_string(index) + ", which does not exist";
        if (seen[static_cast<std::size_t>(index)])
            return "it leads back to element " + std::to_string(index);
        if (list._arr[index].allocated == 0)
            return "it leads to element " + std::to_string(index) + ", which is not in use";
        seen.set(static_cast<std::size_t>(index));
        visit(index, list._arr[index]);
        if (index == list._tail)
            return std::nullopt;
    }
}

} // namespace tarvoctl
