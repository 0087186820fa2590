#include "list_walk.hpp"

#include <fmt/format.h>
#include <vector>

namespace tarvoctl {

walk_end walk(const list_links& links, int32_t first, link_direction along,
              const std::function<bool(int)>& visit) {
    std::vector<bool> visited(static_cast<size_t>(links.capacity));
    for (int32_t element = first;; element = (links.*along)(element)) {
        if (!links.has(element)) {
            return {walk_end::reason::out_of_range, element};
        }
        if (visited[static_cast<size_t>(element)]) {
            return {walk_end::reason::repeated, element};
        }
        visited[static_cast<size_t>(element)] = true;
        if (!visit(element)) {
            return {walk_end::reason::stopped, element};
        }
    }
}

std::optional<std::string> walk_list(const list_links& links,
                                     const std::function<void(int)>& visit) {
    if (links.head == -1) {
        return std::nullopt;
    }
    std::optional<std::string> skipped;
    int32_t previous = links.tail;
    const auto [why, last] = walk(links, links.head, &list_links::next, [&](int element) {
        if (links.flag(element) == 0) {
            return false;
        }
        visit(element);
        if (links.prev(element) != previous && !skipped) {
            skipped = fmt::format("it leads from element {} to {}, which names {} as its "
                                  "predecessor",
                                  previous, element, links.prev(element));
        }
        previous = element;
        return element != links.tail;
    });
    switch (why) {
    case walk_end::reason::out_of_range:
        return fmt::format("it leads to element {}, which does not exist", last);
    case walk_end::reason::repeated:
        return fmt::format("it leads back to element {}", last);
    case walk_end::reason::stopped:
        break;
    }
    return links.flag(last) != 0 ? skipped
                                 : fmt::format("it leads to element {}, which is not in use", last);
}

} // namespace tarvoctl
