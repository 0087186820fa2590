// docs/behaviour.md against the library: every row of every table is carried out.

#include "behaviour_row.hpp"
#include "pattern.hpp"
#include "process.hpp"

#include <gtest/gtest.h>
#include <ostream>
#include <set>
#include <sstream>

std::ostream& operator<<(std::ostream& stream, const page_row& row) {
    return stream << "line " << row.line;
}

namespace {

/// Fewer say too little about any function.
constexpr size_t least_rows = 3;

std::set<std::string> exported_names() {
    // What has a mangled name has a plain one, too.
    static const pattern entry("^ {8}(?!_Z)(\\w+);");
    std::set<std::string> names;
    std::istringstream lines(file_text(TARVO_EXPORTS));
    for (std::string line; std::getline(lines, line);) {
        if (entry.is_in(line)) {
            names.insert(entry.group_in(line));
        }
    }
    return names;
}

TEST(the_behaviour_page, CanBeRead) {
    EXPECT_EQ(the_page().problems, std::vector<std::string>{});
}

TEST(the_behaviour_page, HasOneSectionForEveryExportedNameAndNoOther) {
    std::multiset<std::string> described;
    for (const page_section& section : the_page().sections) {
        described.insert(section.function);
    }
    const std::set<std::string> exported = exported_names();
    EXPECT_GT(exported.size(), 20U);
    EXPECT_EQ(described, std::multiset<std::string>(exported.begin(), exported.end()));
}

TEST(the_behaviour_page, SaysEnoughOfEachFunction) {
    for (const page_section& section : the_page().sections) {
        EXPECT_GE(section.rows.size(), least_rows) << section.function;
        EXPECT_FALSE(section.commands.empty()) << section.function;
    }
}

TEST(the_behaviour_page, CallsInEachSectionTheFunctionItIsAbout) {
    for (const page_section& section : the_page().sections) {
        const std::set<std::string> commands(section.commands.begin(), section.commands.end());
        for (const page_row& row : section.rows) {
            ASSERT_GT(row.cells.size(), 2U) << "line " << row.line;
            const std::vector<std::string> call = codes_of(row.cells[2]);
            ASSERT_EQ(call.size(), 1U) << "line " << row.line;
            EXPECT_TRUE(commands.contains(call[0].substr(0, call[0].find(' '))))
                << "line " << row.line;
        }
    }
}

class behaviour_of : public testing::TestWithParam<page_row> {};

TEST_P(behaviour_of, IsAsTheRowSays) {
    const row_result both = run(GetParam());
    EXPECT_EQ(both.seen.result, both.expected.result);
    EXPECT_EQ(both.seen.standard_error, both.expected.standard_error);
    EXPECT_EQ(both.seen.driver, both.expected.driver);
    EXPECT_EQ(both.seen.lock, both.expected.lock);
    EXPECT_EQ(both.seen.changes, both.expected.changes);
}

INSTANTIATE_TEST_SUITE_P(page, behaviour_of, testing::ValuesIn(the_page().rows()),
                         [](const testing::TestParamInfo<page_row>& one) {
                             return one.param.function + "_row_" + std::to_string(one.param.number);
                         });

} // namespace
