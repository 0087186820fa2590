#include "small_list.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <type_traits>

namespace list_test {

// What each operation of the container does when it is used as it should be.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(std::is_trivial_v<small_list> && std::is_standard_layout_v<small_list>,
              "the list is bytes: nothing may run when it comes into being or goes");
static_assert(sizeof(small_list) == 5 * sizeof(small_element) + 12, "there are no other members");

bool is_zero(const void* bytes, size_t count) {
    const auto* byte = static_cast<const unsigned char*>(bytes);
    return std::all_of(byte, byte + count, [](unsigned char value) { return value == 0; });
}

TEST(list_init, LeavesTheListEmptyAndChainsEveryElementLowestFirst) {
    small_list list = fresh_list();
    EXPECT_EQ(list._head, -1);
    EXPECT_EQ(list._tail, -1);
    EXPECT_THAT(free_chain(list), ElementsAre(0, 1, 2, 3, 4));
    EXPECT_EQ(list._arr[4].next, -1);
}

TEST(list_init, ForgetsWhatTheEndsWere) {
    small_list list{};
    list._head = 3;
    list._tail = 4;
    list._free = 2;
    list.init();
    EXPECT_EQ(list._head, -1);
    EXPECT_EQ(list._tail, -1);
    EXPECT_EQ(list._free, 0);
}

TEST(list_init, KeepsElementsInUseOffTheFreeChain) {
    small_list list{};
    list._arr[0].allocated = 1;
    list._arr[2].allocated = 1;
    list.init();
    EXPECT_THAT(free_chain(list), ElementsAre(1, 3, 4));
    EXPECT_TRUE(list._arr[0].allocated);
    EXPECT_TRUE(list._arr[2].allocated);
}

TEST(list_init, EndsTheLastElementsLinkEvenWhenThatElementIsInUse) {
    small_list list{};
    list._arr[4].allocated = 1;
    list._arr[4].next = 2;
    list.init();
    EXPECT_EQ(list._arr[4].next, -1);
    EXPECT_EQ(list._free, 0);
    EXPECT_EQ(list._arr[2].next, 3);
}

TEST(list_init, OfASingleElementChainsIt) {
    auto list = fresh_list<1>();
    EXPECT_THAT(free_chain(list), ElementsAre(0));
    EXPECT_EQ(list._arr[0].next, -1);
}

TEST(list_arr_elem, OfMinusOneIsNull) {
    small_list list = fresh_list();
    EXPECT_EQ(list.arr_elem(-1), nullptr);
}

TEST(list_arr_elem, AndIndexAreEachOthersInverse) {
    small_list list = fresh_list();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(list.arr_elem(i), &list._arr[i]);
        EXPECT_EQ(list.index(&list._arr[i]), i);
    }
}

TEST(list_get_next, FollowsTheLinkAndDoesNotStopAtTheTail) {
    small_list list = list_with(3);
    EXPECT_EQ(list.get_next(&list._arr[0]), &list._arr[1]);
    EXPECT_EQ(list.get_next(&list._arr[2]), &list._arr[0]);
}

TEST(list_get_next, OfTheEndOfTheFreeChainIsNull) {
    small_list list = fresh_list();
    EXPECT_EQ(list.get_next(&list._arr[4]), nullptr);
}

TEST(list_set_next_and_set_prev, StoreTheIndexAndNothingElse) {
    small_list list = list_with(3);
    small_list expected = list;
    expected._arr[1].next = 4;
    list.set_next(&list._arr[1], &list._arr[4]);
    EXPECT_EQ(std::memcmp(&list, &expected, sizeof list), 0);
    expected._arr[1].prev = 3;
    list.set_prev(&list._arr[1], &list._arr[3]);
    EXPECT_EQ(std::memcmp(&list, &expected, sizeof list), 0);
}

TEST(list_alloc, MarksTheElementAndLeavesItsLinksAndPayloadAsTheyWere) {
    small_list list = fresh_list();
    list._arr[0].prev = 3;
    list._arr[0].payload = 77;
    const small_element* element = list.alloc();
    EXPECT_EQ(element->allocated, 1);
    EXPECT_EQ(element->next, 1);
    EXPECT_EQ(element->prev, 3);
    EXPECT_EQ(element->payload, 77);
}

TEST(list_insert_after, WithNoTailOnRecordMakesNone) {
    small_list list = list_with(2);
    list._tail = -1;
    list.insert_after(&list._arr[1], list.alloc());
    EXPECT_EQ(list._tail, -1);
    EXPECT_EQ(list._arr[1].next, 2);
}

TEST(list_remove, KeepsTheElementsLinksFlagAndPayload) {
    small_list list = list_with(3);
    list._arr[1].payload = 77;
    list.remove(&list._arr[1]);
    EXPECT_EQ(list._arr[1].next, 2);
    EXPECT_EQ(list._arr[1].prev, 0);
    EXPECT_EQ(list._arr[1].allocated, 1);
    EXPECT_EQ(list._arr[1].payload, 77);
    EXPECT_THAT(free_chain(list), ElementsAre(3, 4));
}

TEST(list_free, ZeroesTheElementAndPutsItAtTheFrontOfTheFreeChain) {
    small_list list = list_with(3);
    list._arr[1].payload = 77;
    list.remove(&list._arr[1]);
    list.free(&list._arr[1]);
    EXPECT_THAT(free_chain(list), ElementsAre(1, 3, 4));
    EXPECT_EQ(list._arr[1].next, 3);
    EXPECT_TRUE(is_zero(&list._arr[1].prev, sizeof(small_element) - sizeof(int32_t)));
}

TEST(list_free, ThenAllocHandsOutTheSameElementZeroButForItsLink) {
    small_list list = list_with(3);
    small_element* freed = &list._arr[1];
    freed->payload = 77;
    list.remove(freed);
    list.free(freed);
    const small_element* element = list.alloc();
    EXPECT_EQ(element, freed);
    EXPECT_EQ(element->next, 3);
    EXPECT_EQ(element->prev, 0);
    EXPECT_EQ(element->allocated, 1);
    EXPECT_EQ(element->payload, 0);
    EXPECT_EQ(list._free, 3);
}

TEST(list_erase, UnlinksTheElementAndFreesIt) {
    small_list list = list_with(3);
    list._arr[1].payload = 77;
    list.erase(&list._arr[1]);
    EXPECT_THAT(walk(list), ElementsAre(0, 2));
    EXPECT_THAT(free_chain(list), ElementsAre(1, 3, 4));
    EXPECT_TRUE(is_zero(&list._arr[1].prev, sizeof(small_element) - sizeof(int32_t)));
}

TEST(list_next, StepsAlongTheListAndIsNullAfterTheTail) {
    small_list list = list_with(3);
    EXPECT_EQ(list.next(&list._arr[0]), &list._arr[1]);
    EXPECT_EQ(list.next(&list._arr[1]), &list._arr[2]);
    EXPECT_EQ(list.next(&list._arr[2]), nullptr);
}

TEST(list_next, GoesRoundTheCircleWhenNoTailIsOnRecord) {
    small_list list = list_with(2);
    list._tail = -1;
    EXPECT_EQ(list.next(&list._arr[1]), &list._arr[0]);
}

TEST(list_walk, OfAnEmptyListVisitsNothing) {
    small_list list = fresh_list();
    EXPECT_THAT(walk(list), IsEmpty());
}

TEST(list_walk, GivesTheElementsThemselves) {
    small_list list = list_with(2);
    for (small_element& element : list) {
        element.payload = 7;
    }
    EXPECT_EQ(list._arr[0].payload, 7);
    EXPECT_EQ(list._arr[1].payload, 7);
    EXPECT_EQ(list._arr[2].payload, 0);
}

TEST(list_bytes, AreTheSameListAtAnyOtherAddress) {
    const small_list here = list_with(3);
    alignas(small_list) std::array<unsigned char, sizeof(small_list) + 64> room{};
    auto* there = reinterpret_cast<small_list*>(room.data() + 64);
    std::memcpy(there, &here, sizeof here);
    there->remove(&there->_arr[1]);
    there->free(&there->_arr[1]);
    there->append(there->alloc());
    EXPECT_THAT(walk(*there), ElementsAre(0, 2, 1));
    EXPECT_THAT(free_chain(*there), ElementsAre(3, 4));
}

struct outer_element {
    int32_t next;
    int32_t prev;
    uint8_t allocated;
    small_list inner;
};

TEST(list_free, ZeroesAnEmbeddedListToo) {
    ArrayBackedList<outer_element, 2> list{};
    list.init();
    outer_element* element = list.alloc();
    list.append(element);
    element->inner.init();
    element->inner.append(element->inner.alloc());
    list.remove(element);
    list.free(element);
    EXPECT_TRUE(is_zero(&element->inner, sizeof element->inner));
}

} // namespace

} // namespace list_test
