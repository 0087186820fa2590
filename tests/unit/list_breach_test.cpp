// What ends the process, checked by its signal and by all that it wrote to standard error. This
// file is compiled with NDEBUG: the checks are there in every kind of build.
#ifndef NDEBUG
#error "list_breach_test.cpp shall be compiled with NDEBUG"
#endif

#include "small_list.hpp"

#include <bit>
#include <cerrno>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace {

using testing::IsEmpty;
using testing::KilledBySignal;

// The parts of a signature that each compiler writes in its own way.
#ifdef __clang__
const std::string pointer = "T *";
const std::string returned_pointer = "T *";
const std::string list_class = "ArrayBackedList<small_element, 5>::";
const std::string parameters = " [T = small_element, MAX = 5]";
#else
const std::string pointer = "T*";
const std::string returned_pointer = "T* ";
const std::string list_class = "ArrayBackedList<T, MAX>::";
const std::string parameters = " [with T = small_element; int MAX = 5]";
#endif

std::string message(int line, const std::string& result, const std::string& function,
                    const std::string& expression) {
    return std::string(program_invocation_short_name) +
           ": ./ArrayBackedList.hpp:" + std::to_string(line) + ": " + result + list_class +
           function + parameters + ": Assertion `" + expression + "' failed.\n";
}

const std::string bad_index_message =
    message(159, returned_pointer, "arr_elem(int)", "idx >= 0 && idx < MAX");
const std::string missing_link_message =
    message(159, returned_pointer, "at(int)", "idx >= 0 && idx < MAX");
const std::string stray_pointer_message =
    message(154, "int ", "index(" + pointer + ")", "idx >= 0 && idx < MAX");
const std::string not_in_use_message =
    message(32, returned_pointer, "next(" + pointer + ")", "cur->allocated");

#define EXPECT_ABORT(statement, text)                                                              \
    EXPECT_EXIT(statement, KilledBySignal(SIGABRT), testing::Eq(text))

TEST(list_arr_elem_ends_the_process, ForAnyIndexOutOfRangeButMinusOne) {
    small_list list = fresh_list();
    EXPECT_ABORT(list.arr_elem(5), bad_index_message);
    EXPECT_ABORT(list.arr_elem(-2), bad_index_message);
    EXPECT_ABORT(list.arr_elem(INT32_MAX), bad_index_message);
    EXPECT_ABORT(list.arr_elem(INT32_MIN), bad_index_message);
}

TEST(list_at_ends_the_process, ForMinusOneAsForAnyOtherIndexOutOfRange) {
    small_list list = fresh_list();
    EXPECT_EQ(list.at(4), &list._arr[4]);
    EXPECT_ABORT(list.at(-1), missing_link_message);
    EXPECT_ABORT(list.at(5), bad_index_message);
}

TEST(list_index_ends_the_process, ForNullAndPointersNextToTheStorage) {
    small_list lists[3] = {fresh_list(), fresh_list(), fresh_list()};
    small_list& list = lists[1];
    EXPECT_ABORT(list.index(list._arr + 5), stray_pointer_message);
    EXPECT_ABORT(list.index(list._arr - 1), stray_pointer_message);
    EXPECT_ABORT(list.index(nullptr), stray_pointer_message);
}

TEST(list_index_ends_the_process, ForAPointerSoFarAwayThat32BitsWouldFoldItIntoTheRange) {
    small_list list = fresh_list();
    const auto far = static_cast<uintptr_t>(uint64_t{1} << 32U) * sizeof(small_element);
    auto* folded = std::bit_cast<small_element*>(std::bit_cast<uintptr_t>(&list._arr[2]) + far);
    if constexpr (sizeof(void*) > 4) {
        EXPECT_ABORT(list.index(folded), stray_pointer_message);
    } else {
        EXPECT_EQ(list.index(folded), 2); // there it is the same pointer
    }
}

TEST(list_get_next_ends_the_process, ForALinkOutOfRange) {
    small_list list = list_with(2);
    list._arr[0].next = 5;
    EXPECT_ABORT(list.get_next(&list._arr[0]), bad_index_message);
}

TEST(list_set_link_ends_the_process, ForATargetOutsideTheStorage) {
    small_list list = list_with(2);
    EXPECT_ABORT(list.set_next(&list._arr[0], list._arr + 5), stray_pointer_message);
    EXPECT_ABORT(list.set_prev(&list._arr[0], list._arr + 5), stray_pointer_message);
}

TEST(list_next_ends_the_process, ForAnElementNotInUse) {
    small_list list = list_with(2);
    EXPECT_ABORT(list.next(&list._arr[2]), not_in_use_message);
}

TEST(list_next_ends_the_process, ForALinkOutOfRange) {
    small_list list = list_with(2);
    list._arr[0].next = -2;
    EXPECT_ABORT(list.next(&list._arr[0]), bad_index_message);
}

TEST(list_insert_after_ends_the_process, WhenEitherElementIsNotInUse) {
    small_list list = list_with(2);
    const std::string text = message(49, "void ", "insert_after(" + pointer + ", " + pointer + ")",
                                     "cur->allocated && new_elem->allocated");
    EXPECT_ABORT(list.insert_after(&list._arr[0], &list._arr[3]), text);
    EXPECT_ABORT(list.insert_after(&list._arr[3], &list._arr[0]), text);
}

TEST(list_insert_after_ends_the_process, ForALinkThatIsOutOfRangeOrMissing) {
    small_list list = list_with(2);
    list._arr[0].next = 99;
    EXPECT_ABORT(list.insert_after(&list._arr[0], list.alloc()), bad_index_message);
    list._arr[0].next = -1;
    EXPECT_ABORT(list.insert_after(&list._arr[0], list.alloc()), stray_pointer_message);
}

TEST(list_append_ends_the_process, WhenOnlyOneEndIsSet) {
    const std::string text =
        message(88, "void ", "append(" + pointer + ")", "_head != -1 && _tail != -1");
    small_list headless = list_with(2);
    headless._head = -1;
    EXPECT_ABORT(headless.append(headless.alloc()), text);
    small_list tailless = list_with(2);
    tailless._tail = -1;
    EXPECT_ABORT(tailless.append(tailless.alloc()), text);
}

TEST(list_append_ends_the_process, ForAnElementOutsideTheStorage) {
    small_list list = fresh_list();
    small_element stray{};
    EXPECT_ABORT(list.append(&stray), stray_pointer_message);
}

TEST(list_append_ends_the_process, ForAnEndOutOfRange) {
    small_list list = list_with(2);
    list._tail = 5;
    EXPECT_ABORT(list.append(list.alloc()), bad_index_message);
}

TEST(list_remove_ends_the_process, ForAnElementNotInUse) {
    small_list list = list_with(2);
    EXPECT_ABORT(list.remove(&list._arr[2]),
                 message(100, "void ", "remove(" + pointer + ")", "cur->allocated"));
}

TEST(list_remove_ends_the_process, ForALinkThatIsOutOfRangeOrMissing) {
    small_list list = list_with(3);
    list._arr[1].prev = 5;
    EXPECT_ABORT(list.remove(&list._arr[1]), bad_index_message);
    list._arr[1].prev = -1;
    EXPECT_ABORT(list.remove(&list._arr[1]), missing_link_message);
    list._arr[2].next = -1;
    EXPECT_ABORT(list.remove(&list._arr[2]), missing_link_message);
}

TEST(list_alloc_ends_the_process, WhenTheFreeChainHoldsAnElementInUse) {
    small_list list = list_with(2);
    list._free = 1;
    EXPECT_ABORT(list.alloc(), message(126, returned_pointer, "alloc()", "!chunk->allocated"));
}

TEST(list_alloc_ends_the_process, ForAChainOutOfRange) {
    small_list list = fresh_list();
    list._free = 5;
    EXPECT_ABORT(list.alloc(), bad_index_message);
}

TEST(list_alloc_ends_the_process, ByAMemoryFaultWhenTheChainIsExhausted) {
    small_list list = list_with(5);
    EXPECT_EXIT(list.alloc(), KilledBySignal(SIGSEGV), IsEmpty());
}

TEST(list_free_ends_the_process, ForAnElementThatIsFree) {
    small_list list = list_with(2);
    list.remove(&list._arr[1]);
    list.free(&list._arr[1]);
    EXPECT_ABORT(list.free(&list._arr[1]),
                 message(141, "void ", "free(" + pointer + ")", "cur->allocated"));
}

TEST(list_walk_ends_the_process, WhenTheHeadIsNotInUse) {
    small_list list = list_with(2);
    list._arr[0].allocated = 0;
    EXPECT_ABORT(walk(list), not_in_use_message);
}

TEST(list_walk_ends_the_process, WhenTheHeadIsOutOfRange) {
    small_list list = list_with(2);
    list._head = 5;
    EXPECT_ABORT(walk(list), bad_index_message);
}

const std::string endless_message =
    message(166, "static void ", "check_visited(int)", "visited <= MAX");

TEST(list_walk_ends_the_process, WhereLinksLeadInACircle) {
    small_list list = list_with(3);
    list._arr[1].next = 0;
    EXPECT_ABORT(walk(list), endless_message);
    list._arr[1].next = 1;
    EXPECT_ABORT(walk(list), endless_message);
}

TEST(list_walk_ends_the_process, WhereItNeverMeetsTheTail) {
    small_list list = list_with(5);
    list._tail = -1;
    EXPECT_ABORT(walk(list), endless_message);
}

} // namespace
