// An area file, whatever its bytes are, under tarvoctl's check, listing and repair: what is
// repaired without a doubt is repaired for good.

#include "area/repair.hpp"

#include "area/check.hpp"
#include "area/records.hpp"
#include "patches.hpp"
#include "small_region.hpp"
#include "target.hpp"

namespace {

shared_area_t* area_of_this_process() {
    static char* const area = fill_region() ? mapped_area() : nullptr;
    expect(area != nullptr && detach_area(area), "there is a region with chunks");
    return reinterpret_cast<shared_area_t*>(area);
}

} // namespace

int try_bytes(const uint8_t* data, size_t size) {
    shared_area_t* const area = area_of_this_process();
    for (size_t i = 0; i + patch_bytes <= size; i += patch_bytes) {
        const patch one = patch_at(data + i);
        std::memcpy(reinterpret_cast<char*>(area) + one.offset, &one.value, sizeof one.value);
    }
    tarvoctl::check_area(*area);
    tarvoctl::picture_of(*area);
    const tarvoctl::repair_plan plan = tarvoctl::plan_repair(*area);
    if (plan.doubts.empty()) {
        tarvoctl::apply(plan, *area);
        expect(tarvoctl::plan_repair(*area).edits.empty(), "a repaired area needs no repair");
    }
    return 0;
}
