// The order of the chunks that a process remembers. A wrong entry changes no result and costs time
// only, so nothing else notices one.

#include "fresh_area.hpp"
#include "shared/remembered_order.hpp"

#include <gtest/gtest.h>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace order_test {

namespace {

class remembered : public testing::Test {
  protected:
    chunk_list& list() { return _area->record().chunks; }
    void link(int element, int next) { list()._arr[element].next = next; }
    void use_all() {
        for (int element = 0; element <= last; ++element) {
            list()._arr[element].allocated = 1;
        }
    }
    size_t after(size_t element) {
        _order->learn_all(list());
        return _order->after(element);
    }

    remembered() {
        list().init();
        for (int element = 0; element < used; ++element) {
            list()._arr[element].allocated = 1;
        }
    }

    static constexpr int used = 100;
    static constexpr int last = chunk_capacity - 1;

  private:
    std::unique_ptr<fresh_area> _area = std::make_unique<fresh_area>();
    std::unique_ptr<remembered_order> _order = std::make_unique<remembered_order>();
};

TEST_F(remembered, IsThatOfTheArrayAtFirst) {
    const auto order = std::make_unique<remembered_order>();
    EXPECT_EQ(order->after(0), 1U);
    EXPECT_EQ(order->after(last - 1), static_cast<size_t>(last));
    EXPECT_EQ(order->after(last), 0U);
}

TEST_F(remembered, IsThatOfTheLinks) {
    link(0, used - 1);
    link(used - 1, 1);
    EXPECT_EQ(after(0), size_t{used - 1});
    EXPECT_EQ(after(used - 1), 1U);
    link(2, 0);
    EXPECT_EQ(after(2), 0U);
    link(2, last);
    EXPECT_EQ(after(2), static_cast<size_t>(last));
}

TEST_F(remembered, LeavesOutLinksThatLeadNowhere) {
    for (const int nowhere : {-1, chunk_capacity, -2, chunk_capacity + 5}) {
        link(2, nowhere);
        EXPECT_EQ(after(2), 3U) << nowhere;
    }
}

TEST_F(remembered, IsLearntUpTo64ElementsThatWereNeverInUse) {
    link(used + 62, 7); // the 63rd after those in use: it was freed once
    link(used + 63 + 63, 8);
    EXPECT_EQ(after(used + 62), 7U);
    EXPECT_EQ(after(used + 63 + 63), 8U);
    link(used + 63 + 64 + 64, 9);
    EXPECT_EQ(after(used + 63 + 64 + 64), size_t{used + 63 + 64 + 64 + 1});
}

TEST_F(remembered, IsLearntToTheLastElement) {
    use_all();
    link(last, 5);
    EXPECT_EQ(after(last), 5U);
}

/// Memory of so many bytes, right before a page that nobody may touch.
void* place_before_a_guard(size_t bytes) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t whole_pages = (bytes + page - 1) / page * page;
    auto* const start = static_cast<char*>(mmap(nullptr, whole_pages + page, PROT_READ | PROT_WRITE,
                                                MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(start + whole_pages, page, PROT_NONE);
    return start + whole_pages - bytes;
}

TEST_F(remembered, IsLearntNoFurtherThanTheLastElement) {
    use_all();
    list()._head = 5; // lies where one element more would have its link
    auto* const order = new (place_before_a_guard(sizeof(remembered_order))) remembered_order;
    order->learn_all(list()); // would fault if it wrote beyond the table
    EXPECT_EQ(order->after(last - 1), static_cast<size_t>(last));
}

} // namespace

} // namespace order_test
