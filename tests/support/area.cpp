#include "area.hpp"

#include "joined.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

constexpr int32_t none = -1;
constexpr int chunk_count = 16384;
constexpr int device_count = 256;
constexpr int ref_count = 256; // of each chunk
constexpr size_t name_room = 50;
constexpr size_t creator_room = 100;

size_t element_offset(size_t first, int index, size_t bytes_each, int count) {
    if (index < 0 || index >= count) {
        throw std::out_of_range(joined("element ", index, " of ", count));
    }
    return first + static_cast<size_t>(index) * bytes_each;
}

/// One of the lists, wherever it lies. All elements begin alike.
struct list_place {
    std::string name;
    size_t first;
    size_t bytes_each;
    int count;
    size_t ends;

    size_t at(int index) const { return element_offset(first, index, bytes_each, count); }
    bool has(int index) const { return index >= 0 && index < count; }
};

list_place chunk_list() {
    return {"chunks", area_offset::first_chunk, area_offset::chunk_bytes, chunk_count,
            area_offset::chunks_head};
}

list_place device_list() {
    return {"devices", area_offset::first_device, area_offset::device_bytes, device_count,
            area_offset::devices_head};
}

list_place ref_list(int chunk_index) {
    const size_t chunk = area_offset::chunk(chunk_index);
    return {joined("devs of chunk ", chunk_index), chunk + area_offset::devs,
            area_offset::ref_bytes, ref_count, chunk + area_offset::devs_head};
}

area_ends ends_at(const area_view& area, size_t offset) {
    return {area.i32(offset), area.i32(offset + 4), area.i32(offset + 8)};
}

/// The elements that a walk came by, and the rule that stopped it before its end.
struct walk {
    std::vector<int> visited;
    std::optional<std::string> breach;

    std::vector<int> whole() && {
        if (breach) {
            throw std::runtime_error(*breach);
        }
        return std::move(visited);
    }
};

/// Follows `next` from `start` until `last` has been visited, or to -1 where `last` is -1.
walk follow(const area_view& area, const list_place& list, int start, int last) {
    walk way;
    std::vector<bool> seen(static_cast<size_t>(list.count));
    int previous = none;
    for (int at = start; previous == none || previous != last;) {
        if (at == none && last == none) {
            return way;
        }
        if (!list.has(at)) {
            way.breach =
                joined(list.name, ": link ", at, " after element ", previous, " is out of range");
            return way;
        }
        if (seen[static_cast<size_t>(at)]) {
            way.breach = joined(list.name, ": element ", at, " after element ", previous,
                                " was already visited");
            return way;
        }
        seen[static_cast<size_t>(at)] = true;
        way.visited.push_back(at);
        previous = at;
        at = area.i32(list.at(at) + area_offset::next);
    }
    return way;
}

walk follow_list(const area_view& area, const list_place& list) {
    const area_ends ends = ends_at(area, list.ends);
    if (ends.head == none && ends.tail == none) {
        return {};
    }
    if (!list.has(ends.head) || !list.has(ends.tail)) {
        return {{}, joined(list.name, ": head ", ends.head, ", tail ", ends.tail)};
    }
    return follow(area, list, ends.head, ends.tail);
}

template <typename Read>
auto records_of(const area_view& area, const list_place& list, Read read) {
    std::vector<decltype(read(0))> records;
    std::ranges::transform(follow_list(area, list).whole(), std::back_inserter(records), read);
    return records;
}

walk follow_free_chain(const area_view& area, const list_place& list) {
    return follow(area, list, ends_at(area, list.ends).free, none);
}

} // namespace

namespace area_offset {

size_t chunk(int index) {
    return element_offset(first_chunk, index, chunk_bytes, chunk_count);
}

size_t device(int index) {
    return element_offset(first_device, index, device_bytes, device_count);
}

size_t ref(int chunk_index, int index) {
    return element_offset(chunk(chunk_index) + devs, index, ref_bytes, ref_count);
}

} // namespace area_offset

area_view::area_view(std::span<const uint8_t> bytes) : _bytes(bytes) {
    if (bytes.size() < area_offset::content_end) {
        throw std::runtime_error(joined("an area of only ", bytes.size(), " bytes"));
    }
}

std::span<const uint8_t> area_view::raw(size_t offset, size_t count) const {
    if (offset > _bytes.size() || count > _bytes.size() - offset) {
        throw std::out_of_range(joined(count, " bytes at ", offset, " of ", _bytes.size()));
    }
    return _bytes.subspan(offset, count);
}

uint8_t area_view::u8(size_t offset) const {
    return raw(offset, 1)[0];
}

uint32_t area_view::u32(size_t offset) const {
    const std::span<const uint8_t> b = raw(offset, 4);
    return uint32_t{b[0]} | uint32_t{b[1]} << 8U | uint32_t{b[2]} << 16U | uint32_t{b[3]} << 24U;
}

int32_t area_view::i32(size_t offset) const {
    return static_cast<int32_t>(u32(offset));
}

uint64_t area_view::u64(size_t offset) const {
    return u32(offset) | uint64_t{u32(offset + 4)} << 32U;
}

std::string area_view::text(size_t offset, size_t room) const {
    const std::span<const uint8_t> field = raw(offset, room);
    return {field.begin(), std::ranges::find(field, uint8_t{0})};
}

area_ends area_view::chunk_ends() const {
    return ends_at(*this, area_offset::chunks_head);
}

area_ends area_view::device_ends() const {
    return ends_at(*this, area_offset::devices_head);
}

area_chunk area_view::chunk(int index) const {
    const size_t at = area_offset::chunk(index);
    return {.index = index,
            .next = i32(at + area_offset::next),
            .prev = i32(at + area_offset::prev),
            .allocated = u8(at + area_offset::allocated),
            .name = text(at + area_offset::name, name_room),
            .pa = u64(at + area_offset::pa),
            .size = u32(at + area_offset::size),
            .creator = text(at + area_offset::creator, creator_room),
            .devs = ends_at(*this, at + area_offset::devs_head)};
}

area_device area_view::device(int index) const {
    const size_t at = area_offset::device(index);
    return {.index = index,
            .next = i32(at + area_offset::next),
            .prev = i32(at + area_offset::prev),
            .allocated = u8(at + area_offset::allocated),
            .domain = i32(at + area_offset::domain),
            .bus = i32(at + area_offset::bus),
            .devfn = i32(at + area_offset::devfn),
            .online = u8(at + area_offset::online)};
}

area_ref area_view::ref(int chunk_index, int index) const {
    const size_t at = area_offset::ref(chunk_index, index);
    return {.index = index,
            .next = i32(at + area_offset::next),
            .prev = i32(at + area_offset::prev),
            .allocated = u8(at + area_offset::allocated),
            .dev = i32(at + area_offset::dev)};
}

std::span<const uint8_t> area_view::chunk_bytes(int index) const {
    return raw(area_offset::chunk(index), area_offset::chunk_bytes);
}

std::vector<area_chunk> area_view::chunks() const {
    return records_of(*this, chunk_list(), [this](int index) { return chunk(index); });
}

std::vector<area_device> area_view::devices() const {
    return records_of(*this, device_list(), [this](int index) { return device(index); });
}

std::vector<area_ref> area_view::refs(int chunk_index) const {
    return records_of(*this, ref_list(chunk_index),
                      [=, this](int index) { return ref(chunk_index, index); });
}

std::vector<int> area_view::free_chunks() const {
    return follow_free_chain(*this, chunk_list()).whole();
}

std::vector<int> area_view::free_devices() const {
    return follow_free_chain(*this, device_list()).whole();
}

std::vector<int> area_view::free_refs(int chunk_index) const {
    return follow_free_chain(*this, ref_list(chunk_index)).whole();
}

void area_writer::u8(size_t offset, uint8_t value) const {
    if (offset >= _bytes.size()) {
        throw std::out_of_range(joined("byte ", offset, " of ", _bytes.size()));
    }
    _bytes[offset] = value;
}

void area_writer::u32(size_t offset, uint32_t value) const {
    for (size_t byte = 0; byte < 4; ++byte) {
        u8(offset + byte, static_cast<uint8_t>(value >> 8 * byte));
    }
}

void area_writer::i32(size_t offset, int32_t value) const {
    u32(offset, static_cast<uint32_t>(value));
}

void area_writer::u64(size_t offset, uint64_t value) const {
    u32(offset, static_cast<uint32_t>(value));
    u32(offset + 4, static_cast<uint32_t>(value >> 32U));
}

void area_writer::text(size_t offset, std::string_view value) const {
    for (const char letter : value) {
        u8(offset++, static_cast<uint8_t>(letter));
    }
    u8(offset, 0);
}

area_file::area_file(const std::filesystem::path& path, access wanted) {
    const bool writing = wanted == access::write;
    const int fd = open(path.c_str(), (writing ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd == -1) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    const auto length = static_cast<size_t>(lseek(fd, 0, SEEK_END));
    if (length < area_offset::content_end) {
        close(fd);
        throw std::runtime_error(joined(path, ": an area of only ", length, " bytes"));
    }
    // Who reads looks at most of its 70 MB: one call instead of a thousand faults.
    void* address = mmap(nullptr, length, writing ? PROT_READ | PROT_WRITE : PROT_READ,
                         MAP_SHARED | (writing ? 0 : MAP_POPULATE), fd, 0);
    const int mmap_errno = errno;
    close(fd);
    if (address == MAP_FAILED) {
        throw std::system_error(mmap_errno, std::generic_category(), path);
    }
    _bytes = {static_cast<uint8_t*>(address), length};
}

area_file::~area_file() {
    munmap(_bytes.data(), _bytes.size());
}
