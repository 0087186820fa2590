// Compiled with NDEBUG: the library's assertions are on in every kind of build.
#ifndef NDEBUG
#error "assertion_test.cpp shall be compiled with NDEBUG"
#endif

#include "assertion.hpp"

#include <cerrno>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace {

int evaluations = 0;

bool counted(bool value) {
    ++evaluations;
    return value;
}

constexpr int line_of_the_assertion = __LINE__ + 2;
void assert_that(bool holds) {
    TARVO_ASSERT(counted(holds), "the text, not the code");
}

std::string program() {
    return program_invocation_short_name;
}

// Compilers write the signature of a function in an unnamed namespace each in their own way.
#ifdef __clang__
constexpr const char* signature = "void (anonymous namespace)::assert_that(bool)";
#else
constexpr const char* signature = "void {anonymous}::assert_that(bool)";
#endif

TEST(assertion, ThatHoldsIsSilentAndEvaluatedOnce) {
    evaluations = 0;
    assert_that(true);
    EXPECT_EQ(evaluations, 1);
}

TEST(assertion, ThatFailsShowsItsTextSourceLineAndSignature) {
    EXPECT_EXIT(assert_that(false), testing::KilledBySignal(SIGABRT),
                testing::Eq(program() + ": tarvo:" + std::to_string(line_of_the_assertion) + ": " +
                            signature + ": Assertion `the text, not the code' failed.\n"));
}

TEST(assertion, ShowsASourceLineAndSignatureThatAreGiven) {
    EXPECT_EXIT(TARVO_ASSERT_AT(false, "e", "./Given.hpp", 7, "void given()"),
                testing::KilledBySignal(SIGABRT),
                testing::Eq(program() + ": ./Given.hpp:7: void given(): Assertion `e' failed.\n"));
}

} // namespace
