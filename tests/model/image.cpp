#include "image.hpp"

#include "area.hpp"
#include "world.hpp"

#include <algorithm>
#include <array>
#include <sstream>

namespace model {

namespace {

namespace at = area_offset;

constexpr int none = -1;

int front_of(const std::deque<int>& free) {
    return free.empty() ? none : free.front();
}

/// Element numbers of a list's neighbours; the list is a circle.
template <typename List>
int after(const List& list, size_t i) {
    return list[(i + 1) % list.size()].element;
}

template <typename List>
int before(const List& list, size_t i) {
    return list[(i + list.size() - 1) % list.size()].element;
}

/// Head, tail and first free element lie one after the other in every container.
template <typename List>
void show_ends(const area_writer& writer, size_t offset, const List& list,
               const std::deque<int>& free) {
    writer.i32(offset, list.empty() ? none : list.front().element);
    writer.i32(offset + 4, list.empty() ? none : list.back().element);
    writer.i32(offset + 8, front_of(free));
}

void show_links(const area_writer& writer, size_t element, int next, int prev) {
    writer.i32(element + at::next, next);
    writer.i32(element + at::prev, prev);
    writer.u8(element + at::allocated, 1);
}

/// Links the free elements up to the first that `seen` does not accept: those after it never
/// changed.
template <typename Offset, typename Accept>
void show_free_chain(const area_writer& writer, const std::deque<int>& free, Offset offset,
                     Accept seen) {
    for (size_t i = 0; i < free.size() && seen(free[i]); i++) {
        writer.i32(offset(free[i]) + at::next, i + 1 < free.size() ? free[i + 1] : none);
    }
}

bool any(int /*element*/) {
    return true;
}

struct named_field {
    size_t start;
    const char* name;
};

template <size_t Count>
const char* name_in(const std::array<named_field, Count>& fields, size_t offset) {
    const char* name = "";
    for (const named_field& field : fields) {
        name = field.start <= offset ? field.name : name;
    }
    return name;
}

std::string ref_field(size_t offset) {
    constexpr std::array<named_field, 5> fields{
        {{0, "next"}, {4, "prev"}, {8, "allocated"}, {9, "padding"}, {12, "dev"}}};
    return "devs[" + std::to_string(offset / at::ref_bytes) + "]." +
           name_in(fields, offset % at::ref_bytes);
}

std::string chunk_field(size_t offset) {
    constexpr std::array<named_field, 11> fields{{{0, "next"},
                                                  {4, "prev"},
                                                  {8, "allocated"},
                                                  {at::name, "name"},
                                                  {59, "padding"},
                                                  {at::pa, "pa"},
                                                  {at::size, "size"},
                                                  {at::creator, "creator"},
                                                  {at::devs_head, "devs._head"},
                                                  {at::devs_tail, "devs._tail"},
                                                  {at::devs_free, "devs._free"}}};
    const bool in_refs = offset >= at::devs && offset < at::devs_head;
    return in_refs ? ref_field(offset - at::devs) : name_in(fields, offset);
}

std::string device_field(size_t offset) {
    constexpr std::array<named_field, 9> fields{{{0, "next"},
                                                 {4, "prev"},
                                                 {8, "allocated"},
                                                 {9, "padding"},
                                                 {at::domain, "domain"},
                                                 {at::bus, "bus"},
                                                 {at::devfn, "devfn"},
                                                 {at::online, "online"},
                                                 {25, "padding"}}};
    return name_in(fields, offset);
}

std::string element_field(const char* list, size_t offset, size_t bytes_each,
                          std::string (*field)(size_t)) {
    return std::string(list) + "[" + std::to_string(offset / bytes_each) + "]." +
           field(offset % bytes_each);
}

} // namespace

std::string field_at(size_t offset) {
    constexpr std::array<named_field, 7> ends{{{at::chunks_head, "chunks._head"},
                                               {at::chunks_tail, "chunks._tail"},
                                               {at::chunks_free, "chunks._free"},
                                               {at::devices_head, "devices._head"},
                                               {at::devices_tail, "devices._tail"},
                                               {at::devices_free, "devices._free"},
                                               {at::content_end, "after the content"}}};
    if (offset < at::first_chunk) {
        return offset == at::initialized ? "initialized" : "padding";
    }
    if (offset < at::chunks_head) {
        return element_field("chunks", offset - at::first_chunk, at::chunk_bytes, chunk_field);
    }
    if (offset >= at::first_device && offset < at::devices_head) {
        return element_field("devices", offset - at::first_device, at::device_bytes, device_field);
    }
    return name_in(ends, offset);
}

image::image() : _bytes(rounded_to_pages(at::content_end)) {
    const area_writer writer(_bytes);
    writer.u8(at::initialized, 1);
    show_free_chain(writer, all_free(chunk_capacity), at::chunk, any);
}

std::span<uint8_t> image::range(size_t start, size_t end) {
    return std::span(_bytes).subspan(start, end - start);
}

void image::show_refs(const chunk& one) {
    if (!one.devs) {
        return;
    }
    const area_writer writer(_bytes);
    const auto offset = [&](int ref) { return at::ref(one.element, ref); };
    const std::vector<reference>& refs = one.devs->on_list;
    for (size_t i = 0; i < refs.size(); i++) {
        show_links(writer, offset(refs[i].element), after(refs, i), before(refs, i));
        writer.i32(offset(refs[i].element) + at::dev, refs[i].dev);
    }
    show_free_chain(writer, one.devs->free, offset, any);
    show_ends(writer, at::chunk(one.element) + at::devs_head, refs, one.devs->free);
}

void image::show_chunk(const chunk& one, int next, int prev) {
    const area_writer writer(_bytes);
    const size_t start = at::chunk(one.element);
    show_links(writer, start, next, prev);
    writer.text(start + at::name, one.name);
    writer.u64(start + at::pa, one.pa);
    writer.u32(start + at::size, one.size);
    writer.text(start + at::creator, one.creator);
    show_refs(one);
}

void image::show_chunks(const shared_area& area) {
    const int shown = std::max(_shown, area.ever_used);
    std::ranges::fill(range(at::chunk(0), at::chunk(shown)), 0);
    for (size_t i = 0; i < area.chunks.size(); i++) {
        show_chunk(area.chunks[i], after(area.chunks, i), before(area.chunks, i));
    }
    const area_writer writer(_bytes);
    show_free_chain(writer, area.free_chunks, at::chunk, [=](int e) { return e < shown; });
    show_ends(writer, at::chunks_head, area.chunks, area.free_chunks);
    _shown = area.ever_used;
}

void image::show_devices(const shared_area& area) {
    const area_writer writer(_bytes);
    std::ranges::fill(range(at::first_device, at::devices_head), 0);
    for (size_t i = 0; i < area.devices.size(); i++) {
        const device& one = area.devices[i];
        const size_t start = at::device(one.element);
        show_links(writer, start, after(area.devices, i), before(area.devices, i));
        writer.u32(start + at::domain, one.domain);
        writer.u32(start + at::bus, one.bus);
        writer.u32(start + at::devfn, one.devfn);
        writer.u8(start + at::online, one.online ? 1 : 0);
    }
    show_free_chain(writer, area.free_devices, at::device, any);
    show_ends(writer, at::devices_head, area.devices, area.free_devices);
}

void image::show(const shared_area& area) {
    show_chunks(area);
    show_devices(area);
}

std::optional<std::string> image::difference_in(std::span<const uint8_t> actual, size_t start,
                                                size_t end) const {
    const auto expected = std::span(_bytes).subspan(start, end - start);
    const auto seen = actual.subspan(start, end - start);
    const auto [mine, other] = std::ranges::mismatch(expected, seen);
    if (mine == expected.end()) {
        return std::nullopt;
    }
    const size_t offset = start + static_cast<size_t>(mine - expected.begin());
    std::ostringstream text;
    text << "byte " << offset << " (" << field_at(offset) << "): expected " << std::hex << "0x"
         << unsigned{*mine} << ", seen 0x" << unsigned{*other};
    return text.str();
}

std::optional<std::string> image::difference(std::span<const uint8_t> actual) const {
    if (actual.size() != _bytes.size()) {
        return "length: expected " + std::to_string(_bytes.size()) + ", seen " +
               std::to_string(actual.size());
    }
    if (auto found = difference_in(actual, 0, at::chunk(_shown))) {
        return found;
    }
    return difference_in(actual, at::chunks_head, _bytes.size());
}

std::optional<std::string> image::difference_anywhere(std::span<const uint8_t> actual) const {
    if (actual.size() == _bytes.size() && std::ranges::equal(_bytes, actual)) {
        return std::nullopt;
    }
    if (auto found = difference(actual)) {
        return found;
    }
    return difference_in(actual, 0, _bytes.size());
}

} // namespace model
