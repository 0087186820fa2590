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

int library::unmap_memory(uint64_t bytes) {
    const int error = refused("munmap");
    if (error == 0) {
        _process.held.memory_bytes -= rounded_to_pages(bytes);
    }
    return error;
}

std::optional<mapping> library::map(const text& name, bool writable, uint64_t offset,
                                    uint64_t size) {
    require(name.has_value(), "tarvo", "name");
    require(!read(name).empty(), "tarvo", "strlen(name)");
    if (!init_or_say() || !lock()) {
        return std::nullopt;
    }
    const chunk* const one = find_by_name(read(name));
    std::optional<mapping> made;
    if (one != nullptr) {
        if (!chunk_desc_check(*one)) {
            unlock();
            require(false, "tarvo", "0");
        }
        made = map_window(*one, writable, offset, size);
    }
    unlock();
    return made;
}

std::optional<mapping> library::map_window(const chunk& whole, bool writable, uint64_t offset,
                                           uint64_t size) {
    const chunk* const one = &whole;
    if (size == 0) {
        size = one->size - static_cast<uint32_t>(offset);
    }
    const auto end = static_cast<uint32_t>(offset + size);
    if (offset > one->size || end > one->size || size > one->size) {
        say(text_of(" offset %llx > chunk->size %x or offset + size %x is \n", wide(offset),
                    one->size, end));
        return std::nullopt;
    }
    if (refused("mmap64") != 0 || size == 0 || (one->pa + offset) % page_bytes() != 0) {
        return std::nullopt; // which is only traced
    }
    map_memory(size);
    return mapping{one->pa + offset, size, writable};
}

int library::unmap(const text& name, uint64_t va, uint64_t size, const std::string& va_text) {
    require(!read(name).empty() && va != 0, "tarvo", "strlen(name) && va");
    if (!init_or_say() || !lock()) {
        return -1;
    }
    const chunk* const one = find_by_name(read(name));
    if (one == nullptr) {
        unlock();
    }
    require(one != nullptr, "tarvo", "found");
    require(size <= one->size, "tarvo", "size <= chunk->size");
    const uint64_t bytes = size != 0 ? size : one->size;
    const bool is_possible = bytes != 0 && va % page_bytes() == 0;
    if (const int error = is_possible ? unmap_memory(bytes) : EINVAL; error != 0) {
        say(text_of("tarvo: failed to unmap chunk, pa: %llx, va: %s, size: %u, %s\n", wide(one->pa),
                    va_text.c_str(), one->size, std::strerror(error)));
    }
    unlock();
    return 0;
}

library::answer library::find(uint32_t dma) {
    if (!init_or_say() || !lock()) {
        return {};
    }
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
    if (_process.has_whole_region) {
        _process.whole_region_count++;
        return whole_region::same;
    }
    require(_process.whole_region_count == 0, "tarvo", "tarvo_mapall_refcount == 0");
    // Counted also where it fails, so that it is not tried again.
    _process.whole_region_count++;
    if (refused("mmap64") != 0) {
        say(text_of("tarvo: failed to mmap size %llu\n", wide(_machine.where.bytes)));
        return whole_region::null;
    }
    map_memory(_machine.where.bytes);
    _process.has_whole_region = true;
    return whole_region::fresh;
}

void library::unmap_all() {
    require(_process.has_whole_region, "tarvo", "tarvo_mapall_va");
    if (_process.whole_region_count == 1) {
        if (const int error = unmap_memory(_machine.where.bytes); error != 0) {
            say(text_of("tarvo: failed to unmap chunk, va: %s, size: %llu, error: %s\n",
                        whole_region_label, wide(_machine.where.bytes), std::strerror(error)));
        }
        _process.has_whole_region = false;
    }
    _process.whole_region_count--;
}

bool library::dump_begin() {
    if (!init_or_say() || !lock()) {
        return false;
    }
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
    const std::string line =
        device_name(shown_device) + ": " + (shown_device.online ? "online" : "offline");
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
