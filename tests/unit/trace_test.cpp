#include "shared/trace.hpp"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace trace_test {

// The library's own trace macros. The handle is made once in a process, so each case is a process.

namespace {

using testing::ExitedWithCode;

int evaluations = 0;

int counted(int value) {
    ++evaluations;
    return value;
}

[[noreturn]] void trace_with(const char* setting) {
    setenv("ZUL_TRACE", setting, 1);
    TARVO_TRACE_AT(trace_failure, 10, "first", "literal " << counted(1));
    TARVO_TRACE_AT(trace_progress, 11, "second", Zul::format("%s %d", "formatted", counted(2)));
    TARVO_TRACE_AT(trace_translation, 12, "third", counted(3));
    std::exit(evaluations);
}

TEST(trace, WritesEveryRecordUpToTheLevel) {
    EXPECT_EXIT(trace_with("tarvo=6"), ExitedWithCode(3),
                testing::Eq("[tarvo:3] tarvo:10 first: literal 1\n"
                            "[tarvo:5] tarvo:11 second: formatted 2\n"
                            "[tarvo:6] tarvo:12 third: 3\n"));
}

TEST(trace, EvaluatesNothingAboveTheLevel) {
    EXPECT_EXIT(trace_with("tarvo=5"), ExitedWithCode(2),
                testing::Eq("[tarvo:3] tarvo:10 first: literal 1\n"
                            "[tarvo:5] tarvo:11 second: formatted 2\n"));
    EXPECT_EXIT(trace_with("tarvo=4"), ExitedWithCode(1),
                testing::Eq("[tarvo:3] tarvo:10 first: literal 1\n"));
    EXPECT_EXIT(trace_with("other=6"), ExitedWithCode(0), testing::IsEmpty());
}

constexpr int line_of_the_record = __LINE__ + 3;
[[noreturn]] void trace_this_line() {
    setenv("ZUL_TRACE", "5", 1);
    TARVO_TRACE(trace_progress, "here", "%d%%", 50);
    std::exit(0);
}

TEST(trace, TagsARecordWithItsLine) {
    EXPECT_EXIT(
        trace_this_line(), ExitedWithCode(0),
        testing::Eq("[tarvo:5] tarvo:" + std::to_string(line_of_the_record) + " here: 50%\n"));
}

[[noreturn]] void change_the_setting_late() {
    unsetenv("ZUL_TRACE");
    TARVO_TRACE(trace_failure, "first", "%s", "text");
    trace_with("6");
}

/// Ends with status 0 where `errno` is still the caller's.
template <typename Step>
[[noreturn]] void keep_errno(const Step& step) {
    setenv("ZUL_TRACE", "5", 1);
    errno = EUNATCH;
    step();
    std::exit(errno == EUNATCH ? 0 : 1);
}

TEST(trace, LeavesOutARecordThatCannotBeMade) {
    // No character of the locale that a program starts with.
    EXPECT_EXIT(keep_errno([] {
                    TARVO_TRACE(trace_progress, "first", "%ls", L"\u20ac");
                    TARVO_TRACE_AT(trace_progress, 11, "second", "text");
                }),
                ExitedWithCode(0), testing::Eq("[tarvo:5] tarvo:11 second: text\n"));
}

TEST(trace, DropsTheRestOfTheLineAfterANullText) {
    const char* null = nullptr;
    EXPECT_EXIT(keep_errno([=] {
                    TARVO_TRACE_AT(trace_progress, 10, "first", "text " << null << " rest");
                }),
                ExitedWithCode(0), testing::Eq("[tarvo:5] tarvo:10 first: text \n"));
}

TEST(trace, KeepsErrnoEvenWhenTheRecordCannotBeWritten) {
    EXPECT_EXIT(keep_errno([] {
                    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
                    dup2(full, STDERR_FILENO);
                    close(full);
                    errno = EUNATCH;
                    TARVO_TRACE(trace_progress, "here", "%s", "text");
                }),
                ExitedWithCode(0), testing::IsEmpty());
}

TEST(trace, ReadsTheEnvironmentOnceOnFirstUse) {
    EXPECT_EXIT(change_the_setting_late(), ExitedWithCode(0), testing::IsEmpty());
}

} // namespace

} // namespace trace_test
