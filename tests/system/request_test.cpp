// One request to the IOMMU's driver: its line to the letter, and every way in which it fails.

#include "iommu_machine.hpp"
#include "observed.hpp"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>

namespace request_test {

namespace {

constexpr pci_device nic{0, 3, 0};
constexpr pci_device odd_device{0xffffffff, 0x80000000, 0xdeadbeef};
constexpr const char* mapping_nic = "iommu_map 0 3 0 3";
constexpr const char* no_length_match =
    "tarvo-client: tarvo:62: iommu_mapping_t::iommu_mapping_t(int64_t, int64_t, int32_t, int32_t): "
    "Assertion `end_dma - start_dma == end_pa - start_pa' failed.\n";

chunk_place only_chunk(const world& chosen) {
    return {chosen.start, static_cast<uint32_t>(page_bytes())};
}

/// One page at the region's start, record 2.
void make_chunk(iommu_machine& machine) {
    ASSERT_EQ(machine.user.alloc("rx_ring", page_bytes()), machine.box.chosen().start_dma);
}

// ---- The line ----

class a_request : public testing::TestWithParam<world> {};

TEST_P(a_request, IsOneOpenOneWriteAndOneClose) {
    iommu_machine machine(GetParam());
    machine.user.limits();
    machine.call("calls");
    EXPECT_EQ(machine.call(mapping_nic), "0");
    EXPECT_EQ(machine.call("calls"), "fopen(/sys/kernel/tarvo_iommu_map_region,we)=pointer "
                                     "setvbuf(2,0)=0 fclose(stream)=0");
    const std::string line = region_request("map", nic, GetParam(), 3).line();
    EXPECT_EQ(machine.new_events(), (texts{"sysfs open w", "sysfs write: " + line, "sysfs close"}));
    EXPECT_EQ(machine.user.error_text(), "");
}

TEST_P(a_request, LeavesNoDescriptorOpen) {
    iommu_machine machine(GetParam());
    machine.user.limits();
    const texts started = machine.user.descriptors();
    machine.call(mapping_nic);
    machine.call(mapping_nic);
    EXPECT_EQ(machine.user.descriptors(), started);
    EXPECT_EQ(machine.new_events().size(), 6U);
}

TEST_P(a_request, ForTheRegionEndsAtItsLastByteAndForAChunkOneByteBelowThat) {
    iommu_machine machine(GetParam());
    make_chunk(machine);
    machine.call(mapping_nic);
    machine.register_device(nic);
    machine.unregister_device(nic);
    const chunk_place chunk = only_chunk(GetParam());
    EXPECT_EQ(machine.new_lines(), (texts{region_request("map", nic, GetParam(), 3).line(),
                                          chunk_request("map", nic, GetParam(), chunk).line(),
                                          chunk_request("unmap", nic, GetParam(), chunk).line()}));
}

TEST_P(a_request, ShowsNumbersOfTheDeviceWithASignAndAddressesWithout) {
    iommu_machine machine(GetParam(), {"--rule", "op=map,nth=2,errno=EPERM"});
    const std::string command = "iommu_map 0xffffffff 0x80000000 0xdeadbeef 0xfffffffe";
    EXPECT_EQ(machine.call(command), "0");
    EXPECT_EQ(machine.call(command), "-1");
    const iommu_request expected = region_request("map", odd_device, GetParam(), 0xfffffffe);
    EXPECT_EQ(machine.new_lines(), texts(2, expected.line()));
    EXPECT_EQ(machine.user.error_text(), expected.refusal(EPERM));
}

INSTANTIATE_TEST_SUITE_P(, a_request, testing::ValuesIn(all_worlds()), world_name());

TEST(the_request_line, IsTheAgreedOne) {
    iommu_machine machine(low, {"--region", "80000000-800fffff:tarvo"});
    machine.call("iommu_map 0 3 0 3");
    EXPECT_EQ(machine.new_lines(), (texts{"map 0 3 0 2147483648 2148532223 2147483648 3\n"}));
}

TEST(the_request_line, ShowsNumbersFrom2To31OnAsNegative) {
    iommu_machine machine(low);
    machine.call("iommu_map 0xffffffff 0x80000000 0xdeadbeef 0xfffffffe");
    EXPECT_EQ(machine.new_lines(),
              (texts{"map -1 -2147483648 -559038737 2147483648 2415919103 2147483648 -2\n"}));
}

TEST(the_request_line, OfAPageAt1MiBIsTheAgreedOne) {
    iommu_machine machine(simulation);
    machine.user.alloc("below", 0x100000 - 0x1000);
    EXPECT_EQ(machine.user.alloc("rx_ring", 4096), 0x100000U);
    machine.user.free("below");
    machine.register_device(nic);
    EXPECT_EQ(machine.new_lines(), (texts{"map 0 3 0 1048576 1052670 1048576 3\n"}));
}

// ---- Refusals ----

struct refusal {
    const char* name;
    int number;
    const char* text;
};

std::ostream& operator<<(std::ostream& stream, const refusal& one) {
    return stream << one.name;
}

class a_refused_request : public testing::TestWithParam<refusal> {};

TEST_P(a_refused_request, IsReportedWithItsErrorAndFails) {
    iommu_machine machine(low, {"--rule", std::string("op=any,at=write,errno=") + GetParam().name});
    EXPECT_EQ(machine.call(mapping_nic), "-1");
    EXPECT_EQ(
        machine.user.error_text(),
        "tarvo: failed to iommu map domain 0 bus 3 devfn 0 startpa 0x80000000 endpa 0x8fffffff "
        "startdma 0x80000000 prot 3 errno " +
            std::to_string(GetParam().number) + "\n");
    EXPECT_EQ(machine.new_events().back(), "sysfs close");
}

TEST_P(a_refused_request, ToUnmapIsReportedAlike) {
    iommu_machine machine(high, {"--rule", std::string("op=unmap,errno=") + GetParam().name});
    EXPECT_EQ(machine.call("iommu_unmap 1 2 3"), "-1");
    EXPECT_EQ(machine.user.error_text(),
              "tarvo: Device not registered\n"
              "tarvo: failed to iommu unmap domain 1 bus 2 devfn 3 startpa 0x200000000 endpa "
              "0x23fffffff startdma 0x20000000 prot 0 errno " +
                  std::to_string(GetParam().number) + "\n");
}

TEST_P(a_refused_request, AtItsOpenIsReportedByTheSystemsText) {
    iommu_machine machine(
        low, {"--rule", std::string("op=open-write,file=sysfs,errno=") + GetParam().name});
    EXPECT_EQ(machine.call(mapping_nic), "-1");
    EXPECT_EQ(machine.user.error_text(),
              std::string("tarvo: failed to open sysfs file: ") + GetParam().text + "\n");
    EXPECT_EQ(machine.new_events(), texts{std::string("sysfs open w ") + GetParam().name});
}

TEST_P(a_refused_request, AtItsCloseIsReportedAndHasSucceeded) {
    iommu_machine machine(low,
                          {"--rule", std::string("file=sysfs,at=close,errno=") + GetParam().name});
    EXPECT_EQ(machine.call(mapping_nic), "0");
    EXPECT_EQ(machine.user.error_text(),
              std::string("tarvo: fclose failed: ") + GetParam().text + "\n");
}

INSTANTIATE_TEST_SUITE_P(, a_refused_request,
                         testing::Values(refusal{"ENODEV", ENODEV, "No such device"},
                                         refusal{"EUNATCH", EUNATCH,
                                                 "Protocol driver not attached"},
                                         refusal{"EIO", EIO, "Input/output error"},
                                         refusal{"EINVAL", EINVAL, "Invalid argument"},
                                         refusal{"ENOMEM", ENOMEM, "Cannot allocate memory"}),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(a_kernel_without_iommu, IsNotSeenInAnOpenThatFailsSo) {
    iommu_machine machine(low, {}, {"limits", "fail fopen ENOSYS"});
    EXPECT_EQ(machine.call(mapping_nic), "-1");
    EXPECT_EQ(machine.user.error_text(),
              "tarvo: failed to open sysfs file: Function not implemented\n");
}

TEST(a_stream_that_stays_buffered,
     CountsAsSuccessWhenReportedByAPositiveValueWhichIsKeptOnPurpose) {
    iommu_machine machine(low);
    make_chunk(machine);
    machine.call("fail positive_setvbuf EINVAL");
    EXPECT_EQ(machine.register_device(nic), 0);
    EXPECT_EQ(machine.user.error_text(), "tarvo: failed to set _IONBF: Invalid argument\n");
    EXPECT_EQ(machine.new_events(), (texts{"sysfs open w", "sysfs close"}));
    EXPECT_EQ(machine.box.area().view().refs(2).size(), 1U);
}

TEST(a_failing_close, ChangesNeitherAFailureNorASuccess) {
    iommu_machine machine(low, {"--rule", "op=map,nth=1,errno=EIO"},
                          {"limits", "fail fclose EBADF 0"});
    const iommu_request request = region_request("map", nic, low, 3);
    const std::string close_failed = "tarvo: fclose failed: Bad file descriptor\n";
    EXPECT_EQ(machine.call(mapping_nic), "-1");
    EXPECT_EQ(machine.user.error_text(), request.refusal(EIO) + close_failed);
    EXPECT_EQ(machine.call(mapping_nic), "0");
    EXPECT_EQ(machine.user.error_text(), request.refusal(EIO) + close_failed + close_failed);
}

TEST(a_failing_close, ComesAfterABufferThatCouldNotBeSwitchedOff) {
    iommu_machine machine(low, {}, {"limits", "fail setvbuf ENOMEM", "fail fclose EIO"});
    EXPECT_EQ(machine.call(mapping_nic), "-1");
    EXPECT_EQ(machine.user.error_text(), "tarvo: failed to set _IONBF: Cannot allocate memory\n"
                                         "tarvo: fclose failed: Input/output error\n");
}

// ---- Lengths ----

TEST(a_range_of_2_gib, EndsTheProcessBeforeTheFileIsOpened) {
    for (const char* command : {mapping_nic, "iommu_unmap 0 3 0"}) {
        iommu_machine machine(high, {"--region", "200000000-27fffffff:tarvo"});
        EXPECT_EQ(machine.user.dies(command), ended_by(SIGABRT));
        EXPECT_EQ(machine.user.error_text(), no_length_match);
        EXPECT_EQ(machine.new_events(), texts{});
    }
}

TEST(a_range_of_2_gib, IsTheFirstThatIsTooLong) {
    iommu_machine machine(high, {"--region", "200000000-27fffefff:tarvo"});
    EXPECT_EQ(machine.call(mapping_nic), "0");
    EXPECT_EQ(machine.new_lines(), (texts{"map 0 3 0 8589934592 10737414143 536870912 3\n"}));
}

TEST(a_range_of_2_gib, IsJustRightForAChunkWhoseEndIsItsLastByte) {
    iommu_machine machine(high, {"--region", "200000000-2bfffffff:tarvo"});
    make_chunk(machine);
    machine.register_device(nic);
    machine.box.writable_area().writer().u32(area_offset::chunk(2) + area_offset::size, 0x80000000);
    EXPECT_EQ(machine.call("map_unmap_chunk unmap 2 0"), "0");
    EXPECT_EQ(machine.new_lines().back(), "unmap 0 3 0 8589934592 10737418238 536870912 3\n");
    machine.box.writable_area().writer().u32(area_offset::chunk(2) + area_offset::size, 0x80000001);
    EXPECT_EQ(machine.user.dies("map_unmap_chunk unmap 2 0"), ended_by(SIGABRT));
    EXPECT_EQ(machine.user.error_text(), no_length_match);
    EXPECT_EQ(machine.new_lines(), texts{});
}

TEST(a_range_across_2_gib, HasItsLengthInSpiteOfTheSignOfItsAddresses) {
    iommu_machine machine(low, {"--region", "70000000-8fffffff:tarvo"});
    EXPECT_EQ(machine.call(mapping_nic), "0");
    EXPECT_EQ(machine.new_lines(), (texts{"map 0 3 0 1879048192 2415919103 1879048192 3\n"}));
}

TEST(a_range_whose_dma_addresses_pass_4_gib, EndsTheProcessInTheTranslationOfItsEnd) {
    iommu_machine machine(high, {"--region", "200000000-2efffffff:tarvo"});
    EXPECT_EQ(fatal_outcome(machine.user, mapping_nic),
              aborted(assertion("uint64_t tarvo_dma_to_pa(uint32_t)",
                                "res >= dma_chunk_head->pa && res <= dma_chunk_tail->pa")));
    EXPECT_EQ(machine.new_events(), texts{});
}

} // namespace

} // namespace request_test
