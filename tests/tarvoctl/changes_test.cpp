#include "tool.hpp"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>

namespace changes_test {

// What diff and watch call a change, as diff prints it: it has a before and an after that stand
// still.

namespace {

class changes : public ::testing::Test {
  protected:
    /// What diff says of a change that is made now.
    std::string reported(const std::function<void()>& change) {
        const taken_snapshot before(machine);
        change();
        return tarvoctl(machine, {"diff", before.path}).output;
    }

    sandbox machine{low};
    client driver = machine.start();
};

TEST_F(changes, NothingIsNoChange) {
    driver.alloc("a", 0x1000);
    driver.register_device(0, 3, 0);
    EXPECT_EQ(reported([] {}), "");
}

TEST_F(changes, ChunksThatGoAreReportedBeforeThoseThatCome) {
    driver.alloc("a", 0x1000, "me");
    driver.alloc("b", 0x1000, "me");
    EXPECT_EQ(reported([this] {
                  driver.free("b");
                  driver.alloc("c", 0x2000, "you");
              }),
              "freed         b: 4 KiB at physical 0x0080001000, creator me\n"
              "allocated     c: 8 KiB at physical 0x0080001000, creator you\n");
}

TEST_F(changes, ANameAtAnotherPlaceOrOfAnotherSizeIsAnotherChunk) {
    driver.alloc("a", 0x1000);
    driver.alloc("b", 0x1000);
    driver.alloc("c", 0x1000);
    EXPECT_EQ(reported([this] {
                  driver.free("a");
                  driver.alloc("keeper", 0x1000, "x");
                  driver.alloc("a", 0x1000);
                  driver.free("c");
                  driver.free("a");
                  driver.alloc("c", 0x2000);
                  driver.alloc("a", 0x1000);
              }),
              "allocated     keeper: 4 KiB at physical 0x0080000000, creator x\n"
              "replaced      c: 4 KiB at physical 0x0080002000, creator test; now 8 KiB at "
              "physical 0x0080002000, creator test\n"
              "replaced      a: 4 KiB at physical 0x0080000000, creator test; now 4 KiB at "
              "physical 0x0080004000, creator test\n");
}

TEST_F(changes, OfChunksOfOneNameTheOneAtItsPlaceStaysItself) {
    driver.alloc("a", 0x1000);
    driver.alloc("a", 0x2000);
    EXPECT_EQ(reported([this] { driver.free("a"); }),
              "freed         a: 4 KiB at physical 0x0080000000, creator test\n");
    EXPECT_EQ(reported([this] { driver.alloc("a", 0x1000); }),
              "allocated     a: 4 KiB at physical 0x0080000000, creator test\n");
}

TEST_F(changes, AChunkOfAnotherCreatorIsAnotherChunk) {
    driver.alloc("a", 0x1000, "me");
    EXPECT_EQ(reported([this] {
                  driver.free("a");
                  driver.alloc("a", 0x1000, "you");
              }),
              "replaced      a: 4 KiB at physical 0x0080000000, creator me; now 4 KiB at physical "
              "0x0080000000, creator you\n");
}

TEST_F(changes, AChunkInAnotherElementIsAnotherChunk) {
    driver.alloc("b", 0x1000);
    driver.alloc("a", 0x1000);
    EXPECT_EQ(reported([this] {
                  driver.free("a");
                  driver.free("b");
                  driver.alloc("b", 0x1000);
                  driver.alloc("a", 0x1000);
              }),
              "");
    EXPECT_EQ(
        reported([this] {
            driver.free("b");
            driver.free("a");
            driver.alloc("b", 0x1000);
            driver.alloc("a", 0x1000);
        }),
        "replaced      b: 4 KiB at physical 0x0080000000, creator test; allocated anew alike\n"
        "replaced      a: 4 KiB at physical 0x0080001000, creator test; allocated anew alike\n");
}

TEST_F(changes, TheMappingsOfAChunkThatWasReplacedAreNotToldOfTheirOwn) {
    driver.alloc("a", 0x1000, "me");
    EXPECT_EQ(reported([this] {
                  driver.register_device(0, 3, 0);
                  driver.free("a");
                  driver.alloc("a", 0x1000, "you");
              }),
              "registered    0000:03:00.0\n"
              "replaced      a: 4 KiB at physical 0x0080000000, creator me; now 4 KiB at physical "
              "0x0080000000, creator you\n");
}

TEST_F(changes, DevicesAreToldWithWhatTheySeeOfChunksThatStay) {
    driver.alloc("a", 0x1000);
    EXPECT_EQ(reported([this] {
                  driver.register_device(0, 3, 0);
                  driver.alloc("b", 0x1000);
              }),
              "registered    0000:03:00.0\n"
              "mapped        a: for 0000:03:00.0\n"
              "allocated     b: 4 KiB at physical 0x0080001000, creator test\n");
    EXPECT_EQ(reported([this] { driver.unregister_device(0, 3, 0); }),
              "unregistered  0000:03:00.0\n"
              "unmapped      a: for 0000:03:00.0\n"
              "unmapped      b: for 0000:03:00.0\n");
}

TEST_F(changes, ADeviceThatIsGoneGoesOfflineAndComesBack) {
    driver.register_device(0, 3, 0);
    machine.add_rules({"op=map,nth=1,errno=ENODEV"});
    EXPECT_EQ(reported([this] { driver.alloc("a", 0x1000); }),
              "offline       0000:03:00.0\n"
              "allocated     a: 4 KiB at physical 0x0080000000, creator test\n");
    EXPECT_EQ(reported([this] { driver.register_device(0, 3, 0); }),
              "online        0000:03:00.0\n"
              "mapped        a: for 0000:03:00.0\n");
}

TEST_F(changes, AForgottenDevicesMappingsAreInheritedAndNotUndone) {
    driver.register_device(0, 3, 0);
    driver.alloc("a", 0x1000);
    machine.add_rules({"op=map,nth=1,errno=ENODEV"});
    driver.alloc("b", 0x1000); // takes the device offline
    EXPECT_EQ(reported([this] { driver.unregister_device(0, 3, 0); }),
              "unregistered  0000:03:00.0\n");
    machine.replace_rules({"op=map,errno=ENODEV"});
    EXPECT_EQ(reported([this] { driver.register_device(0, 4, 0); }),
              "registered    0000:04:00.0\n"
              "offline       0000:04:00.0\n"
              "mapped        a: for 0000:04:00.0\n");
}

constexpr int all_devices = 256;

/// Registers 256 devices and maps the chunks for all of them, as millions of requests would.
void map_for_all_devices(const area_writer& write, int chunks) {
    const auto link = [&write](size_t element, int number) {
        write.i32(element + area_offset::next, (number + 1) % all_devices);
        write.i32(element + area_offset::prev, (number + all_devices - 1) % all_devices);
        write.u8(element + area_offset::allocated, 1);
    };
    for (int device = 0; device < all_devices; ++device) {
        link(area_offset::device(device), device);
        write.i32(area_offset::device(device) + area_offset::bus, device);
        write.u8(area_offset::device(device) + area_offset::online, 1);
    }
    write.i32(area_offset::devices_head, 0);
    write.i32(area_offset::devices_tail, all_devices - 1);
    write.i32(area_offset::devices_free, -1);
    for (int chunk = 2; chunk < chunks + 2; ++chunk) { // the first two bound the region
        for (int ref = 0; ref < all_devices; ++ref) {
            link(area_offset::ref(chunk, ref), ref);
            write.i32(area_offset::ref(chunk, ref) + area_offset::dev, ref);
        }
        write.i32(area_offset::chunk(chunk) + area_offset::devs_head, 0);
        write.i32(area_offset::chunk(chunk) + area_offset::devs_tail, all_devices - 1);
        write.i32(area_offset::chunk(chunk) + area_offset::devs_free, -1);
    }
}

TEST_F(changes, DevicesUnderOtherNumbersAreTheSame) {
    constexpr int chunks = 4000;
    driver.fill("c", chunks);
    const auto area = machine.writable_area();
    const area_writer write = area.writer();
    map_for_all_devices(write, chunks);
    EXPECT_EQ(reported([&] {
                  for (int device = 0; device < all_devices; ++device) {
                      write.i32(area_offset::device(device) + area_offset::bus,
                                all_devices - 1 - device);
                  }
              }),
              "");
}

#ifndef TARVO_SANITIZED // which take terabytes of addresses, and this limits them
TEST_F(changes, MillionsOfMappingsAreCountedInBoundedMemory) {
    constexpr int chunks = 16382;
    driver.fill("c", chunks);
    const temporary_folder folder;
    const std::string before = folder.path() / "before";
    const std::string after = folder.path() / "after";
    ASSERT_EQ(tarvoctl(machine, {"snapshot", before}).status, 0);
    std::filesystem::copy_file(machine.shared_area(), after);
    map_for_all_devices(area_file(after, area_file::access::write).writer(), chunks);
    ASSERT_NE(tarvoctl(machine, {"check", after}).status, 4);
    const std::string within = "ulimit -v 1000000; exec \"$0\" diff \"$@\"";
    const auto text = run_program(machine, {"sh", "-c", within, TARVOCTL, before, after});
    EXPECT_EQ(text.status, 1) << text.errors;
    const auto lines = lines_of(text.output);
    ASSERT_EQ(lines.size(), 256U + 65536U + 1U); // with the devices, which are new
    EXPECT_EQ(lines.back(), "mapped        and 4128256 more, which are not listed");
    const auto document =
        json_of(run_program(machine, {"sh", "-c", within, TARVOCTL, before, after, "--json"}));
    EXPECT_EQ(document.at("changes").back().at("more"), 4128256);
    EXPECT_EQ(document.at("changes").back().at("chunk"), nullptr);
}
#endif

} // namespace

} // namespace changes_test
