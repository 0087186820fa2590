#include "area_fixture.hpp"
#include "area_stepper.hpp"
#include "sandbox.hpp"

#include <csignal>
#include <cstring>
#include <map>
#include <memory>

// The library as it was built here, stepped through one instruction at a time inside its lock, in a
// sandbox. What the area file holds between two instructions is what a process that dies there
// leaves, whatever kills it: the file is mapped shared, and nothing of it is kept elsewhere. So this
// shows that every death of this build in these calls can be repaired; area_death_test.cpp shows it
// for other orders of the same stores.

namespace {

using tarvoctl::repair_plan;
using testing::Contains;
using testing::IsEmpty;

/// The elements that the small lists of these tests use.
constexpr int used_chunks = 8;
constexpr int used_devices = 8;

struct window {
    std::size_t offset;
    std::size_t bytes;
};

std::vector<window> windows() {
    return {{area_offset::chunk(0), area_offset::chunk(used_chunks) - area_offset::chunk(0)},
            {area_offset::chunks_head, 12},
            {area_offset::device(0), area_offset::device(used_devices) - area_offset::device(0)},
            {area_offset::devices_head, 12}};
}

/// Name, address, size and creator of a chunk, by name.
using chunk_records = std::map<std::string, std::tuple<uint64_t, uint32_t, std::string>>;

chunk_records records_of(const area_view& area) {
    chunk_records records;
    for (const area_chunk& chunk : area.chunks()) {
        records[chunk.name] = {chunk.pa, chunk.size, chunk.creator};
    }
    return records;
}

class area_stepped : public testing::Test {
  protected:
    area_stepped() {
        client builder = machine.start();
        for (const char* name : {"low", "middle", "high"}) {
            builder.alloc(name, 0x1000);
        }
        builder.register_device(0, 3, 8);
        builder.register_device(0, 4, 16);
        builder.finish();
        file = std::make_unique<area_file>(machine.shared_area(), area_file::access::write);
        take_over_file();
        settled = records_of(copy.view());
    }

    /// Steps through a call and repairs a copy of what each store leaves. Of the stores that only
    /// fill or clear an element every eighth is taken.
    void repair_behind_every_store(const std::string& command, const std::string& changed) {
        settled.erase(changed);
        client stepped = machine.start({"limits"});
        area_stepper stepper(stepped, machine.lock_file());
        unsigned passed_over = 0;
        ASSERT_TRUE(stepper.step(command, [&] {
            const auto changes = take_over_changes();
            if (!changes.empty() && (concerns_links(changes) || ++passed_over % 8 == 0)) {
                ++judged;
                repair_copy();
            }
            return HasFatalFailure() ? area_stepper::verdict::kill : area_stepper::verdict::go_on;
        }));
        stepped.reply();
        RecordProperty("stores", static_cast<int>(stores));
        RecordProperty("judged", static_cast<int>(judged));
        EXPECT_THAT(serious(tarvoctl::check_area(copy.record())), IsEmpty());
    }

    /// Kills processes in the middle of calls, early and late, repairs the file itself after each
    /// and has the next process go on with it.
    void die_again_and_again(const std::vector<std::string>& commands) {
        for (const std::size_t last_store : {1U, 3U, 6U, 12U, 20U, 276U}) {
            for (const std::string& command : commands) {
                SCOPED_TRACE(command + " up to store " + std::to_string(last_store));
                client stepped = machine.start({"limits"});
                die_behind_store(stepped, command, last_store);
                repair_file();
                ASSERT_THAT(area_breaches(file->view(), {.stale_refs = true}), IsEmpty());
            }
        }
        EXPECT_GE(deaths, 12);
        client survivor = machine.start();
        EXPECT_NE(survivor.alloc("after all", 0x1000), 0U);
        EXPECT_EQ(survivor.free("after all"), 0);
        EXPECT_EQ(survivor.register_device(0, 9, 0), 0);
        EXPECT_THAT(area_breaches(file->view(), {.stale_refs = true}), IsEmpty());
    }

    sandbox machine{low};
    std::unique_ptr<area_file> file;
    fresh_area copy; ///< of the file, as far as it changes
    chunk_records settled;
    std::size_t stores = 0;
    std::size_t judged = 0;
    int deaths = 0;

  private:
    /// The content alone: the file goes on to the end of its last page.
    void take_over_file() {
        std::copy_n(file->view().bytes().begin(), copy.bytes().size(), copy.bytes().begin());
    }

    /// Offsets of the words that changed since the last time.
    std::vector<std::size_t> take_over_changes() {
        std::vector<std::size_t> changes;
        const uint8_t* live = file->view().bytes().data();
        for (const window& part : windows_) {
            if (std::memcmp(live + part.offset, copy.bytes().data() + part.offset, part.bytes) ==
                0) {
                continue;
            }
            for (std::size_t word = part.offset; word < part.offset + part.bytes; word += 4) {
                if (std::memcmp(live + word, copy.bytes().data() + word, 4) != 0) {
                    std::memcpy(copy.bytes().data() + word, live + word, 4);
                    changes.push_back(word);
                }
            }
        }
        stores += changes.empty() ? 0 : 1;
        return changes;
    }

    /// Whether one is a link or flag of a chunk or of one of its first references, or an end, or
    /// belongs to a device.
    static bool concerns_links(const std::vector<std::size_t>& changes) {
        return std::ranges::any_of(changes, [](std::size_t word) {
            if (word >= area_offset::chunks_head) {
                return true;
            }
            const std::size_t in_chunk = (word - area_offset::chunk(0)) % 4280;
            const bool in_first_refs =
                in_chunk >= area_offset::devs && in_chunk < area_offset::devs + 64;
            return in_chunk < 12 || in_first_refs || in_chunk >= area_offset::devs_head;
        });
    }

    void repair_copy() {
        const repair_plan plan = tarvoctl::plan_repair(copy.record());
        apply(plan, copy.record());
        ASSERT_THAT(plan.doubts, IsEmpty()) << "behind store " << stores;
        ASSERT_THAT(serious(tarvoctl::check_area(copy.record())), IsEmpty())
            << "behind store " << stores;
        const chunk_records left = records_of(copy.view());
        for (const auto& record : settled) {
            ASSERT_THAT(left, Contains(record)) << "behind store " << stores;
        }
        for (const tarvoctl::repair_edit& edit : plan.edits) {
            std::ranges::copy(edit.before,
                              copy.bytes().begin() + static_cast<std::ptrdiff_t>(edit.offset));
        }
    }

    /// In place, as the tool does it.
    void repair_file() {
        auto* bytes = const_cast<uint8_t*>(file->view().bytes().data());
        auto& live = *reinterpret_cast<shared_area_t*>(bytes);
        const repair_plan plan = tarvoctl::plan_repair(live);
        apply(plan, live);
        ASSERT_THAT(plan.doubts, IsEmpty());
    }

    /// Kills the client behind so many stores, or lets it finish when it makes fewer.
    void die_behind_store(client& stepped, const std::string& command, std::size_t last) {
        take_over_file();
        stores = 0;
        bool survived = false;
        {
            area_stepper stepper(stepped, machine.lock_file());
            survived = stepper.step(command, [&] {
                take_over_changes();
                return stores >= last ? area_stepper::verdict::kill : area_stepper::verdict::go_on;
            });
        }
        if (survived) {
            stepped.reply();
        } else {
            ++deaths;
            EXPECT_EQ(stepped.finish(), ended_by(SIGKILL)) << stepped.error_text();
            EXPECT_THAT(take_over_changes(), IsEmpty()) << "what a death leaves is what was seen";
        }
    }

    std::vector<window> windows_ = windows();
};

TEST_F(area_stepped, AllocatingIsRepairedBehindEveryStore) {
    repair_behind_every_store("alloc \"newcomer\" 4096 \"test\"", "newcomer");
    EXPECT_GT(stores, 250U);
    EXPECT_GT(judged, 50U);
}

TEST_F(area_stepped, FreeingIsRepairedBehindEveryStore) {
    repair_behind_every_store("free \"middle\"", "middle");
    EXPECT_GT(stores, 20U);
}

TEST_F(area_stepped, RegisteringIsRepairedBehindEveryStore) {
    repair_behind_every_store("register 0 5 0", "");
    EXPECT_GT(stores, 20U);
}

TEST_F(area_stepped, UnregisteringIsRepairedBehindEveryStore) {
    repair_behind_every_store("unregister 0 3 8", "");
    EXPECT_GT(stores, 10U);
}

TEST_F(area_stepped, ProcessesDieAndOthersGoOn) {
    die_again_and_again(
        {"free \"low\"", "register 0 5 0", "alloc \"low\" 4096 \"test\"", "unregister 0 5 0"});
}

} // namespace
