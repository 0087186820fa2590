#include "records.hpp"

#include <algorithm>
#include <numeric>

namespace model {

namespace {

template <typename List>
auto* find_element(List& list, int element) {
    const auto found = std::find_if(list.begin(), list.end(),
                                    [=](const auto& one) { return one.element == element; });
    return found == list.end() ? nullptr : &*found;
}

template <typename List>
void erase_element(List& list, int element) {
    std::erase_if(list, [=](const auto& one) { return one.element == element; });
}

} // namespace

std::deque<int> all_free(int capacity) {
    std::deque<int> free(static_cast<size_t>(capacity));
    std::iota(free.begin(), free.end(), 0);
    return free;
}

chunk* shared_area::chunk_at(int element) {
    return find_element(chunks, element);
}

device* shared_area::device_at(int element) {
    return find_element(devices, element);
}

int shared_area::take_chunk() {
    const int element = free_chunks.front();
    free_chunks.pop_front();
    ever_used = std::max(ever_used, element + 1);
    return element;
}

void shared_area::give_back_chunk(int element) {
    erase_element(chunks, element);
    free_chunks.push_front(element);
}

void shared_area::give_back_device(int element) {
    erase_element(devices, element);
    free_devices.push_front(element);
}

} // namespace model
