#include "area/changes.hpp"

#include "shared/layout.hpp"

#include <algorithm>
#include <bitset>
#include <cstdint>
#include <map>
#include <string_view>
#include <tuple>
#include <utility>

namespace tarvoctl {

namespace {

using device_name = std::tuple<uint32_t, uint32_t, uint32_t>;

device_name name_of(const device_record& device) {
    return {device.domain, device.bus, device.devfn};
}

/// Two looks at one chunk; null on one side for a chunk that came or went.
struct chunk_pair {
    const chunk_record* before = nullptr;
    const chunk_record* after = nullptr;
};

/// Finds for each chunk the one it was, or nothing. Each is found once.
class former_chunks {
  public:
    explicit former_chunks(const picture& before) {
        for (const auto& chunk : before.chunks) {
            _by_place.emplace(std::pair{std::string_view{chunk.name}, chunk.pa}, &chunk);
        }
    }

    const chunk_record* take_at_same_place(const chunk_record& chunk) {
        const auto found = _by_place.find({chunk.name, chunk.pa});
        return found == _by_place.end() ? nullptr : take(found);
    }

    /// Once every chunk has asked for the one at its place.
    const chunk_record* take_by_name(const chunk_record& chunk) {
        const auto found = _by_place.lower_bound({chunk.name, 0});
        const bool same_name = found != _by_place.end() && found->first.first == chunk.name;
        return same_name ? take(found) : nullptr;
    }

  private:
    /// Those of one name lie side by side, in ascending address.
    using places = std::multimap<std::pair<std::string_view, uint64_t>, const chunk_record*>;

    const chunk_record* take(places::iterator found) {
        const chunk_record* const taken = found->second;
        _by_place.erase(found);
        return taken;
    }

    places _by_place;
};

/// The devices of two pictures, each under a number that is the same in both: its position among
/// all names.
class common_devices {
  public:
    common_devices(const picture& before, const picture& after) {
        for (const auto* records : {&before, &after}) {
            for (const auto& device : records->devices) {
                _positions.try_emplace(name_of(device), _positions.size());
            }
        }
    }

    size_t position_of(const device_record& device) const { return _positions.at(name_of(device)); }

  private:
    std::map<device_name, size_t> _positions;
};

/// A picture's devices by element number. References are looked at by the million, so that none of
/// them must cost a search.
class device_index {
  public:
    static constexpr size_t no_device = SIZE_MAX;

    device_index(const picture& records, const common_devices& common)
        : _positions(device_capacity, no_device) {
        for (const auto& device : records.devices) {
            _positions.at(static_cast<size_t>(device.index)) = common.position_of(device);
        }
    }

    /// The device's common position; no_device where none is registered under that number.
    size_t at(int index) const {
        return index >= 0 && index < device_capacity ? _positions[static_cast<size_t>(index)]
                                                     : no_device;
    }

  private:
    std::vector<size_t> _positions;
};

/// What one chunk refers to in one picture, as sets.
class reference_set {
  public:
    reference_set(const std::vector<int>& references, const device_index& devices)
        : _devices{devices}, _numbers{references} {
        std::ranges::sort(_numbers);
        for (const int index : references) {
            if (devices.at(index) != device_index::no_device) {
                _positions.set(devices.at(index));
            }
        }
    }

    bool has_device(size_t position) const { return _positions[position]; }
    /// A reference by that number, whatever is registered under it.
    bool has_number(int index) const { return std::ranges::binary_search(_numbers, index); }
    /// A reference by a number that no device has.
    bool has_bare_number(int index) const {
        return _devices.at(index) == device_index::no_device && has_number(index);
    }

  private:
    static constexpr size_t most_positions = size_t{2} * device_capacity;

    const device_index& _devices;
    std::vector<int> _numbers;
    std::bitset<most_positions> _positions;
};

bool same_device(const device_record& a, const device_record& b) {
    return a.index == b.index && name_of(a) == name_of(b);
}

/// The same name, yet not the same chunk: it was freed and allocated in between.
bool is_replaced(const chunk_record& before, const chunk_record& after) {
    return before.pa != after.pa || before.size != after.size || before.creator != after.creator ||
           before.index != after.index;
}

std::vector<chunk_pair> pairs_of(const picture& before, const picture& after) {
    former_chunks former{before};
    std::vector<chunk_pair> pairs;
    pairs.reserve(after.chunks.size());
    for (const auto& chunk : after.chunks) {
        pairs.push_back({former.take_at_same_place(chunk), &chunk});
    }
    for (auto& pair : pairs) {
        if (pair.before == nullptr) {
            pair.before = former.take_by_name(*pair.after);
        }
    }
    return pairs;
}

chunk_record without_devices(const chunk_record& chunk) {
    return {chunk.index, chunk.name, chunk.pa, chunk.size, chunk.creator, {}};
}

/// Collects the changes, in the order in which they are reported.
class comparison {
  public:
    comparison(const picture& before, const picture& after)
        : _before{before}, _after{after}, _common{before, after}, _index_before{before, _common},
          _index_after{after, _common}, _same_devices{std::ranges::equal(
                                            before.devices, after.devices, same_device)} {}

    std::vector<change> take() {
        const auto pairs = pairs_of(_before, _after);
        add_freed(pairs);
        add_devices();
        for (const auto& pair : pairs) {
            add_chunk(pair);
        }
        add_unlisted(change_kind::unmapped, _unlisted_unmapped);
        add_unlisted(change_kind::mapped, _unlisted_mapped);
        return std::move(_found);
    }

  private:
    void add_freed(const std::vector<chunk_pair>& pairs) {
        std::vector<const chunk_record*> kept;
        kept.reserve(pairs.size());
        for (const auto& pair : pairs) {
            kept.push_back(pair.before);
        }
        std::ranges::sort(kept);
        for (const auto& chunk : _before.chunks) {
            if (!std::ranges::binary_search(kept, &chunk)) {
                _found.push_back({change_kind::freed, chunk, std::nullopt});
            }
        }
    }

    void add_device(change_kind kind, const device_record& device) {
        _found.push_back({kind, std::nullopt, std::nullopt, device.index, device});
    }

    void add_devices() {
        for (const auto& device : _before.devices) {
            if (_after.registered(device) == nullptr) {
                add_device(change_kind::unregistered, device);
            }
        }
        for (const auto& device : _after.devices) {
            const device_record* const former = _before.registered(device);
            if (former == nullptr) {
                add_device(change_kind::registered, device);
            }
            if (former == nullptr ? !device.online : device.online != former->online) {
                add_device(device.online ? change_kind::online : change_kind::offline, device);
            }
        }
    }

    void add_chunk(const chunk_pair& pair) {
        if (pair.before == nullptr) {
            _found.push_back({change_kind::allocated, std::nullopt, *pair.after});
        } else if (is_replaced(*pair.before, *pair.after)) {
            _found.push_back({change_kind::replaced, *pair.before, *pair.after});
        } else {
            add_references(pair);
        }
    }

    void add_references(const chunk_pair& pair) {
        if (_same_devices && pair.before->devices == pair.after->devices) {
            return;
        }
        const reference_set was{pair.before->devices, _index_before};
        const reference_set is{pair.after->devices, _index_after};
        for (const int index : pair.before->devices) {
            if (!is_kept(index, is)) {
                add_reference(change_kind::unmapped, pair, _before, index);
            }
        }
        for (const int index : pair.after->devices) {
            if (!was_there(index, was)) {
                add_reference(change_kind::mapped, pair, _after, index);
            }
        }
    }

    /// Forgetting a device unmaps nothing: a reference by a number that no device has any longer
    /// is still the one it was.
    bool is_kept(int index, const reference_set& after) const {
        const size_t device = _index_before.at(index);
        return device == device_index::no_device
                   ? after.has_number(index)
                   : after.has_device(device) || after.has_bare_number(index);
    }

    /// A new device takes over the references that a forgotten one left: a mapping which nothing
    /// else reports.
    bool was_there(int index, const reference_set& before) const {
        const size_t device = _index_after.at(index);
        return device == device_index::no_device ? before.has_number(index)
                                                 : before.has_device(device);
    }

    void add_reference(change_kind kind, const chunk_pair& pair, const picture& records,
                       int index) {
        if (_listed_mappings == most_mappings_listed) {
            ++(kind == change_kind::mapped ? _unlisted_mapped : _unlisted_unmapped);
            return;
        }
        ++_listed_mappings;
        const device_record* const device = records.device_at(index);
        _found.push_back({kind, without_devices(*pair.before), without_devices(*pair.after), index,
                          device != nullptr ? std::optional{*device} : std::nullopt});
    }

    void add_unlisted(change_kind kind, size_t count) {
        if (count > 0) {
            _found.push_back({kind, std::nullopt, std::nullopt, -1, std::nullopt, count});
        }
    }

    const picture& _before;
    const picture& _after;
    common_devices _common;
    device_index _index_before;
    device_index _index_after;
    bool _same_devices; ///< under the same numbers: equal references then mean equal mappings
    std::vector<change> _found;
    size_t _listed_mappings = 0;
    size_t _unlisted_mapped = 0;
    size_t _unlisted_unmapped = 0;
};

} // namespace

const char* change_word(change_kind kind) {
    constexpr const char* words[] = {"freed",    "unregistered", "registered",
                                     "online",   "offline",      "allocated",
                                     "replaced", "mapped",       "unmapped"};
    return words[static_cast<int>(kind)];
}

std::vector<change> changes_between(const picture& before, const picture& after) {
    return comparison{before, after}.take();
}

} // namespace tarvoctl
