#pragma once

#include "observed.hpp"
#include "sandbox.hpp"
#include "texts.hpp"

#include <gtest/gtest.h>

/// A test that one program carries out in each of several worlds.
class world_test : public testing::TestWithParam<world> {
  protected:
    static const world& region() { return GetParam(); }

    /// What mapping_at() says of a mapping that reaches `bytes` far.
    static std::string described(const char* permissions, uint64_t pa, uint64_t bytes) {
        return std::string(permissions) + " 0x" + hex(pa) + " " + std::to_string(bytes) + " " +
               region().memory_path();
    }

    std::string mapping_at(uint64_t va) { return user.call("mapping " + std::to_string(va)); }

    /// The descriptors of the library as the program's calls show them.
    static const char* memory_fd() { return region().simulated ? "3" : "4"; }
    static std::string taken() { return std::string("flock(") + lock_fd() + ",LOCK_EX)=0 "; }
    static std::string released() { return std::string(" flock(") + lock_fd() + ",LOCK_UN)=0"; }
    /// One request to the IOMMU's driver.
    static constexpr const char* request_calls =
        "fopen(/sys/kernel/tarvo_iommu_map_region,we)=pointer setvbuf(2,0)=0 fclose(stream)=0";
    /// The calls of an operation that looked at the area and left it at that.
    static std::string only_the_lock() { return taken() + released().substr(1); }

    sandbox machine{GetParam()};
    client user = machine.start();

  private:
    static const char* lock_fd() { return region().simulated ? "5" : "3"; }
};
