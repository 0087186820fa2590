#include "small_list.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <iterator>
#include <list>
#include <random>
#include <string>
#include <utility>

// Random operations on the container, beside a plain model of it that is compared after each one.
// A failure names its seed; TARVO_TEST_SEED=<seed> replays that one and shows every step.

namespace {

using generator = std::mt19937;

const char* seed_to_replay() {
    return std::getenv("TARVO_TEST_SEED");
}

/// What the container shall be: elements as (index, payload), and free ones, first out first.
struct model {
    std::list<std::pair<int, int32_t>> live;
    std::list<int> chain;
};

template <int MAX>
class twin {
  public:
    explicit twin(unsigned seed) : _seed(seed), _random(seed) {
        for (int i = 0; i < MAX; ++i) {
            _model.chain.push_back(i);
        }
    }

    /// Operations until one leaves the two different, which fails the test.
    void run(int steps) {
        for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
            SCOPED_TRACE("TARVO_TEST_SEED=" + std::to_string(_seed) + ", capacity " +
                         std::to_string(MAX) + ", step " + std::to_string(step) + ": " +
                         one_operation());
            compare();
        }
    }

  private:
    int below(size_t limit) {
        return std::uniform_int_distribution<int>(0, static_cast<int>(limit) - 1)(_random);
    }

    std::string one_operation() {
        // Phases in which the list tends to fill and to drain, so that both ends are reached.
        if (below(4 * MAX) == 0) {
            _filling = !_filling;
        }
        const bool wants_more = below(4) != 0 ? _filling : !_filling;
        std::string reported =
            (wants_more && !_model.chain.empty()) || _model.live.empty() ? add_one() : remove_one();
        if (seed_to_replay() != nullptr) {
            std::printf("%s\n", reported.c_str());
        }
        return reported;
    }

    std::string add_one() {
        const int expected = _model.chain.front();
        _model.chain.pop_front();
        small_element* element = _list.alloc();
        EXPECT_EQ(_list.index(element), expected);
        EXPECT_EQ(element->payload, 0);
        element->payload = below(1000000);
        if (_model.live.empty() || below(3) == 0) {
            _list.append(element);
            _model.live.emplace_back(expected, element->payload);
            return "append " + std::to_string(expected);
        }
        const auto cur = any_live();
        _list.insert_after(_list.arr_elem(cur->first), element);
        _model.live.insert(std::next(cur), {expected, element->payload});
        return "insert " + std::to_string(expected) + " after " + std::to_string(cur->first);
    }

    std::string remove_one() {
        const auto cur = any_live();
        const int index = cur->first;
        _list.remove(_list.arr_elem(index));
        _list.free(_list.arr_elem(index));
        _model.live.erase(cur);
        _model.chain.push_front(index);
        return "remove " + std::to_string(index);
    }

    auto any_live() { return std::next(_model.live.begin(), below(_model.live.size())); }

    void compare() {
        std::list<std::pair<int, int32_t>> live;
        for (small_element& element : _list) {
            live.emplace_back(_list.index(&element), element.payload);
        }
        EXPECT_EQ(live, _model.live);
        const std::vector<int> chain = free_chain(_list);
        EXPECT_EQ(std::list<int>(chain.begin(), chain.end()), _model.chain);
        compare_ends();
        compare_links_backwards();
    }

    void compare_ends() {
        EXPECT_EQ(_list._head, _model.live.empty() ? -1 : _model.live.front().first);
        EXPECT_EQ(_list._tail, _model.live.empty() ? -1 : _model.live.back().first);
        EXPECT_EQ(_list._free, _model.chain.empty() ? -1 : _model.chain.front());
    }

    /// Round the whole circle by `prev`, each step back again by `next`.
    void compare_links_backwards() {
        int at = _list._head;
        for (auto before = _model.live.rbegin(); before != _model.live.rend(); ++before) {
            const int prev = _list._arr[at].prev;
            ASSERT_EQ(prev, before->first);
            EXPECT_EQ(_list._arr[prev].next, at);
            EXPECT_EQ(_list._arr[prev].allocated, 1);
            at = prev;
        }
    }

    unsigned _seed;
    generator _random;
    bool _filling = true;
    list_of<MAX> _list = fresh_list<MAX>();
    model _model;
};

void run_all_capacities(unsigned seed) {
    twin<1>(seed).run(50);
    twin<2>(seed).run(200);
    twin<3>(seed).run(300);
    twin<17>(seed).run(600);
}

TEST(list_random_operations, LeaveTheListLikeItsModel) {
    if (const char* replayed = seed_to_replay()) {
        run_all_capacities(static_cast<unsigned>(std::strtoul(replayed, nullptr, 10)));
        return;
    }
    for (unsigned seed = 1; seed <= 100 && !HasFailure(); ++seed) {
        run_all_capacities(seed);
    }
    // The sweep is the same every time; one more seed is not.
    if (!HasFailure()) {
        run_all_capacities(std::random_device()());
    }
}

} // namespace
