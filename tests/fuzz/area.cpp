// An area file, whatever its bytes are, under every call: each comes back, or ends its process by
// an assertion. In the region of small_region.hpp.

#include "patches.hpp"
#include "small_region.hpp"
#include "target.hpp"

#include <algorithm>

namespace {

char* area_of_this_process() {
    static char* const area = fill_region() ? mapped_area() : nullptr;
    return area;
}

int32_t word_at(const char* area, size_t offset) {
    int32_t word = 0;
    std::memcpy(&word, area + offset, sizeof word);
    return word;
}

/// Where a list of devices has no free element, a memory fault is promised.
bool has_promised_fault(const char* area) {
    if (word_at(area, area_offset::devices_free) == -1) {
        return true;
    }
    for (int i = 0; i <= elements_patched; ++i) {
        if (word_at(area, area_offset::chunk(i) + area_offset::devs_free) == -1) {
            return true;
        }
    }
    return false;
}

} // namespace

/// The first byte is the call.
int try_bytes(const uint8_t* data, size_t size) {
    char* const area = area_of_this_process();
    expect(area != nullptr && detach_area(area), "there is a region with chunks");
    for (size_t i = 1; i + patch_bytes <= size; i += patch_bytes) {
        const patch one = patch_at(data + i);
        std::memcpy(area + one.offset, &one.value, sizeof one.value);
    }
    if (size != 0 && !has_promised_fault(area)) {
        ends_without_assertion(calls()[*data % calls().size()].make);
    }
    return 0;
}
