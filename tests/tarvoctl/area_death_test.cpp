#include "area_fixture.hpp"

#include <cstring>
#include <functional>
#include <map>
#include <random>

namespace area_death_test {

// A process can die between any two stores of a change. Each change is cut here into the
// container's operations, as the library makes them, and each operation into the words it alters.
// An operation is then left off with every set of its words written (with many, for one that clears
// or fills whole elements), so that what holds here holds in whatever order a compiler makes the
// stores.
//
// Required of the repair: nothing is broken or leaked any more, the lists are those from before the
// change or those from after it, and no record that stays has lost anything.

namespace {

using tarvoctl::plan_repair;
using tarvoctl::repair_plan;
using testing::IsEmpty;

constexpr size_t word_bytes = 4;

struct word {
    size_t offset;
    uint32_t before;
    uint32_t after;
};

uint32_t word_at(const std::vector<uint8_t>& bytes, size_t offset) {
    uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

/// One list as numbers and what its records hold after their links.
using listing = std::vector<std::pair<int, std::vector<uint8_t>>>;

/// All that an area says, without the links that say it.
struct content {
    listing chunks;
    std::map<int, listing> refs;
    listing devices;

    bool operator==(const content&) const = default;
};

std::vector<uint8_t> copy_of(std::span<const uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

content content_of(const area_view& area) {
    content all;
    const auto chunks = area.chunks();
    for (const area_chunk& chunk : chunks) {
        const size_t start = area_offset::chunk(chunk.index) + area_offset::name;
        all.chunks.emplace_back(chunk.index,
                                copy_of(area.raw(start, area_offset::devs - area_offset::name)));
    }
    for (size_t i = 1; i + 1 < chunks.size(); ++i) {
        listing& refs = all.refs[chunks[i].index];
        for (const area_ref& ref : area.refs(chunks[i].index)) {
            refs.emplace_back(ref.index, std::vector<uint8_t>{static_cast<uint8_t>(ref.dev)});
        }
    }
    for (const area_device& device : area.devices()) {
        const size_t start = area_offset::device(device.index) + area_offset::domain;
        all.devices.emplace_back(device.index, copy_of(area.raw(start, 16)));
    }
    return all;
}

/// One of the container's operations, or a row of stores between two of them.
using step = std::function<void(shared_area_t&)>;

class area_death : public area_of_three {
  protected:
    /// Leaves the change off at every point of it. The area is then as it was before.
    void interrupt(const std::vector<step>& change) {
        const content before = content_of(area.view());
        shared_area_t& record = area.record();
        std::vector<std::vector<word>> stores;
        for (const step& one : change) {
            stores.push_back(words_of(one));
            one(record);
        }
        const content after = content_of(area.view());
        for (auto words = stores.rbegin(); words != stores.rend(); ++words) {
            revert(*words);
            leave_off(*words, before, after);
        }
    }

    int cases = 0;

  private:
    /// The words that the step is about to alter.
    std::vector<word> words_of(const step& one) {
        const std::vector<uint8_t> old(area.bytes().begin(), area.bytes().end());
        one(area.record());
        std::vector<word> words;
        std::vector<uint8_t> changed(area.bytes().begin(), area.bytes().end());
        for (size_t offset = 0; offset < old.size(); offset += word_bytes) {
            if (word_at(old, offset) != word_at(changed, offset)) {
                words.push_back({offset, word_at(old, offset), word_at(changed, offset)});
            }
        }
        revert(words);
        return words;
    }

    void revert(const std::vector<word>& words) {
        for (const word& one : words) {
            write.u32(one.offset, one.before);
        }
    }

    void leave_off(const std::vector<word>& words, const content& before, const content& after) {
        constexpr size_t few = 6;
        constexpr unsigned samples = 12;
        if (words.size() <= few) {
            for (unsigned set = 0; set < (1U << words.size()); ++set) {
                check(words, before, after, [set](size_t i) { return ((set >> i) & 1) != 0; });
            }
            return;
        }
        for (unsigned sample = 0; sample <= samples; ++sample) {
            const size_t reached = words.size() * sample / samples;
            check(words, before, after, [=](size_t i) { return i < reached; });
            check(words, before, after, [=](size_t i) { return i >= reached; });
            std::mt19937 random(sample);
            check(words, before, after, [&](size_t) { return random() % 2 == 0; });
        }
    }

    template <typename Chosen>
    void check(const std::vector<word>& words, const content& before, const content& after,
               Chosen chosen) {
        if (HasFailure()) {
            return;
        }
        std::string written;
        for (size_t i = 0; i < words.size(); ++i) {
            if (chosen(i)) {
                write.u32(words[i].offset, words[i].after);
                written += " " + std::to_string(words[i].offset);
            }
        }
        SCOPED_TRACE("written:" + written.substr(0, 400));
        repair(before, after);
        revert(words);
        ++cases;
    }

    void repair(const content& before, const content& after) {
        const repair_plan plan = plan_repair(area.record());
        apply(plan, area.record());
        EXPECT_THAT(plan.doubts, IsEmpty());
        EXPECT_THAT(serious(findings()), IsEmpty());
        EXPECT_THAT(plan_repair(area.record()).edits, IsEmpty());
        if (!HasFailure()) {
            const content now = content_of(area.view());
            EXPECT_TRUE(now == before || now == after) << "neither done nor undone";
        }
        for (const tarvoctl::repair_edit& edit : plan.edits) {
            std::copy(edit.before.begin(), edit.before.end(),
                      area.bytes().begin() + static_cast<std::ptrdiff_t>(edit.offset));
        }
    }
};

chunk_list& chunks(shared_area_t& area) {
    return area.chunks;
}

/// As tarvo_alloc_func does it, after the element `left`. `taken` is the element it will get.
std::vector<step> allocation(int left, int taken, uint64_t pa) {
    return {
        [](shared_area_t& area) { chunks(area).alloc(); },
        [=](shared_area_t& area) { std::strcpy(area.chunks._arr[taken].creator, "a creator"); },
        [=](shared_area_t& area) { std::strcpy(area.chunks._arr[taken].name, "newcomer"); },
        [=](shared_area_t& area) { area.chunks._arr[taken].pa = pa; },
        [=](shared_area_t& area) { area.chunks._arr[taken].devs.init(); },
        [=](shared_area_t& area) { area.chunks._arr[taken].size = 0x1000; },
        [=](shared_area_t& area) {
            chunks(area).insert_after(&area.chunks._arr[left], &area.chunks._arr[taken]);
        },
    };
}

/// As tarvo_free does it, once no device is left on the chunk's list.
std::vector<step> freeing(int chunk) {
    return {
        [=](shared_area_t& area) { chunks(area).remove(&area.chunks._arr[chunk]); },
        [=](shared_area_t& area) { chunks(area).free(&area.chunks._arr[chunk]); },
    };
}

std::vector<step> adding_ref(int chunk, int ref, int device) {
    return {
        [=](shared_area_t& area) { area.chunks._arr[chunk].devs.alloc(); },
        [=](shared_area_t& area) { area.chunks._arr[chunk].devs._arr[ref].dev = device; },
        [=](shared_area_t& area) {
            auto& devs = area.chunks._arr[chunk].devs;
            devs.append(&devs._arr[ref]);
        },
    };
}

std::vector<step> removing_ref(int chunk, int ref) {
    return {
        [=](shared_area_t& area) {
            auto& devs = area.chunks._arr[chunk].devs;
            devs.remove(&devs._arr[ref]);
        },
        [=](shared_area_t& area) {
            auto& devs = area.chunks._arr[chunk].devs;
            devs.free(&devs._arr[ref]);
        },
    };
}

std::vector<step> registering(int device) {
    return {
        [](shared_area_t& area) { area.devices.alloc(); },
        [=](shared_area_t& area) {
            area.devices._arr[device].domain = 1;
            area.devices._arr[device].bus = 9;
            area.devices._arr[device].devfn = 40;
            area.devices._arr[device].online = 1;
        },
        [=](shared_area_t& area) { area.devices.append(&area.devices._arr[device]); },
    };
}

std::vector<step> unregistering(int device) {
    return {
        [=](shared_area_t& area) { area.devices.remove(&area.devices._arr[device]); },
        [=](shared_area_t& area) { area.devices.free(&area.devices._arr[device]); },
    };
}

TEST_F(area_death, WhileAChunkIsMadeBetweenOthers) {
    interrupt(allocation(low, 5, 0x2000));
    EXPECT_GT(cases, 50);
}

TEST_F(area_death, WhileAChunkIsMadeAtTheRegionsEnds) {
    area.record().chunks.erase(&area.record().chunks._arr[low]);
    interrupt(allocation(0, low, 0x1000));
    interrupt(allocation(high, low, 0x7000));
}

TEST_F(area_death, WhileTheFirstChunkIsMade) {
    for (const int chunk : {high, middle, low}) {
        area.record().chunks.erase(&area.record().chunks._arr[chunk]);
    }
    interrupt(allocation(0, low, 0x1000));
}

TEST_F(area_death, WhileAChunkIsFreed) {
    interrupt(freeing(low));
}

TEST_F(area_death, WhileTheLastOfSeveralChunksIsFreed) {
    interrupt(freeing(high));
}

TEST_F(area_death, WhileTheOnlyChunkIsFreed) {
    for (const int chunk : {high, middle}) {
        area.record().chunks.erase(&area.record().chunks._arr[chunk]);
    }
    interrupt(freeing(low));
}

TEST_F(area_death, WhileAChunkIsMappedForItsFirstDevice) {
    interrupt(adding_ref(low, 0, 1));
}

TEST_F(area_death, WhileAChunkIsMappedForAFurtherDevice) {
    area.add_device(0, 5, 0);
    area.add_ref(high, 0);
    interrupt(adding_ref(high, 1, 1));
    interrupt(adding_ref(middle, 2, 2));
}

TEST_F(area_death, WhileAChunkIsUnmappedFromItsFirstAndItsLastDevice) {
    area.add_device(0, 5, 0);
    area.add_ref(middle, 2);
    interrupt(removing_ref(middle, 0));
    interrupt(removing_ref(middle, 2));
}

TEST_F(area_death, WhileAChunkIsUnmappedFromADeviceInTheMiddle) {
    area.add_device(0, 5, 0);
    area.add_ref(middle, 2);
    interrupt(removing_ref(middle, 1));
}

TEST_F(area_death, WhileAChunkIsUnmappedFromOneOfTwoDevices) {
    interrupt(removing_ref(middle, 0));
    interrupt(removing_ref(middle, 1));
}

TEST_F(area_death, WhileAChunkIsUnmappedFromItsOnlyDevice) {
    area.add_ref(low, 0);
    interrupt(removing_ref(low, 0));
}

TEST_F(area_death, WhileADeviceIsRegistered) {
    interrupt(registering(2));
}

TEST_F(area_death, WhileADeviceIsForgotten) {
    interrupt(unregistering(0));
    interrupt(unregistering(1));
    area.add_device(0, 5, 0);
    interrupt(unregistering(1));
}

TEST_F(area_death, WhileTheOnlyDeviceIsForgottenAndAgainRegistered) {
    auto& devices = area.record().devices;
    devices.erase(&devices._arr[0]);
    interrupt(unregistering(1));
    devices.erase(&devices._arr[1]);
    interrupt(registering(1));
}

} // namespace

} // namespace area_death_test
