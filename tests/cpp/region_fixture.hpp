#pragma once

#include "tarvo.hpp"
#include "world.hpp"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <unistd.h>
#include <vector>

/// The world that this process runs in; the CMake file says it.
inline const world& world_here() {
    const char* name = std::getenv("TARVO_TEST_WORLD");
    for (const world& known : all_worlds()) {
        if (name != nullptr && name == std::string(known.name)) {
            return known;
        }
    }
    ADD_FAILURE() << "TARVO_TEST_WORLD names no world";
    return simulation;
}

/// Whether some process holds the lock of all processes.
inline bool lock_is_held() {
    const int file = ::open(world_here().lock_path(), O_RDONLY | O_CLOEXEC);
    const bool held = ::flock(file, LOCK_EX | LOCK_NB) != 0;
    ::close(file);
    return held;
}

inline std::vector<tarvo::listed_chunk> chunks_now() {
    std::vector<tarvo::listed_chunk> found;
    const auto now = tarvo::listing::open();
    EXPECT_TRUE(now.has_value()) << now.error().message();
    for (const tarvo::listed_chunk& chunk : now->chunks()) {
        found.push_back(chunk);
    }
    EXPECT_FALSE(now->damage().has_value()) << now->damage()->message();
    return found;
}

inline std::vector<tarvo::listed_device> devices_now() {
    std::vector<tarvo::listed_device> found;
    const auto now = tarvo::listing::open();
    EXPECT_TRUE(now.has_value()) << now.error().message();
    for (const tarvo::listed_device& device : now->devices()) {
        found.push_back(device);
    }
    return found;
}

/// All tests of a run share one region: each leaves it empty.
class region_fixture : public testing::Test {
  protected:
    void TearDown() override {
        for (const tarvo::listed_chunk& chunk : chunks_now()) {
            EXPECT_TRUE(tarvo::free_chunk(chunk.name()));
        }
        for (const tarvo::listed_device& device : devices_now()) {
            EXPECT_TRUE(tarvo::unregister_device(device)) << device.text().c_str();
        }
    }

    static tarvo::chunk allocated(std::string_view name, tarvo::bytes size) {
        const auto made = tarvo::allocate(name, size, "test");
        EXPECT_TRUE(made.has_value()) << made.error().message();
        return *made;
    }

    static tarvo::device device(uint32_t bus, uint32_t slot, uint32_t function) {
        return *tarvo::device::at(0, bus, slot, function);
    }
};

/// That a result is an error of that kind, and what its message has to name.
template <typename T>
testing::AssertionResult fails_with(const tarvo::result<T>& result, tarvo::error_code code,
                                    std::string_view reported) {
    if (result) {
        return testing::AssertionFailure() << "it succeeded";
    }
    const std::string message = result.error().message();
    if (result.error().code() != code || message.find(reported) == std::string::npos) {
        return testing::AssertionFailure()
               << "code " << static_cast<int>(result.error().code()) << ": " << message;
    }
    return testing::AssertionSuccess();
}
