#pragma once

#include "area/check.hpp"
#include "area/repair.hpp"
#include "unit/fresh_area.hpp"

#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

/// The names of the rules that were found broken, each once.
inline std::set<std::string> rules_of(const std::vector<tarvoctl::finding>& findings) {
    std::set<std::string> rules;
    for (const tarvoctl::finding& one : findings) {
        rules.insert(one.rule);
    }
    return rules;
}

/// What must be gone after a repair, each with its place and text.
inline std::vector<std::string> serious(const std::vector<tarvoctl::finding>& findings) {
    std::vector<std::string> texts;
    for (const tarvoctl::finding& one : findings) {
        if (one.cls >= tarvoctl::finding_class::leaked) {
            texts.push_back(one.rule + ": " + text_of(one.where) + ": " + one.text);
        }
    }
    return texts;
}

/// A rule that is broken, how badly and where.
struct breach {
    const char* rule;
    tarvoctl::finding_class cls;
    tarvoctl::place where;
};

/// What is done to a sound area, all rules that this breaks, and more of some of them.
struct damage {
    const char* name;
    std::function<void()> write;
    std::set<std::string> rules;
    std::vector<breach> breaches = {};
    tarvoctl::check_options options = {};
};

/// Three chunks (elements 2 to 4, in that order), two devices, the middle chunk mapped for both.
class area_of_three : public testing::Test {
  protected:
    static constexpr uint64_t first_pa = 0x1000;
    static constexpr uint32_t region_bytes = 0x100000;
    static constexpr int low = 2;
    static constexpr int middle = 3;
    static constexpr int high = 4;

    area_of_three() {
        area.build(first_pa, region_bytes);
        area.add_chunk(0, "low", 0x1000, 0x1000);
        area.add_chunk(low, "middle", 0x4000, 0x2000);
        area.add_chunk(middle, "high", 0x6000, 0x1000);
        area.add_device(0, 3, 8);
        area.add_device(0, 4, 16);
        area.add_ref(middle, 0);
        area.add_ref(middle, 1);
    }

    std::vector<tarvoctl::finding> findings(const tarvoctl::check_options& options = {}) {
        return tarvoctl::check_area(area.record(), options);
    }

    /// Rules broken but for the notes on chunks that are not mapped for every device.
    std::set<std::string> rules(const tarvoctl::check_options& options = {}) {
        std::set<std::string> broken = rules_of(findings(options));
        broken.erase("chunk-misses-device");
        return broken;
    }

    /// Does each damage by itself.
    void expect_found(const std::vector<damage>& damages) {
        const std::vector<uint8_t> sound(area.bytes().begin(), area.bytes().end());
        for (const damage& each : damages) {
            SCOPED_TRACE(each.name);
            each.write();
            EXPECT_EQ(rules(each.options), each.rules);
            for (const breach& one : each.breaches) {
                using tarvoctl::finding;
                EXPECT_THAT(
                    findings(each.options),
                    testing::Contains(testing::AllOf(testing::Field(&finding::rule, one.rule),
                                                     testing::Field(&finding::cls, one.cls),
                                                     testing::Field(&finding::where, one.where))));
            }
            std::copy(sound.begin(), sound.end(), area.bytes().begin());
        }
    }

    static size_t at(int chunk, size_t field) { return area_offset::chunk(chunk) + field; }
    static size_t at_device(int device, size_t field) {
        return area_offset::device(device) + field;
    }
    static size_t at_ref(int ref, size_t field) { return area_offset::ref(middle, ref) + field; }

    fresh_area area;
    const area_writer write = area.writer();
};
