// Every way the IOMMU's driver can answer, at the first, a middle and the last request of every
// call that makes requests: results, messages, records and what is sent afterwards.

#include "comparison.hpp"
#include "library_model.hpp"

#include <gtest/gtest.h>
#include <tuple>

namespace refusal_grid_test {

namespace {

std::string alloc(const std::string& chunk, uint64_t page_count) {
    return "alloc " + chunk + " " + model::hexadecimal(pages(page_count)) + " test";
}

struct refused_call {
    const char* name;
    std::string command; ///< makes three requests
};

std::ostream& operator<<(std::ostream& stream, const refused_call& one) {
    return stream << one.name;
}

const std::vector<refused_call> refused_calls{
    {"MapOnAllocate", alloc("fresh", 1)},       {"UnmapOnFree", "free tx_ring"},
    {"MapOnRegister", "register 0 6 0"},        {"MapOnReviving", "register 1 3 0"},
    {"UnmapOnUnregister", "unregister 0 4 17"},
};

const std::vector<std::string> before{"register 0 3 0",    "register 0 4 17",   "register 1 3 0",
                                      alloc("rx_ring", 1), alloc("tx_ring", 1), alloc("stats", 1)};

/// The new chunk is too large for a gap. Reviving and forgetting shows what is taken to be mapped.
const std::vector<std::string> afterwards{
    alloc("after", 4),   "register 0 4 17",  "free rx_ring",     "unregister 0 3 0",
    "unregister 0 4 17", "unregister 1 3 0", "unregister 0 6 0",
};

/// What the driver, or the file system before it, is made to answer; empty: nothing is refused.
const std::vector<std::string> all_answers{
    "",
    "op=any,file=sysfs,errno=ENODEV",
    "op=any,file=sysfs,errno=EUNATCH",
    "op=any,file=sysfs,errno=ENOSYS",
    "op=any,file=sysfs,errno=EIO",
    "op=any,file=sysfs,errno=EINVAL",
    "op=open-write,file=sysfs,errno=ENOENT",
};

/// One process is refused, or ends; another one goes on, for which the lock has to be free.
model::script script_of(const world& where, const refused_call& refused, const std::string& answer,
                        int nth) {
    model::script made{{where.name, "", 2}, {}};
    for (const std::string& command : before) {
        made.steps.push_back(model::parse_step("0 " + command));
    }
    if (!answer.empty()) {
        made.steps.push_back(
            {model::the_machine, "rules", {answer + ",nth=" + std::to_string(nth)}});
    }
    made.steps.push_back(model::parse_step("0 " + refused.command));
    for (const std::string& command : afterwards) {
        made.steps.push_back(model::parse_step("1 " + command));
    }
    return made;
}

class refusals : public testing::TestWithParam<std::tuple<world, refused_call>> {};

TEST_P(refusals, AreMetAsTheModelSaysAtEveryRequest) {
    const auto& [where, refused] = GetParam();
    for (const std::string& answer : all_answers) {
        // Where nothing is refused it does not matter at which request.
        for (int nth = 1; nth <= (answer.empty() ? 1 : 3); nth++) {
            const model::script tried = script_of(where, refused, answer, nth);
            const model::verdict result = model::play(tried.where, model::steps_of(tried));
            EXPECT_EQ(result.played.steps, tried.steps) << "a step was left out";
            EXPECT_FALSE(result.found.has_value()) << model::shown(tried) << result.found->text;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    , refusals, testing::Combine(testing::ValuesIn(all_worlds()), testing::ValuesIn(refused_calls)),
    [](const auto& tested) {
        return std::string(std::get<0>(tested.param).name) + std::get<1>(tested.param).name;
    });

} // namespace

} // namespace refusal_grid_test
