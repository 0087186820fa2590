#include "area_fixture.hpp"
#include "area_stepper.hpp"
#include "sandbox.hpp"

#include <csignal>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>

namespace area_stepped_test {

// The library as it was built here, stepped through one instruction at a time inside its lock, in a
// sandbox. What the area file holds between two instructions is what a process that dies there
// leaves, whatever kills it: the file is mapped shared, and nothing of it is kept elsewhere. So
// this shows that every death of this build in these calls can be repaired, and what others meet
// who go on without a repair; area_death_test.cpp shows the first for other orders of the same
// stores.

namespace {

using tarvoctl::repair_plan;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// The elements that the small lists of these tests use.
constexpr int used_chunks = 8;
constexpr int used_devices = 8;

struct window {
    size_t offset;
    size_t bytes;
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
    /// Three chunks with room for one more between the first two, and two devices.
    area_stepped() {
        client builder = machine.start();
        for (const char* name : {"low", "room", "middle", "high"}) {
            builder.alloc(name, 0x1000);
        }
        builder.free("room");
        builder.register_device(0, 3, 8);
        builder.register_device(0, 4, 16);
        builder.finish();
        file = std::make_unique<area_file>(machine.shared_area(), area_file::access::write);
        take_over_file();
        settled = records_of(copy.view());
    }

    /// Steps through a call and repairs a copy of what each store leaves. Of the stores that only
    /// fill or clear an element every eighth is taken.
    void repair_after_every_store(const std::string& command, const std::string& changed) {
        settled.erase(changed);
        client stepped = machine.start({"limits"});
        area_stepper stepper(stepped, machine.lock_file());
        unsigned passed_over = 0;
        ASSERT_TRUE(stepper.step(command, [&] {
            const auto changes = take_over_changes();
            if (!changes.empty() && (concerns_links(changes) || ++passed_over % 8 == 0)) {
                ++checked;
                repair_copy();
            }
            return HasFatalFailure() ? area_stepper::verdict::kill : area_stepper::verdict::go_on;
        }));
        stepped.reply();
        RecordProperty("stores", static_cast<int>(stores));
        RecordProperty("checked", static_cast<int>(checked));
        EXPECT_THAT(serious(tarvoctl::check_area(copy.record())), IsEmpty());
    }

    /// What each store of a call that touches a link leaves, as deaths would.
    std::vector<std::vector<uint8_t>> states_of(const std::string& command) {
        std::vector<std::vector<uint8_t>> states;
        client stepped = machine.start({"limits"});
        area_stepper stepper(stepped, machine.lock_file());
        EXPECT_TRUE(stepper.step(command, [&] {
            if (concerns_links(take_over_changes())) {
                states.push_back(bytes_in_windows());
            }
            return area_stepper::verdict::go_on;
        }));
        stepped.reply();
        return states;
    }

    /// Has the file hold such a state.
    void leave(const std::vector<uint8_t>& state) {
        auto* live = const_cast<uint8_t*>(file->view().bytes().data());
        auto bytes = state.begin();
        for (const window& part : _windows) {
            std::copy_n(bytes, part.bytes, live + part.offset);
            bytes += static_cast<std::ptrdiff_t>(part.bytes);
        }
    }

    /// Kills processes in the middle of calls, early and late, repairs the file itself after each
    /// and has the next process go on with it.
    void die_again_and_again(const std::vector<std::string>& commands) {
        for (const size_t last_store : {1U, 3U, 6U, 12U, 20U, 276U}) {
            for (const std::string& command : commands) {
                SCOPED_TRACE(command + " up to store " + std::to_string(last_store));
                client stepped = machine.start({"limits"});
                die_after_store(stepped, command, last_store);
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
    size_t stores = 0;
    size_t checked = 0;
    int deaths = 0;

  private:
    /// The content alone: the file goes on to the end of its last page.
    void take_over_file() {
        std::copy_n(file->view().bytes().begin(), copy.bytes().size(), copy.bytes().begin());
    }

    /// Offsets of the words that changed since the last time.
    std::vector<size_t> take_over_changes() {
        std::vector<size_t> changes;
        const uint8_t* live = file->view().bytes().data();
        for (const window& part : _windows) {
            if (std::memcmp(live + part.offset, copy.bytes().data() + part.offset, part.bytes) ==
                0) {
                continue;
            }
            for (size_t word = part.offset; word < part.offset + part.bytes; word += 4) {
                if (std::memcmp(live + word, copy.bytes().data() + word, 4) != 0) {
                    std::memcpy(copy.bytes().data() + word, live + word, 4);
                    changes.push_back(word);
                }
            }
        }
        stores += changes.empty() ? 0 : 1;
        return changes;
    }

    std::vector<uint8_t> bytes_in_windows() const {
        std::vector<uint8_t> bytes;
        for (const window& part : _windows) {
            const uint8_t* live = file->view().bytes().data() + part.offset;
            bytes.insert(bytes.end(), live, live + part.bytes);
        }
        return bytes;
    }

    /// Whether one is a link or flag of a chunk or of one of its first references, or an end, or
    /// belongs to a device.
    static bool concerns_links(const std::vector<size_t>& changes) {
        return std::ranges::any_of(changes, [](size_t word) {
            if (word >= area_offset::chunks_head) {
                return true;
            }
            const size_t in_chunk = (word - area_offset::chunk(0)) % 4280;
            const bool in_first_refs =
                in_chunk >= area_offset::devs && in_chunk < area_offset::devs + 64;
            return in_chunk < 12 || in_first_refs || in_chunk >= area_offset::devs_head;
        });
    }

    void repair_copy() {
        const repair_plan plan = tarvoctl::plan_repair(copy.record());
        apply(plan, copy.record());
        ASSERT_THAT(plan.doubts, IsEmpty()) << "after store " << stores;
        ASSERT_THAT(serious(tarvoctl::check_area(copy.record())), IsEmpty())
            << "after store " << stores;
        const chunk_records left = records_of(copy.view());
        for (const auto& record : settled) {
            ASSERT_THAT(left, Contains(record)) << "after store " << stores;
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

    /// Kills the client after so many stores, or lets it finish when it makes fewer.
    void die_after_store(client& stepped, const std::string& command, size_t last) {
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

    std::vector<window> _windows = windows();
};

TEST_F(area_stepped, AllocatingIsRepairedAfterEveryStore) {
    repair_after_every_store("alloc \"newcomer\" 4096 \"test\"", "newcomer");
    EXPECT_GT(stores, 250U);
    EXPECT_GT(checked, 50U);
}

TEST_F(area_stepped, FreeingIsRepairedAfterEveryStore) {
    repair_after_every_store("free \"middle\"", "middle");
    EXPECT_GT(stores, 20U);
}

TEST_F(area_stepped, RegisteringIsRepairedAfterEveryStore) {
    repair_after_every_store("register 0 5 0", "");
    EXPECT_GT(stores, 20U);
}

TEST_F(area_stepped, UnregisteringIsRepairedAfterEveryStore) {
    repair_after_every_store("unregister 0 3 8", "");
    EXPECT_GT(stores, 10U);
}

TEST_F(area_stepped, ProcessesDieAndOthersGoOn) {
    die_again_and_again(
        {"free \"low\"", "register 0 5 0", "alloc \"low\" 4096 \"test\"", "unregister 0 5 0"});
}

/// Those who go on, without a repair, where a process has died. Chunks are of one page.
class survivors {
  public:
    survivors(sandbox& machine, const chunk_records& settled) : _machine(machine) {
        for (const auto& [name, record] : settled) {
            if (!name.starts_with("__")) {
                _chunks[name] = low.dma(std::get<uint64_t>(record));
            }
        }
    }

    /// What goes wrong when they make these calls one after the other; empty when nothing does.
    std::string harm_of(const std::vector<std::string>& calls) {
        std::map<std::string, uint32_t> chunks = _chunks;
        try {
            for (const std::string& call : calls) {
                const std::string harm = make(call, chunks);
                if (!harm.empty()) {
                    return harm;
                }
            }
            for (const auto& [name, dma] : chunks) {
                if (_user->find(dma).name != name) {
                    return name + " is lost";
                }
            }
        } catch (const std::exception&) {
            _user.emplace(_machine.start());
            return "a process ends";
        }
        return "";
    }

  private:
    std::string make(const std::string& call, std::map<std::string, uint32_t>& chunks) {
        const size_t blank = call.find(' ');
        const std::string name = call.substr(blank + 1);
        if (call.starts_with("get ")) {
            const uint32_t dma = _user->alloc(name, 0x1000);
            for (const auto& [other, taken] : chunks) {
                if (taken == dma && other != name) {
                    return name + " gets the memory of " + other;
                }
            }
            const auto known = chunks.emplace(name, dma).first;
            return dma != 0 && known->second == dma ? "" : name + " is not what it was";
        }
        if (call.starts_with("free ")) {
            chunks.erase(name);
        }
        const std::string reply =
            call == "dump" ? std::to_string(_user->dump().size()) : _user->call(call);
        return call.starts_with("register") && reply != "0" ? "no device is registered" : "";
    }

    sandbox& _machine;
    std::optional<client> _user = _machine.start();
    std::map<std::string, uint32_t> _chunks; ///< those that must be found, by DMA address
};

/// What those do who survive a death while `made` was made or freed.
std::vector<std::vector<std::string>> lives_after(const std::string& made) {
    std::vector<std::vector<std::string>> lives{
        {"dump"},
        {"get other", "free other", "get other"},
        {"free " + made, "get other", "get more"},
        {"get " + made, "free " + made, "get other", "get " + made},
        {"register 0 9 0", "unregister 0 9 0", "register 0 9 0"},
        {"unregister 0 3 8", "register 0 9 0", "unregister 0 4 16", "register 0 3 8"},
        {"unregister 0 4 16", "unregister 0 3 8", "register 0 9 0", "register 0 3 8", "dump"},
    };
    for (const char* neighbour : {"low", "middle", "high"}) {
        if (neighbour != made) {
            const std::string freed = std::string("free ") + neighbour;
            lives.push_back({freed, "get other", "get more", "get " + std::string(neighbour)});
            lives.push_back({"get " + made, freed, "get other", "get more"});
            lives.push_back({"free " + made, freed, "get other", "get more"});
        }
    }
    return lives;
}

class area_survived : public area_stepped {
  protected:
    /// The harm that deaths in this call do, each with what the survivors did.
    std::set<std::string> harm_of_deaths(const std::string& command, const std::string& made) {
        const auto states = states_of(command);
        EXPECT_GT(states.size(), 5U);
        settled.erase(made);
        survivors others(machine, settled);
        std::set<std::string> harms;
        for (const auto& state : states) {
            for (const auto& calls : lives_after(made)) {
                leave(state);
                const std::string harm = others.harm_of(calls);
                if (!harm.empty()) {
                    harms.insert(harm + " after " + testing::PrintToString(calls));
                }
            }
        }
        return harms;
    }
};

/// A chunk to which only its left neighbour leads goes with the right one. tarvo(7) says so.
TEST_F(area_survived, DeathsWhileAChunkIsMadeButForOneStore) {
    EXPECT_THAT(harm_of_deaths("alloc \"newcomer\" 4096 \"test\"", "newcomer"),
                ElementsAre("other gets the memory of newcomer after { \"get newcomer\", \"free "
                            "middle\", \"get other\", \"get more\" }"));
}

TEST_F(area_survived, DeathsWhileAChunkIsFreedButForOneStore) {
    EXPECT_THAT(harm_of_deaths("free \"middle\"", "middle"),
                ElementsAre("more gets the memory of middle after { \"get middle\", \"free high\", "
                            "\"get other\", \"get more\" }"));
}

TEST_F(area_survived, DeathsWhileADeviceIsRegistered) {
    EXPECT_THAT(harm_of_deaths("register 0 5 0", "newcomer"), IsEmpty());
}

TEST_F(area_survived, DeathsWhileTheFirstDeviceIsRegistered) {
    machine.start({"unregister 0 3 8", "unregister 0 4 16"}).finish();
    EXPECT_THAT(harm_of_deaths("register 0 5 0", "newcomer"), IsEmpty());
}

TEST_F(area_survived, DeathsWhileTheFirstDeviceIsForgotten) {
    EXPECT_THAT(harm_of_deaths("unregister 0 3 8", "newcomer"), IsEmpty());
}

TEST_F(area_survived, DeathsWhileTheLastDeviceIsForgotten) {
    EXPECT_THAT(harm_of_deaths("unregister 0 4 16", "newcomer"), IsEmpty());
}

TEST_F(area_survived, DeathsWhileTheOnlyDeviceIsForgotten) {
    machine.start({"unregister 0 3 8"}).finish();
    EXPECT_THAT(harm_of_deaths("unregister 0 4 16", "newcomer"), IsEmpty());
}

} // namespace

} // namespace area_stepped_test
