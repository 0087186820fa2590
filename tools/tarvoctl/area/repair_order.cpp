#include "repair_order.hpp"

#include "link_reader.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <iterator>
#include <map>
#include <utility>

namespace tarvoctl {

namespace {

constexpr std::string_view cut_off =
    "marked allocated, but the list is damaged in more than one place and it is unknown "
    "whether this was part of it";

using may_be_listed = std::function<bool(int)>;

/// Elements that cannot be placed are one doubt: they say little by themselves, and a ruined area
/// has millions of them.
decided_list decide_unordered(const list_links& links, const may_be_listed& is_plausible,
                              repair_plan& plan) {
    const link_reader reader(links, is_plausible);
    decided_list decided{reader.order(), {}};
    decided.order.insert(decided.order.end(), reader.detached().begin(), reader.detached().end());
    if (!reader.is_sound() && !reader.unlinked().empty()) {
        decided.left_alone = reader.unlinked();
        plan.doubts.push_back({links.list, fmt::format("{} elements, the first of them {}: {}",
                                                       decided.left_alone.size(),
                                                       decided.left_alone.front(), cut_off)});
    }
    return decided;
}

/// Whether the ends of the list, or one of its elements, lead to an element that is not among them.
bool is_named(const list_links& links, const std::vector<int>& order, int element) {
    const bool is_listed = std::ranges::find(order, element) != order.end();
    const auto leads_there = [&](int listed) {
        return links.next(listed) == element || links.prev(listed) == element;
    };
    return !is_listed && (links.head == element || links.tail == element ||
                          std::ranges::any_of(order, leads_there));
}

/// No interrupted change leaves a link to an element that is not marked: those that were filled in
/// have lost their mark.
void doubt_unmarked(const list_links& links, decided_list& decided, repair_plan& plan) {
    for (int element = 0; element < links.capacity; ++element) {
        if (links.flag(element) == 0 && !is_zero(links.bytes_after_next(element)) &&
            is_named(links, decided.order, element)) {
            plan.doubts.push_back({links.at(element),
                                   "the list names it, but it is not marked allocated and its "
                                   "links are damaged: it is unknown whether it is registered"});
            decided.left_alone.push_back(element);
        }
    }
}

} // namespace

decided_list decide_devices(const shared_area_t& area, repair_plan& plan) {
    const list_links links = device_links(area);
    const auto is_filled = [&links](int device) {
        return !is_zero(links.bytes(device).subspan(offsetof(iommu_dev_t, domain)));
    };
    decided_list decided = decide_unordered(links, is_filled, plan);
    doubt_unmarked(links, decided, plan);
    return decided;
}

decided_list decide_refs(const list_links& links, repair_plan& plan) {
    return decide_unordered(
        links, [](int) { return true; }, plan);
}

namespace {

/// Addresses that are taken, as ranges that do not touch each other.
class address_ranges {
  public:
    bool overlap(uint64_t first, uint64_t end) const {
        const auto above = _end_by_first.lower_bound(end);
        return above != _end_by_first.begin() && std::prev(above)->second > first;
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
        const link_reader reader(_links, [this](int chunk) { return is_filled(chunk); });
        take_order(reader);
        for (const int chunk : reader.detached()) {
            put_back(chunk);
        }
        if (!reader.is_sound()) {
            doubt_unlinked(reader.unlinked());
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
    /// goes back, unless devices see it: then the size is what was lost. Others stay as long as the
    /// walk was whole, whatever they say.
    void take_order(const link_reader& reader) {
        for (const int chunk : reader.order()) {
            const bool is_empty = record(chunk).size == 0 && !is_mapped(record(chunk));
            if (is_end(chunk) || (reader.is_sound() && !is_empty)) {
                take_listed(chunk);
            } else if (!is_empty) {
                put_back(chunk);
            }
        }
        for (const int end : {_links.head, _links.tail}) {
            if (std::ranges::find(_decided.order, end) == _decided.order.end()) {
                enter(end);
            }
        }
    }

    void take_listed(int chunk) {
        enter(chunk);
        if (!is_end(chunk) && record(chunk).size == 0) {
            add_doubt(chunk, "its size is 0, yet it is mapped for devices: the size is lost");
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

    void doubt_unlinked(const std::vector<int>& unlinked) {
        for (const int chunk : unlinked) {
            if (is_filled(chunk)) {
                doubt(chunk, cut_off);
            }
        }
    }

    void add_doubt(int chunk, std::string_view why) {
        _plan.doubts.push_back({_links.at(chunk), std::string(why)});
    }

    void doubt(int chunk, std::string_view why) {
        add_doubt(chunk, why);
        _decided.left_alone.push_back(chunk);
    }

    void sort() {
        const auto rank = [this](int chunk) {
            return std::pair(chunk == _links.head   ? 0
                             : chunk == _links.tail ? 2
                                                    : 1,
                             uint64_t{record(chunk).pa});
        };
        std::ranges::stable_sort(_decided.order, {}, rank);
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
