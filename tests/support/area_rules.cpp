#include "area.hpp"
#include "joined.hpp"

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace {

bool all_zero(std::span<const uint8_t> bytes) {
    return bytes.empty() ||
           (bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

/// What the rules about a list need to know of it, whatever its elements are.
struct list_facts {
    std::string name;
    int count;
    size_t element_bytes;
    std::function<size_t(int)> offset_of;
    std::vector<int> live;
    std::vector<int> chain;
};

class inspection {
  public:
    inspection(const area_view& area, area_allowance allowed) : _area(area), _allowed(allowed) {}

    std::vector<std::string> run() {
        check_frame();
        check_devices();
        check_chunks();
        return std::move(_breaches);
    }

  private:
    template <typename... Pieces>
    void breach(const Pieces&... pieces) {
        _breaches.push_back(joined(pieces...));
    }

    /// What lies around the lists.
    void check_frame() {
        if (_area.initialized() != 1) {
            breach("initialized is ", +_area.initialized());
        }
        if (!all_zero(_area.raw(1, 3))) {
            breach("padding after initialized is not zero");
        }
        const size_t end = area_offset::content_end;
        if (!all_zero(_area.raw(end, _area.bytes().size() - end))) {
            breach("bytes after the content are not zero");
        }
    }

    void check_devices() {
        try {
            _devices = _area.devices();
            check_list({"devices", 256, 28, area_offset::device, indices_of(_devices),
                        _area.free_devices()});
        } catch (const std::runtime_error& unwalkable) {
            breach(unwalkable.what());
        }
        for (const area_device& device : _devices) {
            check_device(device);
        }
    }

    void check_device(const area_device& device) {
        const auto same = [&](const area_device& other) {
            return other.domain == device.domain && other.bus == device.bus &&
                   other.devfn == device.devfn;
        };
        const auto first = std::ranges::find_if(_devices, same);
        if (first->index != device.index) {
            breach("devices ", first->index, " and ", device.index, " are both ", device.domain,
                   ":", device.bus, ":", device.devfn);
        }
        if (device.online > 1) {
            breach("device ", device.index, ": online is ", +device.online);
        }
        const size_t at = area_offset::device(device.index);
        if (!all_zero(_area.raw(at + 9, 3)) || !all_zero(_area.raw(at + 25, 3))) {
            breach("device ", device.index, ": padding is not zero");
        }
    }

    void check_chunks() {
        std::vector<area_chunk> chunks;
        try {
            chunks = _area.chunks();
            check_list({"chunks", 16384, 4280, area_offset::chunk, indices_of(chunks),
                        _area.free_chunks()});
        } catch (const std::runtime_error& unwalkable) {
            breach(unwalkable.what());
        }
        if (chunks.size() < 2) {
            breach("chunks: ", chunks.size(), " elements, not even two sentinels");
            return;
        }
        check_sentinel(chunks.front(), "__HEAD");
        check_sentinel(chunks.back(), "__TAIL");
        check_order(chunks);
        for (const area_chunk& chunk : chunks) {
            check_texts(chunk);
        }
        for (size_t i = 1; i + 1 < chunks.size(); ++i) {
            check_place(chunks[i], chunks.front().pa, chunks.back().pa);
            check_refs(chunks[i]);
        }
    }

    void check_sentinel(const area_chunk& sentinel, const char* name) {
        if (sentinel.name != name || sentinel.size != 0) {
            breach("chunk ", sentinel.index, " stands for ", name, ": name '", sentinel.name,
                   "', size ", sentinel.size);
        }
        if (!all_zero(_area.chunk_bytes(sentinel.index).subspan(area_offset::devs))) {
            breach(name, ": devs is not zero");
        }
    }

    void check_order(const std::vector<area_chunk>& chunks) {
        for (size_t i = 1; i < chunks.size(); ++i) {
            const area_chunk& lower = chunks[i - 1];
            const area_chunk& upper = chunks[i];
            if (lower.pa > upper.pa) {
                breach("chunk ", upper.index, ": pa ", upper.pa, " is below ", lower.pa,
                       " of chunk ", lower.index, " before it");
            } else if (!_allowed.overlap && lower.pa + lower.size > upper.pa) {
                breach("chunk ", lower.index, ": end ", lower.pa + lower.size,
                       " is above the start ", upper.pa, " of chunk ", upper.index);
            }
        }
    }

    void check_place(const area_chunk& chunk, uint64_t region_first_pa, uint64_t region_end_pa) {
        if (chunk.pa < region_first_pa || chunk.pa + chunk.size > region_end_pa) {
            breach("chunk ", chunk.index, ": pa ", chunk.pa, ", size ", chunk.size,
                   " is not within ", region_first_pa, " to ", region_end_pa);
        }
    }

    void check_texts(const area_chunk& chunk) {
        const std::span<const uint8_t> bytes = _area.chunk_bytes(chunk.index);
        if (chunk.name.empty() || chunk.name.size() > 49) {
            breach("chunk ", chunk.index, ": name of ", chunk.name.size(), " bytes");
        }
        if (chunk.creator.size() > 99) {
            breach("chunk ", chunk.index, ": creator of ", chunk.creator.size(), " bytes");
        }
        if (!all_zero(bytes.subspan(9 + chunk.name.size(), 51 - chunk.name.size()))) {
            breach("chunk ", chunk.index, ": bytes after the name are not zero");
        }
        if (!all_zero(bytes.subspan(72 + chunk.creator.size(), 100 - chunk.creator.size()))) {
            breach("chunk ", chunk.index, ": bytes after the creator are not zero");
        }
    }

    void check_refs(const area_chunk& chunk) {
        const int owner = chunk.index;
        try {
            const std::vector<area_ref> refs = _area.refs(owner);
            check_list({joined("devs of chunk ", owner), 256, 16,
                        [owner](int index) { return area_offset::ref(owner, index); },
                        indices_of(refs), _area.free_refs(owner)});
            for (const area_ref& ref : refs) {
                check_ref(owner, ref, refs);
            }
        } catch (const std::runtime_error& unwalkable) {
            breach(unwalkable.what());
        }
    }

    void check_ref(int owner, const area_ref& ref, const std::vector<area_ref>& refs) {
        const auto first = std::ranges::find(refs, ref.dev, &area_ref::dev);
        if (first->index != ref.index) {
            breach("chunk ", owner, ": references ", first->index, " and ", ref.index,
                   " are both to device ", ref.dev);
        }
        const bool known =
            std::ranges::find(_devices, ref.dev, &area_device::index) != _devices.end();
        if (!known && !_allowed.stale_refs) {
            breach("chunk ", owner, ": reference ", ref.index, " is to device ", ref.dev,
                   ", which is not registered");
        }
        if (!all_zero(_area.raw(area_offset::ref(owner, ref.index) + 9, 3))) {
            breach("chunk ", owner, ": padding of reference ", ref.index, " is not zero");
        }
    }

    template <typename Element>
    static std::vector<int> indices_of(const std::vector<Element>& elements) {
        std::vector<int> indices;
        std::ranges::transform(elements, std::back_inserter(indices), &Element::index);
        return indices;
    }

    void check_list(const list_facts& list) {
        check_circle(list);
        check_membership(list);
        check_live_flags(list);
        check_free_elements(list);
    }

    /// Each element is linked to the one before it and the one after it, round the circle.
    void check_circle(const list_facts& list) {
        for (size_t i = 0; i < list.live.size(); ++i) {
            const int lower = list.live[i];
            const int upper = list.live[(i + 1) % list.live.size()];
            const int next = _area.i32(list.offset_of(lower) + area_offset::next);
            const int prev = _area.i32(list.offset_of(upper) + area_offset::prev);
            if (next != upper || prev != lower) {
                breach(list.name, ": element ", lower, " has next ", next, ", element ", upper,
                       " has prev ", prev);
                return;
            }
        }
    }

    /// Each element is on the list or on the free chain, and on one of them only.
    void check_membership(const list_facts& list) {
        std::vector<int> times(static_cast<size_t>(list.count));
        for (const std::vector<int>* half : {&list.live, &list.chain}) {
            for (const int index : *half) {
                ++times[static_cast<size_t>(index)];
            }
        }
        const auto wrong = std::ranges::find_if(times, [](int count) { return count != 1; });
        if (wrong != times.end()) {
            const auto index = static_cast<int>(wrong - times.begin());
            breach(list.name, ": element ", index, " is on ",
                   *wrong == 0 ? "neither the list nor" : "both the list and",
                   " the free chain, allocated ",
                   +_area.u8(list.offset_of(index) + area_offset::allocated));
        }
    }

    void check_live_flags(const list_facts& list) {
        for (const int index : list.live) {
            const uint8_t flag = _area.u8(list.offset_of(index) + area_offset::allocated);
            if (flag != 1) {
                breach(list.name, ": element ", index, " is on the list, allocated ", +flag);
                return;
            }
        }
    }

    /// A free element is zero but for its link.
    void check_free_elements(const list_facts& list) {
        for (const int index : list.chain) {
            const auto bytes = _area.raw(list.offset_of(index), list.element_bytes);
            if (!all_zero(bytes.subspan(area_offset::prev))) {
                breach(list.name, ": element ", index, " is on the free chain and not zero, ",
                       "allocated ", +bytes[area_offset::allocated]);
                return;
            }
        }
    }

    const area_view& _area;
    area_allowance _allowed;
    std::vector<area_device> _devices;
    std::vector<std::string> _breaches;
};

} // namespace

std::vector<std::string> area_breaches(const area_view& area, area_allowance allowed) {
    return inspection(area, allowed).run();
}
