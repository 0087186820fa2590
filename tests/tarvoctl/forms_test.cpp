#include "pattern.hpp"
#include "tool.hpp"

#include <gtest/gtest.h>

namespace forms_test {

namespace {

/// What of a text is no address, size or count in the one form that all commands share.
std::vector<std::string> strange_forms(const std::string& text) {
    // Offsets have four digits here, and a range's ends are addresses each.
    static const pattern address("0x[0-9a-f]{5,}");
    static const pattern pa_or_dma("0x[0-9a-f]{8}([0-9a-f]{2})?");
    static const pattern strange("\\((s|es)\\)|\\b[0-9.]+[KMGT]\\b|\\b[0-9]+\\.[0-9]+ [KMG]iB|"
                                 "\\b1 (chunks|gaps|processes|devices|suspects|bytes)\\b|"
                                 "\\b[0-9]{5,} bytes(?!\\))");
    std::vector<std::string> found = strange.all_in(text);
    for (const auto& each : address.all_in(text)) {
        if (!pa_or_dma.matches(each)) {
            found.push_back(each);
        }
    }
    return found;
}

/// A chunk that this test's program has mapped, a gap, and a second chunk of the name, with one
/// device.
class forms : public testing::Test {
  public:
    forms() {
        driver.alloc("ring", 0x1800, "driver");
        driver.alloc("hole", 0x1000);
        driver.alloc("ring", 0x10000, "gone_agent");
        driver.free("hole");
        driver.register_device(0, 3, 0);
        driver.map("ring");
    }

    sandbox machine{high};
    client driver{machine.start()};
};

TEST_F(forms, AreTheSameInAllCommands) {
    const temporary_folder folder;
    const std::string copy = folder.path() / "copy";
    tarvoctl(machine, {"snapshot", copy});
    const std::vector<arguments> commands{{"list"},
                                          {"show", "ring"},
                                          {"devices"},
                                          {"who"},
                                          {"lock"},
                                          {"leaks"},
                                          {"map"},
                                          {"map", "--fit", "64K"},
                                          {"map", "--fit", "2G"},
                                          {"top"},
                                          {"find", "0x20001004"},
                                          {"translate", "0x20001004"},
                                          {"translate", "0x200001004"},
                                          {"limits"},
                                          {"alloc", "more", "3M"},
                                          {"alloc", "more", "64K"},
                                          {"diff", copy},
                                          {"write", "more"},
                                          {"fill", "more", "0"},
                                          {"free", "ring"},
                                          {"unregister", "0000:03:00.0"},
                                          {"doctor"},
                                          {"check"}};
    for (const auto& words : commands) {
        const auto outcome = tarvoctl(machine, words);
        const std::string text = outcome.output + outcome.errors;
        EXPECT_NE(text, "") << words[0];
        EXPECT_EQ(strange_forms(text), std::vector<std::string>{}) << words[0] << ": " << text;
    }
}

TEST_F(forms, OfTimesHaveTheirZone) {
    const pattern time("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d[+-]\\d\\d:\\d\\d");
    const held_lock held(machine.lock_file());
    const auto lock = tarvoctl(machine, {"lock"});
    EXPECT_TRUE(time.is_in(lock.output)) << lock.output;
    const auto document = json_of(tarvoctl(machine, {"lock", "--json"}));
    const auto& processes = document.at("locks").at(0).at("processes");
    ASSERT_EQ(processes.size(), 1U) << document;
    EXPECT_TRUE(time.matches(processes.at(0).at("started").get<std::string>()));
}

} // namespace

} // namespace forms_test
