#include "check_parts.hpp"
#include "common/quantities.hpp"

#include <limits>
#include <unordered_map>

namespace tarvoctl {

namespace {

class chunk_check {
  public:
    chunk_check(const shared_area_t& area, const list_members& members,
                const check_options& options, report& found)
        : _area(area), _members(members), _options(options), _found(found) {}

    void check() {
        if (_members.listed.empty()) {
            add(rules::no_sentinels, -1, head_name, tail_name);
        } else {
            check_sentinels();
            check_listed();
        }
        for (const int chunk : _members.free) {
            check_free(chunk);
        }
    }

  private:
    const dma_chunk_t& record(int chunk) const { return _area.chunks._arr[chunk]; }
    bool is_first(int chunk) const { return chunk == _members.listed.front(); }

    template <typename... Values>
    void add(const rule_with<Values...>& broken_rule, int chunk,
             const std::type_identity_t<Values>&... values) {
        _found.add(broken_rule, {area_list::chunks, chunk}, values...);
    }

    /// The first element of the walk is one sentinel, the list's tail the other. A walk that breaks
    /// off has not reached the tail, which is checked all the same.
    void check_sentinels() {
        const int head = _members.listed.front();
        const int tail = _area.chunks._tail;
        const bool has_head = is_sentinel(record(head), head_name);
        const bool has_tail =
            tail >= 0 && tail < chunk_capacity && is_sentinel(record(tail), tail_name);
        if (!has_head) {
            add(rules::head_sentinel, head, head_name);
        }
        if (!has_tail) {
            add(rules::tail_sentinel, tail, tail_name);
        }
        if (has_head && has_tail) {
            _region = {record(head).pa, record(tail).pa};
            check_region();
        }
    }

    /// An end that the list does not lead to may be anything, so it is not compared.
    void check_region() {
        if (_region.first_pa >= _region.end_pa) {
            add(rules::region_empty, -1, pa_text(_region.first_pa), pa_text(_region.end_pa));
        } else if (_members.listed.back() == _area.chunks._tail) {
            compare_region();
        }
    }

    void compare_region() {
        if (_options.region.has_value() &&
            (_options.region->first_pa != _region.first_pa ||
             _options.region->size_bytes != _region.end_pa - _region.first_pa)) {
            add(rules::region_differs, -1, size_text(_region.end_pa - _region.first_pa),
                pa_text(_region.first_pa), size_text(_options.region->size_bytes),
                pa_text(_options.region->first_pa));
        }
    }

    void check_listed() {
        uint64_t previous_pa = 0;
        for (const int chunk : _members.listed) {
            check_padding(chunk);
            const dma_chunk_t& one = record(chunk);
            if (one.pa < previous_pa) {
                add(rules::order, chunk, pa_text(one.pa), pa_text(previous_pa));
            }
            previous_pa = one.pa;
            if (is_at_an_end(_area, chunk)) {
                check_sentinel_rest(chunk);
            } else {
                check_place(chunk);
                check_texts(chunk);
            }
            check_overlap(chunk);
        }
    }

    void check_padding(int chunk) {
        constexpr size_t padding_offset = offsetof(dma_chunk_t, name) + name_bytes;
        if (raw(record(chunk))[padding_offset] != 0) {
            add(rules::padding_not_zero, chunk, "the byte after the name is");
        }
    }

    void check_sentinel_rest(int chunk) {
        if (!is_zero(raw(record(chunk).devs))) {
            add(rules::sentinel_devices, chunk);
        }
    }

    void check_place(int chunk) {
        const uint64_t pa = record(chunk).pa;
        const uint32_t size = record(chunk).size;
        if (size == 0) {
            add(rules::size_zero, chunk);
        } else if (size % _options.page_bytes != 0) {
            add(rules::size_not_pages, chunk, size_text(size), size_text(_options.page_bytes));
        }
        if (pa % _options.page_bytes != 0) {
            add(rules::address_not_page, chunk, pa_text(pa), size_text(_options.page_bytes));
        }
        if (!_region.holds(record(chunk))) {
            add(rules::outside_region, chunk, size_text(size), pa_text(pa),
                pa_range(_region.first_pa, _region.end_pa));
        }
    }

    /// Against the furthest end so far, not only the predecessor's: a chunk may hold several.
    void check_overlap(int chunk) {
        const dma_chunk_t& one = record(chunk);
        if (one.pa < _furthest_end && !is_first(chunk)) {
            add(_options.cma ? rules::overlap_under_cma : rules::overlap, chunk, pa_text(one.pa),
                _furthest, text_up_to_end(record(_furthest).name), pa_text(_furthest_end));
        }
        const uint64_t room = std::numeric_limits<uint64_t>::max() - one.pa;
        const uint64_t end = one.pa + std::min<uint64_t>(one.size, room);
        if (end >= _furthest_end) {
            _furthest_end = end;
            _furthest = chunk;
        }
    }

    void check_texts(int chunk) {
        const dma_chunk_t& one = record(chunk);
        const auto name = text_in(one.name);
        if (!name.has_value()) {
            add(rules::name_not_terminated, chunk);
        } else if (name->empty()) {
            add(rules::name_empty, chunk);
        } else {
            check_name(chunk, *name);
        }
        const auto creator = text_in(one.creator);
        if (!creator.has_value()) {
            add(rules::creator_not_terminated, chunk);
        } else if (creator->empty()) {
            add(rules::creator_empty, chunk);
        }
    }

    void check_name(int chunk, std::string_view name) {
        const auto [known, is_new] = _named.try_emplace(name, chunk);
        if (!is_new) {
            add(rules::name_twice, chunk, name, known->second);
        }
    }

    /// The size tells an element that was just taken from a chunk that was found.
    void check_free(int chunk) {
        const uint32_t size = record(chunk).size;
        if (record(chunk).allocated == 0 && size != 0) {
            add(rules::free_with_size, chunk, size);
        }
    }

    const shared_area_t& _area;
    const list_members& _members;
    const check_options& _options;
    report& _found;
    region_bounds _region{0, std::numeric_limits<uint64_t>::max()};
    uint64_t _furthest_end = 0;
    int _furthest = -1;
    std::unordered_map<std::string_view, int> _named;
};

} // namespace

void check_chunks(const shared_area_t& area, const list_members& chunks,
                  const check_options& options, report& found) {
    chunk_check(area, chunks, options, found).check();
}

} // namespace tarvoctl
