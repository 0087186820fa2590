// The library model: what a process maps and looks at.

#include "library_model.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace model {

namespace {

/// The element after one that is on its list; nothing after the last.
template <typename List>
std::optional<int> following(const List& list, int element) {
    for (size_t i = 0; i + 1 < list.size(); i++) {
        if (list[i].element == element) {
            return list[i + 1].element;
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<mapping> library::map(const text& name, bool writable, uint64_t offset,
                                    uint64_t size) {
    require(name.has_value(), "tarvo", "name");
    require(!read(name).empty(), "tarvo", "strlen(name)");
    if (!init_or_say()) {
        return std::nullopt;
    }
    lock();
    const chunk* const one = find_by_name(read(name));
    if (one == nullptr) {
        unlock();
        return std::nullopt;
    }
    const bool good = chunk_desc_check(*one);
    unlock();
    require(good, "tarvo", "0");
    if (size == 0) {
        size = one->size - static_cast<uint32_t>(offset);
    }
    const auto end = static_cast<uint32_t>(offset + size);
    if (offset > one->size || end > one->size || size > one->size) {
        say(text_of(" offset %llx > chunk->size %x or offset + size %x is \n", wide(offset),
                    one->size, end));
        return std::nullopt;
    }
    if (size == 0 || (one->pa + offset) % page_bytes() != 0) {
        return std::nullopt; // refused by the system, which is only traced
    }
    return mapping{one->pa + offset, size, writable};
}

int library::unmap(const text& name, uint64_t va, uint64_t size, const std::string& va_text) {
    require(!read(name).empty() && va != 0, "tarvo", "strlen(name) && va");
    if (!init_or_say()) {
        return -1;
    }
    lock();
    const chunk* const one = find_by_name(read(name));
    if (one == nullptr) {
        unlock();
    }
    require(one != nullptr, "tarvo", "found");
    require(size <= one->size, "tarvo", "size <= chunk->size");
    const uint64_t bytes = size != 0 ? size : one->size;
    unlock();
    if (bytes == 0 || va % page_bytes() != 0) {
        say(text_of("tarvo: failed to unmap chunk, pa: %llx, va: %s, size: %u, %s\n", wide(one->pa),
                    va_text.c_str(), one->size, std::strerror(EINVAL)));
    }
    return 0;
}

library::answer library::find(uint32_t dma) {
    if (!init_or_say()) {
        return {};
    }
    lock();
    const uint64_t pa = dma_to_pa(dma);
    const auto holder = std::ranges::find_if(
        _area.chunks, [=](const chunk& one) { return one.pa <= pa && pa < one.end(); });
    answer given{std::nullopt, 0};
    if (holder != _area.chunks.end()) {
        given = {holder->name, pa_to_dma(holder->pa)};
    }
    unlock();
    return given;
}

library::whole_region library::map_all() {
    if (!init_or_say()) {
        return whole_region::null;
    }
    return _process.whole_region_count++ == 0 ? whole_region::fresh : whole_region::same;
}

void library::unmap_all() {
    require(_process.whole_region_count != 0, "tarvo", "tarvo_mapall_va");
    _process.whole_region_count--;
}

bool library::dump_begin() {
    if (!init_or_say()) {
        return false;
    }
    lock();
    _process.chunk_cursor = following(_area.chunks, _area.head().element);
    _process.device_cursor.reset();
    if (!_area.devices.empty()) {
        _process.device_cursor = _area.devices.front().element;
    }
    return true;
}

/// The cursor stays where it is when the chunk is freed meanwhile; then it shows a zeroed record.
std::optional<std::string> library::dump_next(uint64_t room) {
    std::optional<int>& cursor = _process.chunk_cursor;
    if (!cursor || *cursor == _area.tail().element) {
        return std::nullopt;
    }
    const chunk* const listed = _area.chunk_at(*cursor);
    const chunk shown_chunk = listed == nullptr ? chunk{} : *listed;
    const std::string line = text_of("%3d %-*s %-*s 0x%012llx %9d", *cursor, 60,
                                     shown_chunk.name.c_str(), 110, shown_chunk.creator.c_str(),
                                     wide(shown_chunk.pa), static_cast<int>(shown_chunk.size));
    if (line.size() >= room) {
        return std::nullopt;
    }
    require(listed != nullptr, in_next, "cur->allocated");
    cursor = following(_area.chunks, *cursor);
    return line;
}

std::optional<std::string> library::dump_next_device(uint64_t room) {
    std::optional<int>& cursor = _process.device_cursor;
    if (!cursor) {
        return std::nullopt;
    }
    const device* const listed = _area.device_at(*cursor);
    const device shown_device = listed == nullptr ? device{} : *listed;
    const std::string line = text_of("%04x:%02x:%02x.%x: %s", shown_device.domain, shown_device.bus,
                                     (shown_device.devfn >> 3U) & 0x1fU, shown_device.devfn & 7U,
                                     shown_device.online ? "online" : "offline");
    if (line.size() >= room) {
        return std::nullopt;
    }
    require(listed != nullptr, in_next, "cur->allocated");
    cursor = following(_area.devices, *cursor);
    return line;
}

int library::dump_end() {
    _process.chunk_cursor.reset();
    _process.device_cursor.reset();
    unlock();
    return 0;
}

} // namespace model
