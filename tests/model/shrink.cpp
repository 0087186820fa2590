#include "shrink.hpp"

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace model {

namespace {

script without(const script& all, size_t first, size_t count) {
    script fewer{all.where, {}};
    for (size_t i = 0; i < all.steps.size(); i++) {
        if (i < first || i >= first + count) {
            fewer.steps.push_back(all.steps[i]);
        }
    }
    return fewer;
}

/// Tries to leave out every part of `count` steps, from the end on: the last steps need the first.
bool drop_parts(script& failing, size_t count, const script_test& fails, int& tries_left) {
    bool dropped = false;
    for (size_t end = failing.steps.size(); end > 0 && tries_left > 0;) {
        const size_t first = end > count ? end - count : 0;
        const script fewer = without(failing, first, end - first);
        tries_left--;
        if (fails(fewer)) {
            failing = fewer;
            dropped = true;
        }
        end = first;
    }
    return dropped;
}

} // namespace

script shrink(script failing, const script_test& fails, int most_tries) {
    size_t count = std::max<size_t>(failing.steps.size() / 2, 1);
    while (most_tries > 0) {
        const bool dropped = drop_parts(failing, count, fails, most_tries);
        if (count == 1 && !dropped) {
            break;
        }
        count = std::max<size_t>(count / 2, 1);
    }
    return failing;
}

} // namespace model
