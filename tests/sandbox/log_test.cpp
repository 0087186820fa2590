#include "in_sandbox.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

namespace {

using nlohmann::json;

json entry(int seq, const char* file, const char* event, const char* flags, bool trunc,
           const std::string& bytes, const char* answer) {
    return {{"seq", seq},     {"file", file},   {"event", event},  {"flags", flags},
            {"trunc", trunc}, {"bytes", bytes}, {"answer", answer}};
}

class logged : public testing::Test {
  protected:
    std::vector<json> log_lines() const {
        std::vector<json> lines;
        std::istringstream text{file_text(log)};
        for (std::string line; std::getline(text, line);) {
            lines.push_back(json::parse(line));
        }
        return lines;
    }

    /// The log without the process numbers.
    std::vector<json> events() const {
        auto lines = log_lines();
        for (auto& line : lines) {
            line.erase("pid");
        }
        return lines;
    }

    const temporary_folder folder;
    const std::string log = folder.path() / "log";
};

TEST_F(logged, HoldsEachOpenWriteAndCloseWithItsAnswer) {
    speak({"--world", "low", "--log", log, "--rule", "op=map,errno=EIO"},
          {"w", iommu_file, unmap_line, map_line, "nonsense"});
    const std::vector<json> expected{
        entry(1, "sysfs", "open", "w", true, "", "ok"),
        entry(2, "sysfs", "write", "w", true, unmap_line, "ok"),
        entry(3, "sysfs", "write", "w", true, map_line, "EIO"),
        entry(4, "sysfs", "write", "w", true, "nonsense", "EINVAL"),
        entry(5, "sysfs", "close", "w", true, "", "ok"),
    };
    EXPECT_EQ(events(), expected);
}

TEST_F(logged, HoldsReadersToo) {
    speak({"--world", "low", "--log", log}, {"r", proc_file});
    const std::vector<json> expected{entry(1, "proc", "open", "r", false, "", "ok"),
                                     entry(2, "proc", "close", "r", false, "", "ok")};
    EXPECT_EQ(events(), expected);
}

TEST_F(logged, ShowsReadingAndWritingTogether) {
    speak({"--world", "low", "--log", log, "--rule", "at=close,errno=EIO"},
          {"r+", proc_file, "a x 1000\n"});
    const std::vector<json> expected{entry(1, "proc", "open", "rw", false, "", "ok"),
                                     entry(2, "proc", "write", "rw", false, "a x 1000\n", "EINVAL"),
                                     entry(3, "proc", "close", "rw", false, "", "EIO")};
    EXPECT_EQ(events(), expected);
}

TEST_F(logged, KeepsEveryByte) {
    run_script({"--log", log}, R"(printf '\000\001"\\\177\200\377\n' > )" + iommu_file);
    std::string bytes;
    for (const auto& line : log_lines()) {
        bytes += line.at("bytes").get<std::string>();
    }
    EXPECT_EQ(bytes, std::string("\0\1\"\\\177\u0080\u00ff\n", 10));
}

TEST_F(logged, NamesTheCallingProcess) {
    const auto ended =
        run_script({"--world", "low", "--log", log}, "echo $$; exec cat /proc/tarvo");
    ASSERT_EQ(log_lines().size(), 2U);
    for (const auto& line : log_lines()) {
        EXPECT_EQ(line.at("pid").get<int>(), std::stoi(ended.output));
    }
}

TEST_F(logged, IsWrittenBeforeTheCallReturns) {
    const auto ended = run_to_end({"env", "SPEAKER_LOG=" + log, SANDBOX_TOOL, "--log", log, "--",
                                   SANDBOX_SPEAKER, "w", iommu_file, map_line});
    EXPECT_EQ(ended.output, "open ok\n1 logged\nwrite 44\n2 logged\nclose ok\n3 logged\n");
}

TEST_F(logged, IsAppended) {
    speak({"--world", "low", "--log", log}, {"r", proc_file});
    speak({"--world", "low", "--log", log}, {"r", proc_file});
    const auto lines = log_lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[2].at("seq"), 1);
}

TEST_F(logged, SaysHowMuchOfAWriteWasTaken) {
    speak({"--log", log, "--rule", "short=5"}, {"w", iommu_file, map_line});
    const auto lines = log_lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1].at("answer"), "ok");
    EXPECT_EQ(lines[1].at("accepted"), 5);
    EXPECT_EQ(lines[1].at("bytes"), map_line);
}

} // namespace
