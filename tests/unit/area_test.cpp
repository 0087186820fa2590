#include "fresh_area.hpp"
#include "temporary_folder.hpp"

#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <system_error>
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

namespace at = area_offset;

/// Makes one field hold something else.
using change = std::function<void(const area_writer&)>;

change u8(size_t offset, uint8_t value) {
    return [=](const area_writer& write) { write.u8(offset, value); };
}

change i32(size_t offset, int32_t value) {
    return [=](const area_writer& write) { write.i32(offset, value); };
}

change text(size_t offset, const std::string& value) {
    return [=](const area_writer& write) { write.text(offset, value); };
}

change both(const change& first, const change& second) {
    return [=](const area_writer& write) {
        first(write);
        second(write);
    };
}

/// One damage, and all that the rules say of it.
struct damage {
    const char* name;
    change inflict;
    const char* breaches; ///< a line each
};

std::ostream& operator<<(std::ostream& stream, const damage& each) {
    return stream << each.name;
}

class damaged_area : public area_rules, public testing::WithParamInterface<damage> {};

TEST_P(damaged_area, BreaksTheRuleThatIsNamed) {
    GetParam().inflict(write);
    std::string found;
    for (const std::string& breach : breaches()) {
        found += (found.empty() ? "" : "\n") + breach;
    }
    EXPECT_EQ(found, GetParam().breaches);
}

const damage frame_damages[] = {
    {"NotInitialized", u8(0, 0), "initialized is 0"},
    {"FramePadding", u8(3, 9), "padding after initialized is not zero"},
    {"HeadAlone", i32(at::chunks_tail, -1),
     "chunks: head 0, tail -1\n"
     "chunks: 0 elements, not even two sentinels"},
    {"DevicesHeadOutOfRange", i32(at::devices_head, 256),
     "devices: head 256, tail 1\n"
     "chunk 3: reference 0 is to device 0, which is not registered\n"
     "chunk 3: reference 1 is to device 1, which is not registered"},
};

const damage link_damages[] = {
    {"NextOutOfRange", i32(at::chunk(3) + at::next, 16384),
     "chunks: link 16384 after element 3 is out of range\n"
     "chunks: 0 elements, not even two sentinels"},
    {"NextInACircle", i32(at::chunk(3) + at::next, 2),
     "chunks: element 2 after element 3 was already visited\n"
     "chunks: 0 elements, not even two sentinels"},
    {"PrevWrong", i32(at::chunk(3) + at::prev, 4),
     "chunks: element 2 has next 3, element 3 has prev 4"},
    {"TailNotLinkedToHead", i32(at::chunk(1) + at::next, 2),
     "chunks: element 1 has next 2, element 0 has prev 1"},
    {"DevicePrevWrong", i32(at::device(0) + at::prev, 0),
     "devices: element 1 has next 0, element 0 has prev 0"},
    {"RefNextOutOfRange", i32(at::ref(3, 0) + at::next, -1),
     "devs of chunk 3: link -1 after element 0 is out of range"},
};

const damage membership_damages[] = {
    {"LiveElementNotAllocated", u8(at::chunk(3) + at::allocated, 0),
     "chunks: element 3 is on the list, allocated 0"},
    {"LiveElementAllocatedTwo", u8(at::chunk(3) + at::allocated, 2),
     "chunks: element 3 is on the list, allocated 2"},
    {"FreeElementAllocated", u8(at::chunk(9) + at::allocated, 1),
     "chunks: element 9 is on the free chain and not zero, allocated 1"},
    {"FreeElementNotZero", u8(at::chunk(16383) + 4279, 1),
     "chunks: element 16383 is on the free chain and not zero, allocated 0"},
    {"FreeChainSkipsAnElement", i32(at::device(5) + at::next, 7),
     "devices: element 6 is on neither the list nor the free chain, allocated 0"},
    {"FreeChainHoldsALiveElement", i32(at::device(255) + at::next, 0),
     "devices: element 0 after element 1 was already visited"},
    {"FreeChainOutOfRange", i32(at::ref(2, 255) + at::next, 256),
     "devs of chunk 2: link 256 after element 255 is out of range"},
    {"FreeChainEndsInALiveElement",
     both(i32(at::device(255) + at::next, 1), i32(at::device(1) + at::next, -1)),
     "devices: element 1 has next -1, element 0 has prev 1\n"
     "devices: element 1 is on both the list and the free chain, allocated 1\n"
     "devices: element 1 is on the free chain and not zero, allocated 1"},
};

const damage chunk_damages[] = {
    {"OutOfOrder", i32(at::chunk(2) + at::pa, 0x9000),
     "chunk 3: pa 16384 is below 36864 of chunk 2 before it"},
    {"Overlap", i32(at::chunk(3) + at::size, 0x3000),
     "chunk 3: end 28672 is above the start 24576 of chunk 4"},
    {"AfterTheRegion", i32(at::chunk(4) + at::size, 0x100000),
     "chunk 4: end 1073152 is above the start 1052672 of chunk 1\n"
     "chunk 4: pa 24576, size 1048576 is not within 4096 to 1052672"},
    {"SentinelWithASize", i32(at::chunk(1) + at::size, 1),
     "chunk 1 stands for __TAIL: name '__TAIL', size 1"},
    {"SentinelOfAnotherName", text(at::chunk(0) + at::name, "__HEAT"),
     "chunk 0 stands for __HEAD: name '__HEAT', size 0"},
    {"SentinelWithDevices", i32(at::chunk(0) + at::devs_head, -1), "__HEAD: devs is not zero"},
    {"NoName", text(at::chunk(2) + at::name, ""),
     "chunk 2: name of 0 bytes\n"
     "chunk 2: bytes after the name are not zero"},
    {"NameWithoutEnd", text(at::chunk(2) + at::name, std::string(50, 'n')),
     "chunk 2: name of 50 bytes"},
    {"CreatorWithoutEnd",
     both(text(at::chunk(2) + at::creator, std::string(99, 'c')), u8(at::chunk(2) + 171, 'c')),
     "chunk 2: creator of 100 bytes"},
    {"RestOfAnotherCreator", text(at::chunk(2) + at::creator, "un"),
     "chunk 2: bytes after the creator are not zero"},
    {"ChunkPadding", u8(at::chunk(2) + 59, 1), "chunk 2: bytes after the name are not zero"},
};

const damage device_damages[] = {
    {"TheSameDeviceTwice", both(i32(at::device(1) + at::bus, 3), i32(at::device(1) + at::devfn, 8)),
     "devices 0 and 1 are both 0:3:8"},
    {"OnlineTwo", u8(at::device(1) + at::online, 2), "device 1: online is 2"},
    {"DevicePadding", u8(at::device(1) + 27, 1), "device 1: padding is not zero"},
    {"RefToAFreeDevice", i32(at::ref(3, 1) + at::dev, 2),
     "chunk 3: reference 1 is to device 2, which is not registered"},
    {"RefOutOfRange", i32(at::ref(3, 0) + at::dev, -1),
     "chunk 3: reference 0 is to device -1, which is not registered"},
    {"TwoRefsToOneDevice", i32(at::ref(3, 1) + at::dev, 0),
     "chunk 3: references 0 and 1 are both to device 0"},
    {"RefPadding", u8(at::ref(3, 1) + 11, 1), "chunk 3: padding of reference 1 is not zero"},
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
    write.u32(at::chunk(3) + at::size, 0x3000);
    EXPECT_THAT(breaches({.overlap = true}), IsEmpty());
}

TEST_F(area_rules, StillKeepOverlappingChunksInsideTheRegion) {
    write.u32(at::chunk(3) + at::size, 0x300000);
    EXPECT_THAT(breaches({.overlap = true}),
                ElementsAre("chunk 3: pa 16384, size 3145728 is not within 4096 to 1052672"));
}

TEST_F(area_rules, AllowReferencesToForgottenDevicesWhereATestExpectsThem) {
    write.i32(at::ref(3, 1) + at::dev, 2);
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
    write.i32(at::chunk(3) + at::next, 2);
    EXPECT_THROW(area.view().chunks(), std::runtime_error);
    write.i32(at::device(255), 2);
    EXPECT_THROW(area.view().free_devices(), std::runtime_error);
}

TEST(area_decoder, RefusesTooFewBytes) {
    const std::vector<uint8_t> bytes(70130715);
    EXPECT_THROW(area_view{bytes}, std::runtime_error);
}

TEST(area_decoder, RefusesElementsThatDoNotExist) {
    EXPECT_THROW(at::chunk(16384), std::out_of_range);
    EXPECT_THROW(at::chunk(-1), std::out_of_range);
    EXPECT_THROW(at::device(256), std::out_of_range);
    EXPECT_THROW(at::ref(0, 256), std::out_of_range);
    EXPECT_THROW(at::ref(16384, 0), std::out_of_range);
}

std::filesystem::path made_file(const temporary_folder& folder, std::uintmax_t length) {
    const std::filesystem::path path = folder.path() / "area";
    std::ofstream(path).flush();
    std::filesystem::resize_file(path, length);
    return path;
}

TEST(area_decoder, WritesThroughToTheFileThatOthersSee) {
    const temporary_folder folder;
    const std::filesystem::path path = made_file(folder, 70131712);
    const area_file reader(path);
    const std::vector<uint8_t> before = reader.snapshot();
    area_file(path, area_file::access::write).writer().text(at::chunk(5) + at::name, "seen");
    EXPECT_EQ(reader.view().chunk(5).name, "seen");
    EXPECT_EQ(area_view(before).chunk(5).name, "");
    EXPECT_EQ(reader.view().bytes().size(), 70131712U);
}

TEST(area_decoder, RefusesAFileThatIsShortOrMissing) {
    const temporary_folder folder;
    EXPECT_THROW(area_file{made_file(folder, 4096)}, std::runtime_error);
    EXPECT_THROW(area_file{"/nonexistent/area"}, std::system_error);
}

} // namespace

} // namespace area_test
