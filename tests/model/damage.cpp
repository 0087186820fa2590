#include "damage.hpp"

#include <array>
#include <sstream>

namespace model {

namespace {

namespace at = area_offset;

int one_of(std::mt19937& random, int count) {
    return std::uniform_int_distribution(0, count - 1)(random);
}

size_t field_of_chunk(std::mt19937& random, int chunk) {
    constexpr std::array fields{at::next,      at::next,      at::next,     at::prev,
                                at::allocated, at::name,      at::pa,       at::size,
                                at::devs_head, at::devs_tail, at::devs_free};
    return at::chunk(chunk) + fields.at(static_cast<size_t>(one_of(random, fields.size())));
}

size_t field_of_list(std::mt19937& random) {
    constexpr std::array fields{at::chunks_head, at::chunks_tail,  at::chunks_tail,
                                at::chunks_free, at::devices_head, at::devices_tail,
                                at::devices_free};
    return fields.at(static_cast<size_t>(one_of(random, fields.size())));
}

size_t field_of_device_or_reference(std::mt19937& random, int chunk) {
    constexpr std::array fields{at::next, at::prev, at::allocated, at::dev};
    const size_t field = fields.at(static_cast<size_t>(one_of(random, fields.size())));
    const int element = one_of(random, 3);
    return field + (one_of(random, 2) == 0 ? at::device(element) : at::ref(chunk, element));
}

size_t choose_offset(std::mt19937& random, int chunk) {
    switch (one_of(random, 8)) {
    case 0:
        return field_of_list(random);
    case 1:
        return field_of_device_or_reference(random, chunk);
    default:
        return field_of_chunk(random, chunk);
    }
}

uint32_t choose_value(std::mt19937& random, uint32_t before, int chunk, int in_use) {
    switch (one_of(random, 9)) {
    case 0:
        return 0;
    case 1:
        return ~uint32_t{0};
    case 2:
        return static_cast<uint32_t>(chunk);
    case 3:
        return 16384;
    case 4:
        return static_cast<uint32_t>(in_use + one_of(random, 100));
    case 5:
        return static_cast<uint32_t>(random());
    case 6:
        return before ^ (1U << static_cast<unsigned>(one_of(random, 32)));
    default:
        return static_cast<uint32_t>(one_of(random, in_use));
    }
}

} // namespace

void damage::make(const area_writer& area) const {
    if (is_byte) {
        area.u8(offset, static_cast<uint8_t>(value));
    } else {
        area.u32(offset, value);
    }
}

std::string damage::shown() const {
    std::ostringstream text;
    text << (is_byte ? "byte" : "number") << " at " << offset << " becomes 0x" << std::hex << value;
    return text.str();
}

damage choose_damage(std::mt19937& random, const area_view& now, int chunks_in_use) {
    const int chunk = one_of(random, chunks_in_use);
    const size_t offset = choose_offset(random, chunk);
    // The flag of an element is followed by its name: these are bytes.
    const bool is_byte =
        offset == at::chunk(chunk) + at::allocated || offset == at::chunk(chunk) + at::name;
    return {offset, is_byte, choose_value(random, now.u32(offset), chunk, chunks_in_use)};
}

} // namespace model
