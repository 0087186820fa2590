// Every way the IOMMU's driver can answer, at the first, a middle and the last request of every
// call that makes requests: results, messages, records and what is sent afterwards.

#include "refusal_oracle.hpp"

#include <csignal>
#include <gtest/gtest.h>
#include <tuple>

namespace refusal_grid_test {

namespace {

constexpr pci_device fourth{0, 6, 0};

step alloc(const std::string& chunk, uint64_t page_count) {
    return {step::call::alloc, chunk, static_cast<uint32_t>(pages(page_count))};
}

step free_chunk(const std::string& chunk) {
    return {step::call::free, chunk};
}

step enter(const pci_device& device) {
    return {step::call::enter, {}, 0, device};
}

step leave(const pci_device& device) {
    return {step::call::leave, {}, 0, device};
}

struct refused_call {
    const char* name;
    step call; ///< makes three requests
};

std::ostream& operator<<(std::ostream& stream, const refused_call& one) {
    return stream << one.name;
}

const std::vector<refused_call> refused_calls{
    {"MapOnAllocate", alloc("fresh", 1)}, {"UnmapOnFree", free_chunk("tx_ring")},
    {"MapOnRegister", enter(fourth)},     {"MapOnReviving", enter(third)},
    {"UnmapOnUnregister", leave(second)},
};

const std::vector<step> before{enter(first),        enter(second),       enter(third),
                               alloc("rx_ring", 1), alloc("tx_ring", 1), alloc("stats", 1)};

/// The new chunk is too large for a gap. Reviving and forgetting shows what is taken to be mapped.
const std::vector<step> afterwards{alloc("after", 4), enter(second), free_chunk("rx_ring"),
                                   leave(first),      leave(second), leave(third),
                                   leave(fourth)};

std::string rule(const request_answer& answer, int nth) {
    const std::string due = ",nth=" + std::to_string(nth) + ",errno=" + answer.name;
    return (answer.at_open ? "op=open-write,file=sysfs" : "op=any,file=sysfs") + due;
}

texts records_in(const sandbox& box) {
    texts all;
    const area_file area = box.area();
    for (const area_chunk& chunk : area.view().chunks()) {
        numbers refs;
        // Those of the sentinels are never built.
        if (chunk.size != 0) {
            for (const area_ref& ref : area.view().refs(chunk.index)) {
                refs.push_back(ref.dev);
            }
            all.push_back(refusal_oracle::shown(chunk.name, refs));
        }
    }
    for (const area_device& device : area.view().devices()) {
        all.push_back(refusal_oracle::shown(device.index, static_cast<uint32_t>(device.bus),
                                            device.online != 0));
    }
    return all;
}

/// A machine and what is expected of it, step by step.
class compared_machine {
  public:
    explicit compared_machine(const world& chosen) : _box(chosen), _oracle(chosen) {
        _users.push_back(_box.start());
    }

    void answer(const request_answer& given, int nth) {
        _oracle.answer(given, nth);
        if (given.error != 0) {
            _box.add_rules({rule(given, nth)});
        }
    }

    void carry_out(const step& next) {
        SCOPED_TRACE(next.command());
        client& user = _users.back();
        const std::string expected = _oracle.reply_to(next);
        if (expected == "ended") {
            EXPECT_EQ(user.dies(next.command()), ended_by(SIGABRT));
        } else {
            EXPECT_EQ(user.call(next.command()), expected);
        }
        EXPECT_EQ(user.new_text(), _oracle.said());
        EXPECT_EQ(records_in(_box), _oracle.records());
        EXPECT_TRUE(lock_is_free(_box.lock_file()));
        if (expected == "ended") {
            _users.push_back(_box.start());
        }
    }

    void carry_out(const std::vector<step>& steps) {
        for (const step& next : steps) {
            carry_out(next);
        }
    }

    void expect_whole_logs() const {
        texts requests = _box.driver_log();
        std::erase_if(requests,
                      [](const std::string& event) { return !event.starts_with("sysfs "); });
        EXPECT_EQ(requests, _oracle.events());
        EXPECT_EQ(_box.cma_commands(), _oracle.cma_commands());
        EXPECT_EQ(area_breaches(_box.area().view(), {.stale_refs = true}), texts{});
    }

  private:
    sandbox _box;
    refusal_oracle _oracle;
    std::vector<client> _users; ///< the last one is alive
};

class refusals : public testing::TestWithParam<std::tuple<world, refused_call>> {};

TEST_P(refusals, AreMetAsAgreedAtEveryRequest) {
    const auto& [chosen, refused] = GetParam();
    for (const request_answer& answer : all_answers) {
        // Where nothing is refused it does not matter at which request.
        for (int nth = 1; nth <= (answer.error == 0 ? 1 : 3); nth++) {
            SCOPED_TRACE(std::string(answer.name) + " at request " + std::to_string(nth));
            compared_machine machine(chosen);
            machine.carry_out(before);
            machine.answer(answer, nth);
            machine.carry_out(refused.call);
            machine.carry_out(afterwards);
            machine.expect_whole_logs();
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
