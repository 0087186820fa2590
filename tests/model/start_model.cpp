// The library model: speaking, ending, start-up, address translation.

#include "library_model.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace model {

namespace {

constexpr const char* not_started = "tarvo: failed to initialize library\n";

uint64_t area_bytes() {
    return rounded_to_pages(content_bytes);
}

} // namespace

std::string text_of(const char* format, ...) {
    std::array<char, 4096> text{};
    va_list values;
    va_start(values, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, values);
    va_end(values);
    return {text.data(), static_cast<size_t>(length)};
}

std::string hexadecimal(uint64_t number) {
    return text_of("0x%llx", wide(number));
}

void library::perror(const char* words, int error) {
    say(std::string(words) + ": " + std::strerror(error) + "\n");
}

void library::require(bool holds, const char* place, const char* expression) {
    if (!holds) {
        say(std::string(place) + ": Assertion `" + expression + "' failed.\n");
        throw process_end{SIGABRT};
    }
}

void library::fault() {
    throw process_end{SIGSEGV};
}

/// Reading a null text faults.
const std::string& library::read(const text& name) {
    if (!name) {
        fault();
    }
    return *name;
}

int library::refused(const char* call) {
    ++_process.calls[call];
    // As the client has it: one order at a time counts down.
    const auto order = std::ranges::find(_process.refusals, call, &refusal::call);
    if (order == _process.refusals.end() || --order->calls_left > 0) {
        return 0;
    }
    const int error = order->error;
    _process.refusals.erase(order);
    return error;
}

bool library::init_or_say() {
    const bool ready = init();
    if (!ready) {
        say(not_started);
    }
    return ready;
}

bool library::init() {
    if (!_process.started) {
        _process.started = start_up();
        if (!_process.started) {
            clean_up();
        }
    }
    return _process.started;
}

bool library::start_up() {
    return find_region() && size_area() && map_area() && open_lock_file() && attach_area();
}

bool library::find_region() {
    const bool found = find_simulated_region() || find_hardware_region();
    if (!found) {
        say("tarvo_init: no DMA memory found\n"
            "SIMULATION_VMID environ variable probably missing\n");
    }
    return found;
}

/// Its memory is not on a machine with hardware.
bool library::find_simulated_region() {
    if (refused("open") != 0 || !_machine.where.simulated || refused("ftruncate") != 0) {
        return false;
    }
    if (const int error = refused("open"); error != 0) {
        say(text_of("Failed to open /var/tmp/tarvo_lib: %s\n", std::strerror(error)));
        return false;
    }
    open_memory_and_area();
    return true;
}

void library::open_memory_and_area() {
    open(_machine.where.memory_path());
    open(_machine.where.area_path());
    _area.file_bytes = _area.file_bytes.value_or(0);
}

/// Where standard input is closed its number is given out, which the library does not keep.
int library::opened(const char* file, int error) {
    if (error == 0 && !_process.held.has_standard_input) {
        _machine.kernel.close(file);
    }
    return error;
}

int library::open_driver_to_read(listing& seen) {
    if (const int error = refused("fopen"); error != 0) {
        return error;
    }
    return _machine.where.simulated ? ENOENT
                                    : opened("proc", _machine.kernel.open_for_reading(seen));
}

int library::open_driver_to_write(const char* file) {
    const int error = refused("fopen");
    return error != 0 ? error : opened(file, _machine.kernel.open_for_writing(file));
}

void library::close_driver(const request* asked) {
    refused("fclose");
    _machine.kernel.close("proc", asked);
}

bool library::find_hardware_region() {
    listing seen;
    if (const int error = open_driver_to_read(seen); error != 0) {
        perror("tarvo: failed to open /proc/tarvo\n", error);
        return false;
    }
    const bool found = read_region_line(seen) && open_hardware_files();
    close_driver();
    return found;
}

bool library::read_region_line(const listing& seen) {
    if (refused("fgets") != 0 || seen.is_empty()) {
        say("Couldn't read from /proc/tarvo\n");
        return false;
    }
    if (!seen.has_region_line) {
        // A line of an allocation has three fields, and four are wanted.
        say("tarvo: failed to parse /proc/tarvo\n");
    }
    return seen.has_region_line;
}

bool library::open_hardware_files() {
    if (const int error = refused("open"); error != 0) {
        perror("tarvo: failed to open DMA memory\n", error);
        return false;
    }
    if (const int error = refused("open"); error != 0) {
        say(text_of("Failed to open /var/shmem/tarvo_lib: %s\n", std::strerror(error)));
        return false;
    }
    open_memory_and_area();
    return true;
}

/// A file that will not be sized stays open, and standard input is closed instead.
bool library::size_area() {
    const int error = refused("ftruncate");
    if (error != 0) {
        say(text_of("Failed to truncate /var/shmem/tarvo_lib: %s\n", std::strerror(error)));
        holdings& held = _process.held;
        held.has_standard_input = false;
        held.lost.insert(held.descriptors.extract(_machine.where.area_path()));
        return false;
    }
    _area.file_bytes = area_bytes();
    return true;
}

bool library::say_unmappable_area() {
    say("tarvo_init: failed to map shared memory\n");
    return false;
}

bool library::map_area() {
    if (refused("mmap64") != 0) {
        return say_unmappable_area();
    }
    refused("madvise"); // for large pages, which need not be
    _process.held.area_bytes += area_bytes();
    _has_mapped_area = true;
    return true;
}

bool library::open_lock_file() {
    if (const int error = refused("open"); error != 0) {
        perror(_machine.where.lock_path(), error);
        return false;
    }
    open(_machine.where.lock_path());
    return true;
}

bool library::attach_area() {
    if (!lock()) {
        return false;
    }
    const bool good = has_room() && (_area.built || has_room());
    if (!good) {
        say_unmappable_area();
    } else if (!_area.built) {
        build_area();
    }
    unlock();
    return good;
}

/// Of the answers when pages are asked for, the one that says that there are none counts.
bool library::has_room() {
    return refused("madvise") != EFAULT;
}

void library::clean_up() {
    if (_has_mapped_area && refused("munmap") == 0) {
        _process.held.area_bytes -= area_bytes();
    }
    _process.held.descriptors.clear();
}

bool library::lock() {
    if (const int error = refused("flock"); error != 0) {
        perror("tarvo: failed to accquire lock", error);
        return false;
    }
    _machine.lock_holder = _process.number;
    return true;
}

void library::unlock() {
    if (const int error = refused("flock"); error != 0) {
        perror("tarvo: failed to release lock", error);
        throw process_end{SIGABRT};
    }
    if (_machine.lock_holder == _process.number) {
        _machine.lock_holder.reset();
    }
}

void library::build_area() {
    const world& where = _machine.where;
    const int head = _area.take_chunk();
    const int tail = _area.take_chunk();
    _area.chunks.push_back({head, "__HEAD", where.start, 0, "", {}});
    _area.chunks.push_back({tail, "__TAIL", where.end(), 0, "", {}});
    _area.built = true;
}

bool library::is_high() const {
    return _area.head().pa >= four_gib || _area.tail().pa >= four_gib;
}

uint64_t library::dma_to_pa(uint32_t dma) {
    if (!init_or_say()) {
        return 0;
    }
    const uint64_t res = is_high() ? _area.head().pa - high_start_dma + dma : dma;
    require(res >= _area.head().pa && res <= _area.tail().pa, "tarvo",
            "res >= dma_chunk_head->pa && res <= dma_chunk_tail->pa");
    return res;
}

uint32_t library::pa_to_dma(uint64_t pa) {
    if (!init_or_say()) {
        return 0;
    }
    require(pa >= _area.head().pa && pa <= _area.tail().pa, "tarvo",
            "pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa");
    const auto low_bits = static_cast<uint32_t>(pa);
    const auto start_bits = static_cast<uint32_t>(_area.head().pa);
    return is_high() ? low_bits - start_bits + high_start_dma : low_bits;
}

std::optional<library::dma_range> library::get_limits() {
    if (!init_or_say()) {
        return std::nullopt;
    }
    return dma_range{pa_to_dma(_area.head().pa), pa_to_dma(_area.tail().pa)};
}

} // namespace model
