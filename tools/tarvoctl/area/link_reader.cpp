#include "link_reader.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tarvoctl {

namespace {

std::vector<bool> set_of(const std::vector<int>& elements, int capacity) {
    std::vector<bool> set(static_cast<size_t>(capacity));
    for (const int element : elements) {
        set[static_cast<size_t>(element)] = true;
    }
    return set;
}

bool holds(const std::vector<bool>& set, int element) {
    return set[static_cast<size_t>(element)];
}

bool contains(std::vector<int> elements, std::vector<int> others) {
    std::ranges::sort(elements);
    std::ranges::sort(others);
    return std::ranges::includes(elements, others);
}

} // namespace

link_reader::link_reader(const list_links& links, std::function<bool(int)> may_be_listed)
    : _links(links), _may_be_listed(std::move(may_be_listed)) {
    read_order();
    sort_out_the_rest();
}

bool link_reader::is_linked_both_ways(int element) const {
    const int32_t next = _links.next(element);
    const int32_t prev = _links.prev(element);
    return _links.has(next) && _links.has(prev) && prev != element &&
           _links.prev(next) == element && _links.next(prev) == element;
}

/// Both ends are set at once, after the flag, and let go before the element is cleared.
bool link_reader::is_the_only_one(int element) const {
    return _links.head == element && _links.tail == element && _links.free != element;
}

bool link_reader::is_member(int element) const {
    return _links.flag(element) != 0 ||
           ((is_linked_both_ways(element) || is_the_only_one(element)) && _may_be_listed(element));
}

/// From one element to another; to -1: as far as it goes.
link_reader::walked link_reader::walk_to(int from, int to, link_direction along) const {
    walked result{{}, false};
    walk(_links, from, along, [&](int element) {
        if (!is_member(element)) {
            return false;
        }
        result.elements.push_back(element);
        result.whole = element == to;
        return !result.whole;
    });
    return result;
}

/// All the way round, back to the element it began with.
link_reader::walked link_reader::circle(int from, link_direction along) const {
    walked result = walk_to(from, -1, along);
    result.whole = !result.elements.empty() && follow(along, result.elements.back()) == from;
    return result;
}

void link_reader::take(std::vector<int> order, order_source source) {
    _order = std::move(order);
    _source = source;
}

/// What can be reached from both sides of a break.
void link_reader::join(const std::vector<int>& prefix, const std::vector<int>& suffix_backwards) {
    std::vector<int> joined = prefix;
    const std::vector<bool> known = set_of(prefix, _links.capacity);
    std::copy_if(suffix_backwards.rbegin(), suffix_backwards.rend(), std::back_inserter(joined),
                 [&](int element) { return !holds(known, element); });
    take(std::move(joined), order_source::pieces);
    _last_forward = prefix.empty() ? -1 : prefix.back();
    _last_backward = suffix_backwards.empty() ? -1 : suffix_backwards.back();
}

void link_reader::read_order() {
    if (_links.has(_links.head) && _links.has(_links.tail)) {
        read_between_ends();
    } else if (_links.has(_links.head)) {
        read_from_head();
    } else if (_links.has(_links.tail)) {
        read_from_tail();
    } else {
        const bool is_empty = _links.head == -1 && _links.tail == -1;
        take({}, is_empty ? order_source::own_walk : order_source::pieces);
    }
}

/// The walk along `prev` only counts when it has not lost what the other one met. Where the other
/// one came back to the head, the tail was just being added.
void link_reader::read_between_ends() {
    walked forward = walk_to(_links.head, _links.tail, &list_links::next);
    if (forward.whole) {
        take(std::move(forward.elements), order_source::own_walk);
        return;
    }
    walked backward = walk_to(_links.tail, _links.head, &list_links::prev);
    if (backward.whole && contains(backward.elements, forward.elements)) {
        std::reverse(backward.elements.begin(), backward.elements.end());
        take(std::move(backward.elements), order_source::other_walk);
        return;
    }
    if (!forward.elements.empty() && _links.next(forward.elements.back()) == _links.head) {
        take(std::move(forward.elements), order_source::own_walk);
        return;
    }
    join(forward.elements, backward.elements);
}

/// The tail is unknown. One element that leads nowhere is the first of a list, being appended.
void link_reader::read_from_head() {
    walked forward = circle(_links.head, &list_links::next);
    if (forward.whole || forward.elements.size() <= 1) {
        take(std::move(forward.elements), order_source::own_walk);
        return;
    }
    join(forward.elements, walk_to(_links.prev(_links.head), -1, &list_links::prev).elements);
}

/// The head is unknown. With a head of -1, one element is the last of a list, being removed.
void link_reader::read_from_tail() {
    walked backward = circle(_links.tail, &list_links::prev);
    if (_links.head == -1 && backward.elements.size() <= 1) {
        take({}, order_source::own_walk);
        return;
    }
    std::reverse(backward.elements.begin(), backward.elements.end());
    take(std::move(backward.elements),
         backward.whole ? order_source::other_walk : order_source::pieces);
}

/// Whether a neighbour agrees to be one. Those in `no_evidence` do not count.
bool link_reader::is_detached(int element, const std::vector<bool>& no_evidence) const {
    const auto agrees = [&](int32_t neighbour, link_direction back) {
        return _links.has(neighbour) && neighbour != element && !holds(no_evidence, neighbour) &&
               _links.flag(neighbour) != 0 && follow(back, neighbour) == element;
    };
    return agrees(_links.next(element), &list_links::prev) ||
           agrees(_links.prev(element), &list_links::next);
}

/// Its own links still show where it stood, when those of its neighbours do not.
bool link_reader::is_at_a_break(int element) const {
    return (_last_forward != -1 && _links.prev(element) == _last_forward) ||
           (_last_backward != -1 && _links.next(element) == _last_backward);
}

void link_reader::sort_out_the_rest() {
    const std::vector<bool> listed = set_of(_order, _links.capacity);
    const std::vector<bool> none(listed.size());
    for (int element = 0; element < _links.capacity; ++element) {
        if (_links.flag(element) != 0 && !holds(listed, element)) {
            const bool belongs =
                is_detached(element, _source == order_source::own_walk ? listed : none) ||
                is_at_a_break(element);
            (belongs ? _detached : _unlinked).push_back(element);
        }
    }
}

} // namespace tarvoctl
