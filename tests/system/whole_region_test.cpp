// The whole region for one device in one request, with no record kept.

#include "iommu_scene.hpp"
#include "world_test.hpp"

#include <csignal>

namespace whole_region_test {

namespace {

constexpr const char* mapping_first = "iommu_map 0 3 0 3";
constexpr const char* unmapping_first = "iommu_unmap 0 3 0";
const std::string unknown = "tarvo: Device not registered\n";

class the_whole_region : public world_test {
  protected:
    ~the_whole_region() override { EXPECT_TRUE(lock_is_free(machine.lock_file())); }

    static std::string line(const char* op, uint32_t prot) {
        return region_request(op, first, region(), prot).line();
    }
};

TEST_P(the_whole_region, IsMappedWithTheProtectionGivenAndNoRecord) {
    user.limits();
    const std::vector<uint8_t> before = machine.area().snapshot();
    texts expected;
    for (const uint32_t prot : {0U, 1U, 2U, 3U, 0x7fffffffU, 0x80000000U}) {
        EXPECT_EQ(outcome(user, "iommu_map 0 3 0 " + std::to_string(prot)), "0\n");
        expected.push_back(line("map", prot));
    }
    EXPECT_EQ(machine.request_lines(), expected);
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
}

TEST_P(the_whole_region, IsUnmappedWithProtection0ForADeviceThatIsNotRegistered) {
    user.register_device(second.domain, second.bus, second.devfn);
    const std::vector<uint8_t> before = machine.area().snapshot();
    EXPECT_EQ(outcome(user, unmapping_first), "0\n" + unknown);
    EXPECT_EQ(machine.request_lines(), texts{line("unmap", 0)});
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
}

TEST_P(the_whole_region, IsUnmappedWithTheLockReleasedAgain) {
    user.limits();
    user.call("calls");
    user.call(unmapping_first);
    EXPECT_EQ(user.call("calls"), only_the_lock() + " " + request_calls);
}

TEST_P(the_whole_region, IsMeasuredBeforeAnythingElseHappens) {
    user.call("setenv ZUL_TRACE 6");
    user.limits();
    const auto to_dma = [](uint64_t pa) {
        return traced(6, "tarvo_pa_to_dma",
                      "tarvo_pa_to_dma: " + hex(pa) + "->  " + hex(region().dma(pa)));
    };
    const auto to_pa = [](uint64_t pa) {
        return traced(6, "tarvo_dma_to_pa",
                      "tarvo_dma_to_pa: " + hex(region().dma(pa)) + " -> " + hex(pa));
    };
    const std::string range = to_dma(region().start) + to_dma(region().end()) +
                              to_pa(region().end()) + to_pa(region().start);
    EXPECT_EQ(outcome(user, mapping_first), "0\n" + range);
    EXPECT_EQ(outcome(user, unmapping_first), "0\n" + range + unknown);
}

INSTANTIATE_TEST_SUITE_P(, the_whole_region, testing::ValuesIn(all_worlds()), world_name());

TEST(a_whole_region_request, EndsTheProcessWhereTheLibraryCannotStart) {
    sandbox box(low, {"--without", "proc"});
    const std::string expression =
        "Assertion `tarvo_get_limits(&start_dma, &end_dma) == 0' failed.\n";
    client mapper = box.start();
    EXPECT_EQ(mapper.dies(mapping_first), ended_by(SIGABRT));
    EXPECT_EQ(mapper.error_text(), no_region_at_all() +
                                       "tarvo-client: tarvo:982: int tarvo_iommu_map(uint, uint, "
                                       "uint, uint): " +
                                       expression);
    client unmapper = box.start();
    EXPECT_EQ(unmapper.dies(unmapping_first), ended_by(SIGABRT));
    EXPECT_EQ(
        unmapper.error_text(),
        no_region_at_all() +
            "tarvo-client: tarvo:995: int tarvo_iommu_unmap(uint, uint, uint): " + expression);
}

TEST(a_whole_region_request, OfARegionThatEndsAt4GiBIsThatOfAHighOne) {
    iommu_machine machine(low, {"--region", "f0000000-ffffffff:tarvo"});
    EXPECT_EQ(machine.call(mapping_first), "0");
    EXPECT_EQ(machine.new_lines(), (texts{"map 0 3 0 4026531840 4294967295 536870912 3\n"}));
}

} // namespace

} // namespace whole_region_test
