// The library model: speaking, ending, start-up, address translation.

#include "library_model.hpp"

#include <array>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace model {

namespace {

constexpr const char* not_started = "tarvo: failed to initialize library\n";

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

bool library::init_or_say() {
    const bool ready = init();
    if (!ready) {
        say(not_started);
    }
    return ready;
}

bool library::init() {
    if (_process.started) {
        return true;
    }
    if (!_machine.where.simulated && !find_region()) {
        return false;
    }
    lock();
    if (!_area.built) {
        build_area();
    }
    unlock();
    _process.started = true;
    return true;
}

bool library::find_region() {
    const bool found = read_region_line();
    if (!found) {
        say("tarvo_init: no DMA memory found\n"
            "SIMULATION_VMID environ variable probably missing\n");
    }
    return found;
}

bool library::read_region_line() {
    listing seen;
    if (const int error = _machine.kernel.open_for_reading(seen); error != 0) {
        perror("tarvo: failed to open /proc/tarvo\n", error);
        return false;
    }
    if (seen.is_empty()) {
        say("Couldn't read from /proc/tarvo\n");
    } else if (!seen.has_region_line) {
        // A line of an allocation has three fields, and four are wanted.
        say("tarvo: failed to parse /proc/tarvo\n");
    }
    _machine.kernel.close("proc");
    return seen.has_region_line;
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
