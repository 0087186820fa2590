#include "repair_order.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <map>
#include <utility>

namespace tarvoctl {

namespace {

std::vector<bool> set_of(const std::vector<int>& elements, int capacity) {
    std::vector<bool> set(static_cast<std::size_t>(capacity));
    for (const int element : elements) {
        set[static_cast<std::size_t>(element)] = true;
    }
    return set;
}

bool holds(const std::vector<bool>& set, int element) {
    return set[static_cast<std::size_t>(element)];
}

bool contains(std::vector<int> elements, std::vector<int> others) {
    std::sort(elements.begin(), elements.end());
    std::sort(others.begin(), others.end());
    return std::includes(elements.begin(), elements.end(), others.begin(), others.end());
}

} // namespace

list_links_reader::list_links_reader(const list_links& links,
                                     std::function<bool(int)> may_be_listed)
    : _links(links), _may_be_listed(std::move(may_be_listed)) {
    read_order();
    sort_out_the_rest();
}

bool list_links_reader::is_linked_both_ways(int element) const {
    const int32_t next = _links.next(element);
    const int32_t prev = _links.prev(element);
    return _links.has(next) && _links.has(prev) && prev != element &&
           _links.prev(next) == element && _links.next(prev) == element;
}

bool list_links_reader::is_member(int element) const {
    return _links.flag(element) != 0 || (is_linked_both_ways(element) && _may_be_listed(element));
}

/// From one element to another; to -1: as far as it goes.
list_links_reader::walked list_links_reader::walk(int from, int to, link way) const {
    std::vector<bool> seen(static_cast<std::size_t>(_links.capacity));
    walked result{{}, false};
    int element = from;
    while (_links.has(element) && !holds(seen, element) && is_member(element)) {
        seen[static_cast<std::size_t>(element)] = true;
        result.elements.push_back(element);
        if (element == to) {
            result.whole = true;
            break;
        }
        element = follow(way, element);
    }
    return result;
}

/// All the way round, back to the element it began with.
list_links_reader::walked list_links_reader::circle(int from, link way) const {
    walked result = walk(from, -1, way);
    result.whole = !result.elements.empty() && follow(way, result.elements.back()) == from;
    return result;
}

void list_links_reader::take(std::vector<int> order, reliance source) {
    _order = std::move(order);
    _source = source;
}

/// What can be reached from both sides of a break.
void list_links_reader::join(const std::vector<int>& prefix,
                             const std::vector<int>& suffix_backwards) {
    std::vector<int> joined = prefix;
    const std::vector<bool> known = set_of(prefix, _links.capacity);
    std::copy_if(suffix_backwards.rbegin(), suffix_backwards.rend(), std::back_inserter(joined),
                 [&](int element) { return !holds(known, element); });
    take(std::move(joined), reliance::pieces);
    _last_forward = prefix.empty() ? -1 : prefix.back();
    _last_backward = suffix_backwards.empty() ? -1 : suffix_backwards.back();
}

void list_links_reader::read_order() {
    if (_links.has(_links.head) && _links.has(_links.tail)) {
        read_between_ends();
    } else if (_links.has(_links.head)) {
        read_from_head();
    } else if (_links.has(_links.tail)) {
        read_from_tail();
    } else {
        const bool is_empty = _links.head == -1 && _links.tail == -1;
        take({}, is_empty ? reliance::own_walk : reliance::pieces);
    }
}

/// The walk along `prev` only counts when it has not lost what the other one met. Where the other
/// one came back to the head, the tail was just being added.
void list_links_reader::read_between_ends() {
    walked forward = walk(_links.head, _links.tail, &list_links::next);
    if (forward.whole) {
        take(std::move(forward.elements), reliance::own_walk);
        return;
    }
    walked backward = walk(_links.tail, _links.head, &list_links::prev);
    if (backward.whole && contains(backward.elements, forward.elements)) {
        std::reverse(backward.elements.begin(), backward.elements.end());
        take(std::move(backward.elements), reliance::other_walk);
        return;
    }
    if (!forward.elements.empty() && _links.next(forward.elements.back()) == _links.head) {
        take(std::move(forward.elements), reliance::own_walk);
        return;
    }
    join(forward.elements, backward.elements);
}

/// The tail is unknown. One element that leads nowhere is the first of a list, being appended.
void list_links_reader::read_from_head() {
    walked forward = circle(_links.head, &list_links::next);
    if (forward.whole || forward.elements.size() <= 1) {
        take(std::move(forward.elements), reliance::own_walk);
        return;
    }
    join(forward.elements, walk(_links.prev(_links.head), -1, &list_links::prev).elements);
}

/// The head is unknown. With a head of -1, one element is the last of a list, being removed.
void list_links_reader::read_from_tail() {
    walked backward = circle(_links.tail, &list_links::prev);
    if (_links.head == -1 && backward.elements.size() <= 1) {
        take({}, reliance::own_walk);
        return;
    }
    std::reverse(backward.elements.begin(), backward.elements.end());
    take(std::move(backward.elements), backward.whole ? reliance::other_walk : reliance::pieces);
}

/// Whether a neighbour agrees to be one. Those in `no_evidence` do not count.
bool list_links_reader::is_on_island(int element, const std::vector<bool>& no_evidence) const {
    const auto agrees = [&](int32_t neighbour, link back) {
        return _links.has(neighbour) && neighbour != element && !holds(no_evidence, neighbour) &&
               _links.flag(neighbour) != 0 && follow(back, neighbour) == element;
    };
    return agrees(_links.next(element), &list_links::prev) ||
           agrees(_links.prev(element), &list_links::next);
}

/// Its own links still tell where it stood, when those of its neighbours do not.
bool list_links_reader::is_at_a_break(int element) const {
    return (_last_forward != -1 && _links.prev(element) == _last_forward) ||
           (_last_backward != -1 && _links.next(element) == _last_backward);
}

void list_links_reader::sort_out_the_rest() {
    const std::vector<bool> listed = set_of(_order, _links.capacity);
    const std::vector<bool> none(listed.size());
    for (int element = 0; element < _links.capacity; ++element) {
        if (_links.flag(element) != 0 && !holds(listed, element)) {
            const bool belongs =
                is_on_island(element, _source == reliance::own_walk ? listed : none) ||
                is_at_a_break(element);
            (belongs ? _islands : _strays).push_back(element);
        }
    }
}

namespace {

constexpr std::string_view cut_off =
    "marked allocated, but the list is damaged in more than one place and it cannot be told "
    "whether this was part of it";

} // namespace

/// Devices and references that cannot be placed are one doubt: they say little by themselves, and a
/// ruined area has millions of them.
decided_list decide_unordered(const list_links& links, repair_plan& plan) {
    const list_links_reader reader(links, [](int) { return true; });
    decided_list decided{reader.order(), {}};
    decided.order.insert(decided.order.end(), reader.islands().begin(), reader.islands().end());
    if (!reader.is_sound() && !reader.strays().empty()) {
        decided.left_alone = reader.strays();
        plan.doubts.push_back({links.list, fmt::format("{} elements, the first of them {}: {}",
                                                       decided.left_alone.size(),
                                                       decided.left_alone.front(), cut_off)});
    }
    return decided;
}

namespace {

/// Addresses that are taken, as ranges that do not touch each other.
class address_ranges {
  public:
    bool overlap(uint64_t first, uint64_t end) const {
        const auto behind = _end_by_first.lower_bound(end);
        return behind != _end_by_first.begin() && std::prev(behind)->second > first;
    }

    void add(uint64_t first, uint64_t end) {
        auto range = _end_by_first.upper_bound(first);
        if (range != _end_by_first.begin() && std::prev(range)->second >= first) {
            --range;
        }
        while (range != _end_by_first.end() && range->first <= end) {
            first = std::min(first, range->first);
            end = std::max(end, range->second);
            range = _end_by_first.erase(range);
        }
        _end_by_first.emplace(first, end);
    }

  private:
    std::map<uint64_t, uint64_t> _end_by_first;
};

/// The chunks' decision, which can also go by what the records say.
class chunk_decision {
  public:
    chunk_decision(const shared_area_t& area, int head, int tail, repair_plan& plan)
        : _area(area), _links(chunk_links(area)),
          _plan(plan), _region{area.chunks._arr[head].pa, area.chunks._arr[tail].pa} {
        _links.head = head;
        _links.tail = tail;
    }

    decided_list decide() {
        const list_links_reader reader(_links, [this](int chunk) { return is_filled(chunk); });
        take_order(reader);
        for (const int chunk : reader.islands()) {
            put_back(chunk);
        }
        if (!reader.is_sound()) {
            judge_strays(reader.strays());
        }
        sort();
        return std::move(_decided);
    }

  private:
    const dma_chunk_t& record(int chunk) const { return _area.chunks._arr[chunk]; }
    bool is_end(int chunk) const { return chunk == _links.head || chunk == _links.tail; }

    /// Whether allocating it was finished but for the links.
    bool is_filled(int chunk) const {
        const auto name = text_in(record(chunk).name);
        return name.has_value() && !name->empty() && record(chunk).size != 0 &&
               _region.holds(record(chunk));
    }

    uint64_t end_of(int chunk) const { return record(chunk).pa + record(chunk).size; }

    void enter(int chunk) {
        _decided.order.push_back(chunk);
        _taken.add(record(chunk).pa, end_of(chunk));
    }

    /// A chunk of size 0 was never anybody's: the size is filled in before the chunk is linked. It
    /// goes back. Others stay as long as the walk was whole, whatever they say.
    void take_order(const list_links_reader& reader) {
        for (const int chunk : reader.order()) {
            if (is_end(chunk) || (reader.is_sound() && record(chunk).size != 0)) {
                enter(chunk);
            } else if (record(chunk).size != 0) {
                put_back(chunk);
            }
        }
        for (const int end : {_links.head, _links.tail}) {
            if (std::find(_decided.order.begin(), _decided.order.end(), end) ==
                _decided.order.end()) {
                enter(end);
            }
        }
    }

    void put_back(int chunk) {
        if (!is_filled(chunk)) {
            doubt(chunk, "linked to its neighbours, but its record is damaged");
        } else if (_taken.overlap(record(chunk).pa, end_of(chunk))) {
            doubt(chunk, "linked to its neighbours, but it overlaps another chunk of the list");
        } else {
            enter(chunk);
        }
    }

    void judge_strays(const std::vector<int>& strays) {
        for (const int chunk : strays) {
            if (is_filled(chunk)) {
                doubt(chunk, cut_off);
            }
        }
    }

    void doubt(int chunk, std::string_view why) {
        _plan.doubts.push_back({_links.at(chunk), std::string(why)});
        _decided.left_alone.push_back(chunk);
    }

    void sort() {
        const auto rank = [this](int chunk) {
            return std::pair(chunk == _links.head   ? 0
                             : chunk == _links.tail ? 2
                                                    : 1,
                             uint64_t{record(chunk).pa});
        };
        std::stable_sort(_decided.order.begin(), _decided.order.end(),
                         [&](int a, int b) { return rank(a) < rank(b); });
    }

    const shared_area_t& _area;
    list_links _links;
    repair_plan& _plan;
    region_bounds _region;
    decided_list _decided;
    address_ranges _taken;
};

} // namespace

decided_list decide_chunks(const shared_area_t& area, int head, int tail, repair_plan& plan) {
    return chunk_decision(area, head, tail, plan).decide();
}

} // namespace tarvoctl
