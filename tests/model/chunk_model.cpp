// The library model: making chunks, giving them up, and memory of the kernel's allocator.

#include "library_model.hpp"

#include <cerrno>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace model {

namespace {

constexpr uint64_t no_cma = std::numeric_limits<uint64_t>::max();

/// All of it, or the first and the last 47 characters: a field of 100 bytes holds no more.
std::string stored_creator(const std::string& creator) {
    if (creator.size() <= 99) {
        return creator;
    }
    return creator.substr(0, 47) + " ... " + creator.substr(creator.size() - 47);
}

std::string cma_command(char letter, const std::string& name, uint32_t size) {
    return text_of("%c %s %x\n", letter, name.c_str(), size);
}

} // namespace

/// The first chunk of that name; neither sentinel is one.
chunk* library::find_by_name(const std::string& name) {
    for (size_t i = 1; i + 1 < _area.chunks.size(); i++) {
        if (_area.chunks[i].name == name) {
            return &_area.chunks[i];
        }
    }
    return nullptr;
}

bool library::chunk_desc_check(const chunk& one) {
    const bool good = one.pa >= _machine.where.start && one.end() <= _machine.where.end();
    if (!good) {
        say(text_of("tarvo: chunk_desc_check() - DMA memory corrupted: chunk (%d), pa (%llx), "
                    "size (%d)\n",
                    one.element, static_cast<unsigned long long>(one.pa),
                    static_cast<int>(one.size)));
    }
    return good;
}

uint32_t library::alloc(const text& name, uint64_t size, const text& creator) {
    if (!init_or_say()) {
        return 0;
    }
    require(!read(name).empty() && read(name).size() < 50, "tarvo",
            "len_name > 0 && (len_name < 50)");
    require(!read(creator).empty(), "tarvo", "len_agent_name > 0");
    require(size != 0, "tarvo", "size");
    if (!lock()) {
        return 0;
    }
    const auto page = static_cast<uint32_t>(page_bytes());
    const uint32_t rounded = page * ((static_cast<uint32_t>(size) + page - 1) / page);
    chunk* const existing = find_by_name(read(name));
    if (existing != nullptr && existing->size == rounded) {
        return reuse(*existing);
    }
    if (existing != nullptr) {
        say("tarvo: find_chunk_desc() size mismatch, see tarvo\n\n");
    }
    return make_chunk(read(name), rounded, read(creator));
}

uint32_t library::reuse(chunk& existing) {
    if (!chunk_desc_check(existing)) {
        return discard(existing);
    }
    unlock();
    return pa_to_dma(existing.pa);
}

/// Takes a chunk off the list, where it is on it, without a word to the IOMMU.
uint32_t library::discard(const chunk& one) {
    const std::string name = one.name;
    const uint32_t size = one.size;
    _area.give_back_chunk(one.element);
    if (_machine.where.cma) {
        free_cma_allocation(name, size);
    }
    unlock();
    return 0;
}

uint32_t library::make_chunk(const std::string& name, uint32_t rounded,
                             const std::string& creator) {
    if (_area.free_chunks.empty()) {
        unlock();
        return 0;
    }
    chunk fresh;
    fresh.element = _area.take_chunk();
    fresh.name = name;
    fresh.size = rounded;
    fresh.creator = stored_creator(creator);
    const bool placed = _machine.where.cma ? place_in_cma(fresh) : place_in_region(fresh);
    return placed ? finish(*_area.chunk_at(fresh.element)) : discard(fresh);
}

void library::insert(chunk& fresh, size_t position) {
    fresh.devs.emplace();
    _area.chunks.insert(_area.chunks.begin() + static_cast<std::ptrdiff_t>(position), fresh);
}

/// First fit, at the low end of the gap.
bool library::place_in_region(chunk& fresh) {
    for (size_t cur = 1; cur < _area.chunks.size(); cur++) {
        const chunk& prev = _area.chunks[cur - 1];
        if (_area.chunks[cur].pa - prev.pa - prev.size >= fresh.size) {
            fresh.pa = prev.end();
            insert(fresh, cur);
            return true;
        }
    }
    return false;
}

/// Where the driver says, if that is in a gap; the end is not looked at.
bool library::place_in_cma(chunk& fresh) {
    fresh.pa = get_cma_allocation(fresh.name, fresh.size);
    for (size_t cur = 1; fresh.pa != 0 && cur < _area.chunks.size(); cur++) {
        if (_area.chunks[cur - 1].end() <= fresh.pa && fresh.pa < _area.chunks[cur].pa) {
            insert(fresh, cur);
            return true;
        }
    }
    return false;
}

uint32_t library::finish(const chunk& fresh) {
    if (!chunk_desc_check(fresh)) {
        return discard(fresh);
    }
    const int element = fresh.element;
    if (map_chunk_all_devs(*_area.chunk_at(element)) != 0) {
        roll_back(element);
    }
    unlock();
    zero_memory(fresh);
    return pa_to_dma(fresh.pa);
}

int library::zero_or_fail(const chunk& fresh) {
    if (const int error = refused("mmap64"); error != 0) {
        return error;
    }
    if (fresh.size == 0 || fresh.pa % page_bytes() != 0) {
        return EINVAL;
    }
    map_memory(fresh.size);
    const bool is_zeroed = has_room();
    const int error = unmap_memory(fresh.size);
    return is_zeroed ? 0 : error != 0 ? error : EFAULT;
}

void library::zero_memory(const chunk& fresh) {
    if (const int error = zero_or_fail(fresh); error != 0) {
        perror("tarvo_alloc: mmap failed!", error);
        lock();
        roll_back(fresh.element);
    }
    _machine.pages.erase(_machine.pages.lower_bound(fresh.pa),
                         _machine.pages.lower_bound(fresh.end()));
}

/// The chunk is unmapped only after its record was zeroed, which ends the process.
void library::roll_back(int element) {
    _area.give_back_chunk(element);
    chunk zeroed;
    unmap_chunk_all_devs(zeroed);
    throw std::logic_error("unmapping a zeroed record went well");
}

int library::free(const text& name) {
    require(!read(name).empty(), "tarvo", "len");
    if (!init_or_say() || !lock()) {
        return -1;
    }
    chunk* doomed = find_by_name(*name);
    // The last element is compared here, too.
    if (doomed == nullptr && _area.tail().name == *name) {
        doomed = &_area.tail();
    }
    if (doomed == nullptr || (_machine.where.cma && free_cma_allocation(*name, doomed->size) < 0)) {
        unlock();
        return -1;
    }
    const int result = unmap_chunk_all_devs(*doomed);
    if (result == 0) {
        _area.give_back_chunk(doomed->element);
    }
    unlock();
    return result;
}

uint64_t library::get_cma_allocation(const std::string& name, uint32_t size) {
    if (!ask_for_cma(name, size)) {
        return no_cma;
    }
    listing seen;
    if (const int error = open_driver_to_read(seen); error != 0) {
        say(text_of("Error opening /proc/tarvo: %s\n", std::strerror(error)));
        return no_cma;
    }
    const uint64_t pa = look_up_cma(name, size, seen);
    close_driver();
    return pa;
}

bool library::ask_for_cma(const std::string& name, uint32_t size) {
    if (const int error = open_driver_to_write("proc"); error != 0) {
        say(text_of("Error opening /proc/tarvo: %s\n", std::strerror(error)));
        return false;
    }
    const request asked{"allocate", {}, 0, name, size};
    int error = refused("write");
    if (error == 0) {
        error = _machine.kernel.write("proc", asked, cma_command('a', name, size));
    }
    const bool accepted = error == 0 || error == EEXIST;
    if (!accepted) {
        say(text_of("Error allocating CMA: %s\n", std::strerror(error)));
    }
    close_driver(&asked);
    return accepted;
}

uint64_t library::look_up_cma(const std::string& name, uint32_t size, const listing& shown) {
    if (refused("fgets") != 0 || shown.is_empty()) {
        say("Expected at least 1 line in /proc/tarvo\n");
        return no_cma;
    }
    // The first line is skipped unread, whatever it is.
    for (size_t i = shown.has_region_line ? 0 : 1; i < shown.lines.size(); i++) {
        if (refused("fgets") != 0) {
            return no_cma; // as at the end
        }
        const listing_line& line = shown.lines[i];
        if (!line.pa || !line.size) {
            say("Error parsing /proc/tarvo\n");
            return no_cma;
        }
        if (line.name == name && *line.size == size) {
            return *line.pa;
        }
    }
    return no_cma;
}

int library::free_cma_allocation(const std::string& name, uint32_t size) {
    if (const int error = open_driver_to_write("proc"); error != 0) {
        say(text_of("Error opening /proc/tarvo: %s\n", std::strerror(error)));
        return -1;
    }
    // The line leaves the buffer when the file is closed, where a refusal goes unnoticed.
    const request asked{"release", {}, 0, name, size};
    const bool is_printed = refused("fprintf") == 0;
    if (is_printed) {
        _machine.kernel.write("proc", asked, cma_command('r', name, size));
    } else {
        // The text of the result, not of errno.
        say(text_of("Error freeing CMA %s\n", std::strerror(-1)));
    }
    close_driver(&asked);
    return is_printed ? 0 : -1;
}

} // namespace model
