#include "fresh_area.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace area_test {

// The decoder that the tests check with is checked here: it walks a sound area, and it says of a
// damaged one which rule is broken.

namespace {

using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

/// Three chunks (elements 2 to 4, in that order), two devices, the middle chunk mapped for both.
class area_rules : public testing::Test {
  protected:
    area_rules() {
        area.build(0x1000, 0x100000);
        area.add_chunk(0, "low", 0x1000, 0x1000);
        area.add_chunk(2, "middle", 0x4000, 0x2000);
        area.add_chunk(3, "high", 0x6000, 0x1000);
        area.add_device(0, 3, 8);
        area.add_device(0, 4, 16);
        area.add_ref(3, 0);
        area.add_ref(3, 1);
    }

    std::vector<std::string> breaches(area_allowance allowed = {}) {
        return area_breaches(area.view(), allowed);
    }

    fresh_area area;
    const area_writer write = area.writer();
};

TEST_F(area_rules, AreAllKeptByASoundArea) {
    EXPECT_THAT(breaches(), IsEmpty());
    EXPECT_THAT(area.view().chunks(),
                ElementsAre(Field(&area_chunk::name, "__HEAD"), Field(&area_chunk::name, "low"),
                            Field(&area_chunk::name, "middle"), Field(&area_chunk::name, "high"),
                            Field(&area_chunk::name, "__TAIL")));
    EXPECT_THAT(area.view().devices(),
                ElementsAre(Field(&area_device::bus, 3), Field(&area_device::bus, 4)));
    EXPECT_THAT(area.view().refs(3),
                ElementsAre(Field(&area_ref::dev, 0), Field(&area_ref::dev, 1)));
    EXPECT_EQ(area.view().free_chunks().size(), 16379U);
    EXPECT_EQ(area.view().free_devices().size(), 254U);
    EXPECT_EQ(area.view().free_refs(3).size(), 254U);
}

/// One damage, and all that the rules say of it.
struct damage {
    const char* name;
    std::function<void(const area_writer&)> inflict;
    std::vector<std::string> breaches;
};

std::ostream& operator<<(std::ostream& stream, const damage& each) {
    return stream << each.name;
}

class damaged_area : public area_rules, public testing::WithParamInterface<damage> {};

TEST_P(damaged_area, BreaksTheRuleThatIsNamed) {
    GetParam().inflict(write);
    EXPECT_THAT(breaches(), testing::ElementsAreArray(GetParam().breaches));
}

size_t in_chunk(int index, size_t field) {
    return area_offset::chunk(index) + field;
}

size_t in_device(int index, size_t field) {
    return area_offset::device(index) + field;
}

size_t in_ref(int chunk, int index, size_t field) {
    return area_offset::ref(chunk, index) + field;
}

const damage frame_damages[] = {
    {"NotInitialized", [](const area_writer& write) { write.u8(0, 0); }, {"initialized is 0"}},
    {"FramePadding",
     [](const area_writer& write) { write.u8(3, 9); },
     {"padding after initialized is not zero"}},
    {"HeadAlone",
     [](const area_writer& write) { write.i32(area_offset::chunks_tail, -1); },
     {"chunks: head 0, tail -1", "chunks: 0 elements, not even two sentinels"}},
    {"DevicesHeadOutOfRange",
     [](const area_writer& write) { write.i32(area_offset::devices_head, 256); },
     {"devices: head 256, tail 1", "chunk 3: reference 0 is to device 0, which is not registered",
      "chunk 3: reference 1 is to device 1, which is not registered"}},
};

const damage link_damages[] = {
    {"NextOutOfRange",
     [](const area_writer& write) { write.i32(in_chunk(3, area_offset::next), 16384); },
     {"chunks: link 16384 after element 3 is out of range",
      "chunks: 0 elements, not even two sentinels"}},
    {"NextInACircle",
     [](const area_writer& write) { write.i32(in_chunk(3, area_offset::next), 2); },
     {"chunks: element 2 after element 3 was already visited",
      "chunks: 0 elements, not even two sentinels"}},
    {"PrevWrong",
     [](const area_writer& write) { write.i32(in_chunk(3, area_offset::prev), 4); },
     {"chunks: element 2 has next 3, element 3 has prev 4"}},
    {"TailNotLinkedToHead",
     [](const area_writer& write) { write.i32(in_chunk(1, area_offset::next), 2); },
     {"chunks: element 1 has next 2, element 0 has prev 1"}},
    {"DevicePrevWrong",
     [](const area_writer& write) { write.i32(in_device(0, area_offset::prev), 0); },
     {"devices: element 1 has next 0, element 0 has prev 0"}},
    {"RefNextOutOfRange",
     [](const area_writer& write) { write.i32(in_ref(3, 0, area_offset::next), -1); },
     {"devs of chunk 3: link -1 after element 0 is out of range"}},
};

const damage membership_damages[] = {
    {"LiveElementNotAllocated",
     [](const area_writer& write) { write.u8(in_chunk(3, area_offset::allocated), 0); },
     {"chunks: element 3 is on the list, allocated 0"}},
    {"LiveElementAllocatedTwo",
     [](const area_writer& write) { write.u8(in_chunk(3, area_offset::allocated), 2); },
     {"chunks: element 3 is on the list, allocated 2"}},
    {"FreeElementAllocated",
     [](const area_writer& write) { write.u8(in_chunk(9, area_offset::allocated), 1); },
     {"chunks: element 9 is on the free chain and not zero, allocated 1"}},
    {"FreeElementNotZero",
     [](const area_writer& write) { write.u8(in_chunk(16383, 4279), 1); },
     {"chunks: element 16383 is on the free chain and not zero, allocated 0"}},
    {"FreeChainSkipsAnElement",
     [](const area_writer& write) { write.i32(in_device(5, area_offset::next), 7); },
     {"devices: element 6 is on neither the list nor the free chain, allocated 0"}},
    {"FreeChainHoldsALiveElement",
     [](const area_writer& write) { write.i32(in_device(255, area_offset::next), 0); },
     {"devices: element 0 after element 1 was already visited"}},
    {"FreeChainOutOfRange",
     [](const area_writer& write) { write.i32(in_ref(2, 255, area_offset::next), 256); },
     {"devs of chunk 2: link 256 after element 255 is out of range"}},
    {"FreeChainEndsInALiveElement",
     [](const area_writer& write) {
         write.i32(in_device(255, area_offset::next), 1);
         write.i32(in_device(1, area_offset::next), -1);
     },
     {"devices: element 1 has next -1, element 0 has prev 1",
      "devices: element 1 is on both the list and the free chain, allocated 1",
      "devices: element 1 is on the free chain and not zero, allocated 1"}},
};

const damage chunk_damages[] = {
    {"OutOfOrder",
     [](const area_writer& write) { write.u64(in_chunk(2, area_offset::pa), 0x9000); },
     {"chunk 3: pa 16384 is below 36864 of chunk 2 before it"}},
    {"Overlap",
     [](const area_writer& write) { write.u32(in_chunk(3, area_offset::size), 0x3000); },
     {"chunk 3: end 28672 is above the start 24576 of chunk 4"}},
    {"AfterTheRegion",
     [](const area_writer& write) { write.u32(in_chunk(4, area_offset::size), 0x100000); },
     {"chunk 4: end 1073152 is above the start 1052672 of chunk 1",
      "chunk 4: pa 24576, size 1048576 is not within 4096 to 1052672"}},
    {"SentinelWithASize",
     [](const area_writer& write) { write.u32(in_chunk(1, area_offset::size), 1); },
     {"chunk 1 stands for __TAIL: name '__TAIL', size 1"}},
    {"SentinelOfAnotherName",
     [](const area_writer& write) { write.text(in_chunk(0, area_offset::name), "__HEAT"); },
     {"chunk 0 stands for __HEAD: name '__HEAT', size 0"}},
    {"SentinelWithDevices",
     [](const area_writer& write) { write.i32(in_chunk(0, area_offset::devs_head), -1); },
     {"__HEAD: devs is not zero"}},
    {"NoName",
     [](const area_writer& write) { write.text(in_chunk(2, area_offset::name), ""); },
     {"chunk 2: name of 0 bytes", "chunk 2: bytes after the name are not zero"}},
    {"NameWithoutEnd",
     [](const area_writer& write) {
         write.text(in_chunk(2, area_offset::name), std::string(50, 'n'));
     },
     {"chunk 2: name of 50 bytes"}},
    {"CreatorWithoutEnd",
     [](const area_writer& write) {
         write.text(in_chunk(2, area_offset::creator), std::string(99, 'c'));
         write.u8(in_chunk(2, 171), 'c');
     },
     {"chunk 2: creator of 100 bytes"}},
    {"RestOfAnotherCreator",
     [](const area_writer& write) { write.text(in_chunk(2, area_offset::creator), "un"); },
     {"chunk 2: bytes after the creator are not zero"}},
    {"ChunkPadding",
     [](const area_writer& write) { write.u8(in_chunk(2, 59), 1); },
     {"chunk 2: bytes after the name are not zero"}},
};

const damage device_damages[] = {
    {"TheSameDeviceTwice",
     [](const area_writer& write) {
         write.i32(in_device(1, area_offset::bus), 3);
         write.i32(in_device(1, area_offset::devfn), 8);
     },
     {"devices 0 and 1 are both 0:3:8"}},
    {"OnlineTwo",
     [](const area_writer& write) { write.u8(in_device(1, area_offset::online), 2); },
     {"device 1: online is 2"}},
    {"DevicePadding",
     [](const area_writer& write) { write.u8(in_device(1, 27), 1); },
     {"device 1: padding is not zero"}},
    {"RefToAFreeDevice",
     [](const area_writer& write) { write.i32(in_ref(3, 1, area_offset::dev), 2); },
     {"chunk 3: reference 1 is to device 2, which is not registered"}},
    {"RefOutOfRange",
     [](const area_writer& write) { write.i32(in_ref(3, 0, area_offset::dev), -1); },
     {"chunk 3: reference 0 is to device -1, which is not registered"}},
    {"TwoRefsToOneDevice",
     [](const area_writer& write) { write.i32(in_ref(3, 1, area_offset::dev), 0); },
     {"chunk 3: references 0 and 1 are both to device 0"}},
    {"RefPadding",
     [](const area_writer& write) { write.u8(in_ref(3, 1, 11), 1); },
     {"chunk 3: padding of reference 1 is not zero"}},
};

std::string name_of(const testing::TestParamInfo<damage>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(frame, damaged_area, testing::ValuesIn(frame_damages), name_of);
INSTANTIATE_TEST_SUITE_P(links, damaged_area, testing::ValuesIn(link_damages), name_of);
INSTANTIATE_TEST_SUITE_P(membership, damaged_area, testing::ValuesIn(membership_damages), name_of);
INSTANTIATE_TEST_SUITE_P(chunks, damaged_area, testing::ValuesIn(chunk_damages), name_of);
INSTANTIATE_TEST_SUITE_P(devices, damaged_area, testing::ValuesIn(device_damages), name_of);

TEST_F(area_rules, AllowOverlapWhereATestExpectsIt) {
    write.u32(in_chunk(3, area_offset::size), 0x3000);
    EXPECT_THAT(breaches({.overlap = true}), IsEmpty());
}

TEST_F(area_rules, StillKeepOverlappingChunksInsideTheRegion) {
    write.u32(in_chunk(3, area_offset::size), 0x300000);
    EXPECT_THAT(breaches({.overlap = true}),
                ElementsAre("chunk 3: pa 16384, size 3145728 is not within 4096 to 1052672"));
}

TEST_F(area_rules, AllowReferencesToForgottenDevicesWhereATestExpectsThem) {
    write.i32(in_ref(3, 1, area_offset::dev), 2);
    EXPECT_THAT(breaches({.stale_refs = true}), IsEmpty());
}

TEST_F(area_rules, WantTheRestOfTheLastPageToBeZero) {
    std::vector<uint8_t> file(70131712);
    std::ranges::copy(area.bytes(), file.begin());
    EXPECT_THAT(area_breaches(area_view(file)), IsEmpty());
    file.back() = 1;
    EXPECT_THAT(area_breaches(area_view(file)),
                ElementsAre("bytes after the content are not zero"));
}

TEST_F(area_rules, MakeAWalkOverADamagedListThrow) {
    write.i32(in_chunk(3, area_offset::next), 2);
    EXPECT_THROW(area.view().chunks(), std::runtime_error);
    write.i32(area_offset::device(255), 2);
    EXPECT_THROW(area.view().free_devices(), std::runtime_error);
}

TEST(area_decoder, RefusesTooFewBytes) {
    const std::vector<uint8_t> bytes(70130715);
    EXPECT_THROW(area_view{bytes}, std::runtime_error);
}

TEST(area_decoder, RefusesElementsThatDoNotExist) {
    EXPECT_THROW(area_offset::chunk(16384), std::out_of_range);
    EXPECT_THROW(area_offset::chunk(-1), std::out_of_range);
    EXPECT_THROW(area_offset::device(256), std::out_of_range);
    EXPECT_THROW(area_offset::ref(0, 256), std::out_of_range);
    EXPECT_THROW(area_offset::ref(16384, 0), std::out_of_range);
}

/// A file of a given length that is gone at the end.
class temporary_file {
  public:
    explicit temporary_file(std::uintmax_t length) {
        const int fd = mkstemp(_path);
        close(fd);
        std::filesystem::resize_file(_path, length);
    }
    ~temporary_file() { unlink(_path); }
    temporary_file(const temporary_file&) = delete;
    temporary_file& operator=(const temporary_file&) = delete;
    const char* path() const { return _path; }

  private:
    char _path[24] = "/tmp/tarvo_area_XXXXXX";
};

TEST(area_decoder, WritesThroughToTheFileThatOthersSee) {
    const temporary_file file(70131712);
    const area_file reader(file.path());
    const std::vector<uint8_t> before = reader.snapshot();
    area_file(file.path(), area_file::access::write)
        .writer()
        .text(in_chunk(5, area_offset::name), "seen");
    EXPECT_EQ(reader.view().chunk(5).name, "seen");
    EXPECT_EQ(area_view(before).chunk(5).name, "");
    EXPECT_EQ(reader.view().bytes().size(), 70131712U);
}

TEST(area_decoder, RefusesAFileThatIsShortOrMissing) {
    const temporary_file file(4096);
    EXPECT_THROW(area_file{file.path()}, std::runtime_error);
    EXPECT_THROW(area_file{"/nonexistent/area"}, std::system_error);
}

} // namespace

} // namespace area_test
