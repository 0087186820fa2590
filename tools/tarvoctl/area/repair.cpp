#include "repair.hpp"

#include "check.hpp"
#include "common/quantities.hpp"
#include "repair_write.hpp"

#include <cstring>
#include <fmt/format.h>
#include <optional>

namespace tarvoctl {

namespace {

/// The plan for one area in the making.
class planner {
  public:
    explicit planner(const shared_area_t& area) : _area(area), _writer(area, _plan) {}

    repair_plan plan() {
        if (_area.initialized == 0 && !is_in_use(_area)) {
            return {};
        }
        plan_devices();
        plan_chunks();
        return std::move(_plan);
    }

  private:
    const dma_chunk_t& chunk(int element) const { return _area.chunks._arr[element]; }

    void plan_devices() {
        const list_links links = device_links(_area);
        const decided_list decided = decide_devices(_area, _plan);
        _writer.write_list(links, decided);
        for (const int device : decided.order) {
            if (_area.devices._arr[device].online > 1) {
                _writer.set_byte(links.offset_of(device) + offsetof(iommu_dev_t, online), 1,
                                 links.at(device), "online, which is written as 1");
            }
        }
    }

    /// The element at `end` if it is the sentinel, otherwise the only one there is.
    std::optional<int> find_sentinel(int32_t end, std::string_view name) const {
        if (end >= 0 && end < chunk_capacity && is_sentinel(chunk(end), name)) {
            return end;
        }
        std::optional<int> found;
        for (int element = 0; element < chunk_capacity; ++element) {
            if (chunk(element).allocated != 0 && is_sentinel(chunk(element), name)) {
                if (found.has_value()) {
                    return std::nullopt;
                }
                found = element;
            }
        }
        return found;
    }

    void plan_chunks() {
        const auto head = find_sentinel(_area.chunks._head, head_name);
        const auto tail = find_sentinel(_area.chunks._tail, tail_name);
        if (!head.has_value() || !tail.has_value()) {
            doubt(fmt::format("there is not exactly one {} and one {} of size 0, which bound the "
                              "list: the chunks are left as they are",
                              head_name, tail_name));
        } else if (chunk(*head).pa >= chunk(*tail).pa) {
            doubt(fmt::format("the region would begin at {} and end at {}: the chunks are left "
                              "as they are",
                              pa_text(chunk(*head).pa), pa_text(chunk(*tail).pa)));
        } else {
            plan_chunks_between(*head, *tail);
        }
    }

    void plan_chunks_between(int head, int tail) {
        const decided_list decided = decide_chunks(_area, head, tail, _plan);
        _writer.write_list(chunk_links(_area), decided);
        for (const int element : decided.order) {
            if (element != head && element != tail) {
                plan_refs(element);
            }
        }
        _writer.set_byte(offsetof(shared_area_t, initialized), 1, {},
                         "built, because it is in use");
    }

    /// References to devices that cannot exist, or that are there already, mean nothing.
    void plan_refs(int element) {
        const list_links links = ref_links(_area, element);
        decided_list decided = decide_refs(links, _plan);
        std::vector<bool> named(device_capacity);
        std::erase_if(decided.order, [&](int ref) {
            const int32_t device = chunk(element).devs._arr[ref].dev;
            const bool is_useless =
                device < 0 || device >= device_capacity || named[static_cast<size_t>(device)];
            if (!is_useless) {
                named[static_cast<size_t>(device)] = true;
            }
            return is_useless;
        });
        _writer.write_small_list(links, decided);
    }

    void doubt(std::string why) { _plan.doubts.push_back({{area_list::chunks}, std::move(why)}); }

    const shared_area_t& _area;
    repair_plan _plan;
    plan_writer _writer;
};

} // namespace

bool repair_edit::zeroes() const {
    return is_zero(after);
}

repair_plan plan_repair(const shared_area_t& area) {
    return planner(area).plan();
}

std::string advice_on(const std::vector<finding>& findings, const shared_area_t& area,
                      const std::string& repair) {
    const bool repairs = !plan_repair(area).edits.empty() && !is_of_another_region(findings);
    return repairs ? fmt::format("'{}' shows what can be done", repair)
                   : remedy_text(findings, area);
}

void apply(const repair_plan& plan, shared_area_t& area) {
    auto* bytes = reinterpret_cast<uint8_t*>(&area);
    for (const repair_edit& edit : plan.edits) {
        std::memcpy(bytes + edit.offset, edit.after.data(), edit.after.size());
    }
}

} // namespace tarvoctl
