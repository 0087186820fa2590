#include "region_fixture.hpp"

#include <string>

namespace registry_test {

using namespace tarvo::literals;
using tarvo::error_code;

class registry : public region_fixture {};

TEST_F(registry, KeepsADeviceFromRegisteringToUnregistering) {
    const tarvo::device mine = device(3, 0, 0);
    EXPECT_TRUE(fails_with(tarvo::unregister_device(mine), error_code::not_registered,
                           "0000:03:00.0 is not registered"));
    ASSERT_TRUE(tarvo::register_device(mine));
    ASSERT_TRUE(tarvo::register_device(mine));
    const auto known = devices_now();
    ASSERT_EQ(known.size(), 1U);
    EXPECT_EQ(known[0], mine);
    EXPECT_TRUE(known[0].online());
    EXPECT_TRUE(tarvo::unregister_device(mine));
    EXPECT_EQ(devices_now().size(), 0U);
}

TEST_F(registry, RefusesTheDeviceThatWouldEndTheProcess) {
    for (uint32_t number = 0; number < 256; ++number) {
        ASSERT_TRUE(tarvo::register_device(device(1, number / 8, number % 8)));
    }
    EXPECT_TRUE(fails_with(tarvo::register_device(device(3, 0, 0)), error_code::too_many_devices,
                           "no place for 0000:03:00.0: 256 devices"));
    // One that is registered already needs no place.
    EXPECT_TRUE(tarvo::register_device(device(1, 0, 0)));
}

TEST_F(registry, SaysWhenADriverRefuses) {
    allocated("ring", 4_KiB);
    // By the run's rules.
    const tarvo::device refused = device(0x0e, 0, 0);
    EXPECT_TRUE(fails_with(tarvo::register_device(refused), error_code::refused, "0000:0e:00.0"));
    EXPECT_EQ(devices_now().size(), 1U);
    const tarvo::device stubborn = device(0x0e, 0, 1);
    ASSERT_TRUE(tarvo::unregister_device(refused));
    ASSERT_TRUE(tarvo::register_device(stubborn));
    EXPECT_TRUE(
        fails_with(tarvo::unregister_device(stubborn), error_code::refused, "0000:0e:00.1"));
    EXPECT_EQ(devices_now().size(), 1U);
    EXPECT_FALSE(tarvo::free_chunk("ring"));
    ASSERT_TRUE(tarvo::unregister_device(stubborn));
    if (world_here().cma) {
        ASSERT_NE(get_cma_allocation("ring", 4096), ~uint64_t{0});
    }
}

TEST_F(registry, MapsTheWholeRegionForADevice) {
    const tarvo::device mine = device(3, 0, 0);
    EXPECT_TRUE(tarvo::iommu_map(mine, tarvo::access::read_write));
    EXPECT_TRUE(tarvo::iommu_unmap(mine));
    EXPECT_TRUE(fails_with(tarvo::iommu_map(device(0x0e, 0, 0), tarvo::access::read),
                           error_code::refused, "0000:0e:00.0"));
    EXPECT_TRUE(
        fails_with(tarvo::iommu_unmap(device(0x0e, 0, 1)), error_code::refused, "0000:0e:00.1"));
}

} // namespace registry_test
