#include "repair_write.hpp"

#include "list_walk.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <fmt/format.h>

namespace tarvoctl {

namespace {

constexpr uint8_t allocated = 1;

/// The free chain as far as it is sound: elements that are free, each once.
std::vector<int> sound_free_chain(const list_links& links, std::vector<bool>& met) {
    std::vector<int> chain;
    walk(links, links.free, &list_links::next, [&](int element) {
        const bool is_free = !met[static_cast<size_t>(element)];
        if (is_free) {
            met[static_cast<size_t>(element)] = true;
            chain.push_back(element);
        }
        return is_free;
    });
    return chain;
}

/// All free elements: those that are missing in front, as the container gives elements back.
std::vector<int> whole_free_chain(const list_links& links, const std::vector<bool>& in_use) {
    std::vector<bool> met = in_use;
    const std::vector<int> sound = sound_free_chain(links, met);
    std::vector<int> chain;
    for (int element = 0; element < links.capacity; ++element) {
        if (!met[static_cast<size_t>(element)]) {
            chain.push_back(element);
        }
    }
    chain.insert(chain.end(), sound.begin(), sound.end());
    return chain;
}

std::string_view reason_to_clear(const list_links& links, int element) {
    return links.flag(element) != 0 ? "marked allocated, but no part of the list: given back"
                                    : "free: cleared of what is left there";
}

} // namespace

bool plan_writer::holds(size_t offset, std::span<const uint8_t> wanted) const {
    return std::equal(wanted.begin(), wanted.end(),
                      _bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

void plan_writer::write(size_t offset, std::span<const uint8_t> after, place where,
                        std::string_view why) {
    if (!holds(offset, after)) {
        const auto before = _bytes.subspan(offset, after.size());
        _plan.edits.push_back({offset,
                               {before.begin(), before.end()},
                               {after.begin(), after.end()},
                               where,
                               std::string(why)});
    }
}

void plan_writer::set_byte(size_t offset, uint8_t value, place where, std::string_view why) {
    write(offset, {&value, 1}, where, why);
}

/// Nearly all links are as they should be, so their texts are not even made.
void plan_writer::set_link(size_t offset, int32_t value, place where, link_text why) {
    const auto bytes = std::bit_cast<std::array<uint8_t, sizeof value>>(value);
    if (!holds(offset, bytes)) {
        write(offset, bytes, where, fmt::format(why, value));
    }
}

void plan_writer::clear(size_t offset, size_t bytes, place where, std::string_view why) {
    const auto field = _bytes.subspan(offset, bytes);
    if (is_zero(field)) {
        return;
    }
    const auto holds_something = [](uint8_t byte) { return byte != 0; };
    const auto first = std::find_if(field.begin(), field.end(), holds_something);
    const auto end = std::find_if(field.rbegin(), field.rend(), holds_something).base();
    const std::vector<uint8_t> zeros(static_cast<size_t>(end - first));
    write(offset + static_cast<size_t>(first - field.begin()), zeros, where, why);
}

void plan_writer::write_order(const list_links& links, const std::vector<int>& order) {
    for (size_t i = 0; i < order.size(); ++i) {
        const int element = order[i];
        const int next = order[(i + 1) % order.size()];
        const int prev = order[(i + order.size() - 1) % order.size()];
        const size_t offset = links.offset_of(element);
        const place where = links.at(element);
        set_link(offset + list_links::next_offset, next, where,
                 "next becomes {}, the element that follows");
        set_link(offset + list_links::prev_offset, prev, where,
                 "prev becomes {}, the element before");
        set_byte(offset + list_links::flag_offset, allocated, where,
                 "on the list, so marked allocated");
    }
}

void plan_writer::write_ends(const list_links& links, const std::vector<int>& order) {
    const int head = order.empty() ? -1 : order.front();
    const int tail = order.empty() ? -1 : order.back();
    const size_t ends = links.ends_offset();
    set_link(ends + list_links::head_offset, head, links.list, "head becomes {}");
    set_link(ends + list_links::tail_offset, tail, links.list, "tail becomes {}");
}

void plan_writer::write_free_chain(const list_links& links, const std::vector<bool>& in_use) {
    const std::vector<int> chain = whole_free_chain(links, in_use);
    for (size_t i = 0; i < chain.size(); ++i) {
        const int element = chain[i];
        const int next = i + 1 < chain.size() ? chain[i + 1] : -1;
        const size_t offset = links.offset_of(element);
        clear(offset + list_links::prev_offset, links.element_bytes - list_links::prev_offset,
              links.at(element), reason_to_clear(links, element));
        set_link(offset + list_links::next_offset, next, links.at(element),
                 "next becomes {}, the free element that follows");
    }
    const int first = chain.empty() ? -1 : chain.front();
    set_link(links.ends_offset() + list_links::free_offset, first, links.list,
             "the free chain begins with {}");
}

void plan_writer::write_list(const list_links& links, const decided_list& decided) {
    write_order(links, decided.order);
    write_ends(links, decided.order);
    std::vector<bool> in_use(static_cast<size_t>(links.capacity));
    for (const auto* elements : {&decided.order, &decided.left_alone}) {
        for (const int element : *elements) {
            in_use[static_cast<size_t>(element)] = true;
        }
    }
    write_free_chain(links, in_use);
}

void plan_writer::write_small_list(const list_links& links, const decided_list& decided) {
    constexpr size_t many = 32;
    const size_t first_edit = _plan.edits.size();
    write_list(links, decided);
    if (_plan.edits.size() - first_edit > many) {
        fuse(first_edit, links.offset, links.ends_offset() + list_links::ends_bytes - links.offset,
             links.list);
    }
}

/// Makes one edit of all from `first_edit` on, which lie within those bytes.
void plan_writer::fuse(size_t first_edit, size_t offset, size_t bytes, place where) {
    const auto before = _bytes.subspan(offset, bytes);
    std::vector<uint8_t> after(before.begin(), before.end());
    const auto first = _plan.edits.begin() + static_cast<std::ptrdiff_t>(first_edit);
    const auto count = _plan.edits.end() - first;
    for (auto edit = first; edit != _plan.edits.end(); ++edit) {
        std::copy(edit->after.begin(), edit->after.end(),
                  after.begin() + static_cast<std::ptrdiff_t>(edit->offset - offset));
    }
    _plan.edits.erase(first, _plan.edits.end());
    write(offset, after, where, fmt::format("the list is built anew: {} changes", count));
}

} // namespace tarvoctl
