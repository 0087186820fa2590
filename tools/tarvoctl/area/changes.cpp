#include "area/changes.hpp"

#include <algorithm>
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

const device_record* find_device(const picture& records, const device_name& name) {
    const auto found =
        std::find_if(records.devices.begin(), records.devices.end(),
                     [&name](const device_record& each) { return name_of(each) == name; });
    return found == records.devices.end() ? nullptr : &*found;
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
        for (const auto& chunk : before.chunks)
            by_place_.emplace(std::pair{std::string_view{chunk.name}, chunk.pa}, &chunk);
    }

    const chunk_record* take_at_same_place(const chunk_record& chunk) {
        const auto found = by_place_.find({chunk.name, chunk.pa});
        return found == by_place_.end() ? nullptr : take(found);
    }

    /// Once every chunk has asked for the one at its place.
    const chunk_record* take_by_name(const chunk_record& chunk) {
        const auto found = by_place_.lower_bound({chunk.name, 0});
        const bool same_name = found != by_place_.end() && found->first.first == chunk.name;
        return same_name ? take(found) : nullptr;
    }

  private:
    /// Those of one name lie side by side, in ascending address.
    using places = std::multimap<std::pair<std::string_view, uint64_t>, const chunk_record*>;

    const chunk_record* take(places::iterator found) {
        const chunk_record* const taken = found->second;
        by_place_.erase(found);
        return taken;
    }

    places by_place_;
};

/// Whether a chunk refers to what element `index` is in another picture. Devices rarely change their
/// number, so that one is tried first.
template <typename Same>
bool refers(const std::vector<int>& indexes, int index, Same is_same) {
    const bool has_number = std::find(indexes.begin(), indexes.end(), index) != indexes.end();
    return (has_number && is_same(index)) || std::any_of(indexes.begin(), indexes.end(), is_same);
}

bool same_device(const device_record& a, const device_record& b) {
    return a.index == b.index && name_of(a) == name_of(b);
}

/// The same place and size, yet not the same chunk: it was freed and allocated in between.
bool is_made_anew(const chunk_record& before, const chunk_record& after) {
    return before.pa == after.pa && before.size == after.size &&
           (before.creator != after.creator || before.index != after.index);
}

std::vector<chunk_pair> pairs_of(const picture& before, const picture& after) {
    former_chunks former{before};
    std::vector<chunk_pair> pairs;
    pairs.reserve(after.chunks.size());
    for (const auto& chunk : after.chunks)
        pairs.push_back({former.take_at_same_place(chunk), &chunk});
    for (auto& pair : pairs) {
        if (pair.before == nullptr) {
            pair.before = former.take_by_name(*pair.after);
        } else if (is_made_anew(*pair.before, *pair.after)) {
            pair.before = nullptr;
        }
    }
    return pairs;
}

/// Collects the changes, in the order in which they are told.
class comparison {
  public:
    comparison(const picture& before, const picture& after)
        : before_{before}, after_{after},
          same_devices_{std::equal(before.devices.begin(), before.devices.end(),
                                   after.devices.begin(), after.devices.end(), same_device)} {}

    std::vector<change> take() {
        const auto pairs = pairs_of(before_, after_);
        add_freed(pairs);
        add_devices();
        for (const auto& pair : pairs)
            add_chunk(pair);
        return std::move(found_);
    }

  private:
    void add_freed(const std::vector<chunk_pair>& pairs) {
        std::vector<const chunk_record*> kept;
        kept.reserve(pairs.size());
        for (const auto& pair : pairs)
            kept.push_back(pair.before);
        std::sort(kept.begin(), kept.end());
        for (const auto& chunk : before_.chunks) {
            if (!std::binary_search(kept.begin(), kept.end(), &chunk))
                found_.push_back({change_kind::freed, chunk, std::nullopt});
        }
    }

    void add_device(change_kind kind, const device_record& device) {
        found_.push_back({kind, std::nullopt, std::nullopt, device.index, device});
    }

    void add_devices() {
        for (const auto& device : before_.devices) {
            if (find_device(after_, name_of(device)) == nullptr)
                add_device(change_kind::unregistered, device);
        }
        for (const auto& device : after_.devices) {
            const device_record* const former = find_device(before_, name_of(device));
            if (former == nullptr)
                add_device(change_kind::registered, device);
            if (former == nullptr ? !device.online : device.online != former->online)
                add_device(device.online ? change_kind::online : change_kind::offline, device);
        }
    }

    void add_chunk(const chunk_pair& pair) {
        if (pair.before == nullptr) {
            found_.push_back({change_kind::allocated, std::nullopt, *pair.after});
            return;
        }
        if (pair.before->pa != pair.after->pa)
            found_.push_back({change_kind::moved, *pair.before, *pair.after});
        if (pair.before->size != pair.after->size)
            found_.push_back({change_kind::resized, *pair.before, *pair.after});
        add_references(pair);
    }

    void add_references(const chunk_pair& pair) {
        if (same_devices_ && pair.before->devices == pair.after->devices)
            return;
        for (const int index : pair.before->devices) {
            if (!refers(pair.after->devices, index,
                        [&](int other) { return is_same(index, other); }))
                add_reference(change_kind::unmapped, pair, before_, index);
        }
        for (const int index : pair.after->devices) {
            if (!refers(pair.before->devices, index, [&](int other) {
                    return is_same(other, index) && !(other == index && is_inherited(index));
                }))
                add_reference(change_kind::mapped, pair, after_, index);
        }
    }

    /// Forgetting a device unmaps nothing: a reference by a number that no device has any longer
    /// is still the one it was.
    bool is_same(int index_before, int index_after) const {
        const device_record* const was = before_.device_at(index_before);
        const device_record* const is = after_.device_at(index_after);
        if (was != nullptr && is != nullptr)
            return name_of(*was) == name_of(*is);
        return index_before == index_after;
    }

    /// A new device takes over the references that a forgotten one left: a mapping which nothing
    /// else tells of.
    bool is_inherited(int index) const {
        return before_.device_at(index) == nullptr && after_.device_at(index) != nullptr;
    }

    void add_reference(change_kind kind, const chunk_pair& pair, const picture& records,
                       int index) {
        const device_record* const device = records.device_at(index);
        found_.push_back({kind, *pair.before, *pair.after, index,
                          device != nullptr ? std::optional{*device} : std::nullopt});
    }

    const picture& before_;
    const picture& after_;
    bool same_devices_; ///< under the same numbers: equal references then mean equal mappings
    std::vector<change> found_;
};

} // namespace

const char* change_word(change_kind kind) {
    constexpr const char* words[] = {"freed",   "unregistered", "registered", "online",
                                     "offline", "allocated",    "moved",      "resized",
                                     "mapped",  "unmapped"};
    return words[static_cast<int>(kind)];
}

std::vector<change> changes_between(const picture& before, const picture& after) {
    return comparison{before, after}.take();
}

} // namespace tarvoctl
