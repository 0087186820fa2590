#include "observed.hpp"

#include <algorithm>
#include <cstring>

std::string outcome(client& user, std::string_view command) {
    user.new_text();
    const std::string reply = user.call(command);
    return reply + "\n" + user.new_text();
}

std::string fatal_outcome(client& user, std::string_view command) {
    user.new_text();
    const ending end = user.dies(command);
    return shown(end) + "\n" + user.new_text();
}

std::string layout(const sandbox& machine) {
    const std::vector<area_chunk> chunks = machine.area().view().chunks();
    std::string text;
    for (size_t i = 1; i + 1 < chunks.size(); i++) {
        const uint64_t first = (chunks[i].pa - machine.chosen().start) / page_bytes();
        text += (text.empty() ? "" : " ") + chunks[i].name + ":" + std::to_string(first) + "+" +
                std::to_string(chunks[i].size / page_bytes());
    }
    return text;
}

texts troubles(const sandbox& machine, area_allowance allowed) {
    texts found = area_breaches(machine.area().view(), allowed);
    if (!lock_is_free(machine.lock_file())) {
        found.emplace_back("the lock is held");
    }
    return found;
}

std::string first_difference(std::span<const uint8_t> actual, std::span<const uint8_t> expected) {
    if (actual.size() == expected.size() &&
        std::memcmp(actual.data(), expected.data(), actual.size()) == 0) {
        return {};
    }
    const auto difference =
        std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end()).first;
    return "byte " + std::to_string(difference - actual.begin()) + " of " +
           std::to_string(actual.size()) + ", where " + std::to_string(expected.size()) +
           " are expected";
}

mapped_region::mapped_region(client& user) : _user(user), _address(user.call("map_all")) {}

std::string mapped_region::place(uint64_t first_page, uint64_t page_count, uint8_t byte) const {
    return _address + " " + std::to_string(pages(first_page)) + " " +
           std::to_string(pages(page_count)) + " " + std::to_string(byte);
}

void mapped_region::fill(uint64_t first_page, uint64_t page_count, uint8_t byte) {
    _user.call("fill " + place(first_page, page_count, byte));
}

bool mapped_region::filled(uint64_t first_page, uint64_t page_count, uint8_t byte) {
    return _user.call("filled " + place(first_page, page_count, byte)) == "true";
}

std::string element_not_in_use() {
    return container_assertion(32, "cur->allocated");
}

std::string not_in_the_region() {
    return assertion("uint32_t tarvo_pa_to_dma(uint64_t)",
                     "pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa");
}
