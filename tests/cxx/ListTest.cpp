#include "Framework/GCL/cxx/List.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <numeric>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"

using gcl::List;
using gcltest::Count;
using gcltest::Fault;
using gcltest::gclReport;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

template <typename T>
std::vector<T> itemsOf(const List<T>& list)
{
    return {list.begin(), list.end()};
}

List<int> listOf(std::initializer_list<int> items)
{
    List<int> list;
    for (const int item : items) {
        EXPECT_EQ(list.pushTail(item), GCL_OK);
    }
    return list;
}

// Not even default-constructed trivially.
struct Small {
    Small() = default;
    Small(uint16_t x, uint8_t y) : a(x), b(y) {}
    uint16_t a = 7;
    uint8_t b = 7;
};

enum class Colour : uint8_t { red, green, blue };

using Ints = std::vector<int>;

} // namespace

TEST(ListProperties, MovesOnlyAndThrowsNothingInMoves)
{
    static_assert(!std::is_copy_constructible_v<List<int>>);
    static_assert(!std::is_copy_assignable_v<List<int>>);
    static_assert(std::is_nothrow_move_constructible_v<List<int>>);
    static_assert(std::is_nothrow_move_assignable_v<List<int>>);
    static_assert(std::is_nothrow_default_constructible_v<List<int>>);
    static_assert(sizeof(List<int>) == sizeof(CList));
}

TEST(ListWord, KeepsEveryKindOfItem)
{
    List<int> numbers;
    ASSERT_EQ(numbers.pushTail(-1), GCL_OK);
    // Zeros stand above the value, whatever its sign.
    EXPECT_EQ(numbers.native().pHead->ulItem, 0xFFFFFFFFul);
    EXPECT_EQ(*numbers.begin(), -1);

    List<signed char> bytes;
    ASSERT_EQ(bytes.pushTail(-128), GCL_OK);
    EXPECT_EQ(bytes.native().pHead->ulItem, 0x80ul);
    EXPECT_EQ(*bytes.begin(), -128);

    List<unsigned long> words;
    ASSERT_EQ(words.pushTail(~0ul), GCL_OK);
    EXPECT_EQ(*words.begin(), ~0ul);

    List<bool> flags;
    ASSERT_EQ(flags.pushTail(true), GCL_OK);
    ASSERT_EQ(flags.pushTail(false), GCL_OK);
    EXPECT_EQ(itemsOf(flags), (std::vector<bool>{true, false}));

    List<Colour> colours;
    ASSERT_EQ(colours.pushTail(Colour::blue), GCL_OK);
    EXPECT_EQ(colours.native().pHead->ulItem, 2ul);
    EXPECT_TRUE(colours.itemExists(Colour::blue));

    List<float> fractions;
    ASSERT_EQ(fractions.pushTail(-0.5f), GCL_OK);
    EXPECT_EQ(*fractions.begin(), -0.5f);

    const int target = 5;
    List<const int*> pointers;
    ASSERT_EQ(pointers.pushTail(&target), GCL_OK);
    ASSERT_EQ(pointers.pushTail(nullptr), GCL_OK);
    EXPECT_EQ(pointers.native().pHead->ulItem, reinterpret_cast<unsigned long>(&target));
    EXPECT_EQ(itemsOf(pointers), (std::vector<const int*>{&target, nullptr}));

    List<Small> structures;
    ASSERT_EQ(structures.pushTail({0x1234, 0x56}), GCL_OK);
    EXPECT_EQ(structures.begin()->a, 0x1234);
    EXPECT_EQ(structures.begin()->b, 0x56);
}

TEST(ListMove, HandsTheNodesOnAndLeavesAnEmptyList)
{
    List<int> from = listOf({1, 2, 3});
    const CListNode* const head = from.native().pHead;
    List<int> to(std::move(from));
    EXPECT_EQ(to.native().pHead, head);
    EXPECT_EQ(itemsOf(to), (Ints{1, 2, 3}));
    // NOLINTBEGIN(bugprone-use-after-move): that is what the test is about
    EXPECT_TRUE(from.isEmpty());
    EXPECT_EQ(from.native().pHead, nullptr);
    EXPECT_EQ(from.native().pTail, nullptr);
    ASSERT_EQ(from.pushTail(9), GCL_OK);
    EXPECT_EQ(itemsOf(from), (Ints{9}));

    from = std::move(to); // which frees the 9
    EXPECT_EQ(itemsOf(from), (Ints{1, 2, 3}));
    EXPECT_TRUE(to.isEmpty());
    to = listOf({4});
    EXPECT_EQ(itemsOf(to), (Ints{4}));
    // NOLINTEND(bugprone-use-after-move)

    List<int>& same = from;
    from = std::move(same);
    EXPECT_EQ(itemsOf(from), (Ints{1, 2, 3}));
}

TEST(ListMove, FreesEachNodeOnce)
{
    const Count made(calls::newArray);
    const gcltest::Frees frees;
    {
        List<int> a = listOf({1, 2, 3});
        List<int> b = listOf({4, 5});
        b = std::move(a);
        EXPECT_EQ(frees.memory().size(), 2u);
        const List<int> c(std::move(b));
    }
    EXPECT_EQ(frees.memory().size(), 3u);
    EXPECT_EQ(made.calls(), 5u);
}

TEST(ListDestruct, FreesTheNodesAndLeavesAUsableList)
{
    List<int> list = listOf({1, 2});
    list.destruct();
    EXPECT_TRUE(list.isEmpty());
    ASSERT_EQ(list.pushHead(3), GCL_OK);
    EXPECT_EQ(itemsOf(list), (Ints{3}));
    list.destruct();
    list.destruct();
    EXPECT_EQ(list.currentSize(), 0u);
}

TEST(ListEnds, PushesPopsAndReads)
{
    List<int> list;
    int item = 0;
    EXPECT_TRUE(list.isEmpty());
    ASSERT_EQ(list.pushHead(2), GCL_OK);
    ASSERT_EQ(list.pushTail(3), GCL_OK);
    ASSERT_EQ(list.pushHead(1), GCL_OK);
    EXPECT_EQ(list.currentSize(), 3u);
    EXPECT_FALSE(list.isEmpty());
    EXPECT_EQ(list.getHead(item), GCL_OK);
    EXPECT_EQ(item, 1);
    EXPECT_EQ(list.getTail(item), GCL_OK);
    EXPECT_EQ(item, 3);
    EXPECT_EQ(list.popHead(item), GCL_OK);
    EXPECT_EQ(item, 1);
    EXPECT_EQ(list.popTail(item), GCL_OK);
    EXPECT_EQ(item, 3);
    EXPECT_EQ(itemsOf(list), (Ints{2}));
}

TEST(ListEnds, LeaveTheItemAloneOnFailure)
{
    List<int> list;
    int item = 77;
    EXPECT_EQ(list.popHead(item), GCL_LIST_EMPTY);
    EXPECT_EQ(list.getHead(item), GCL_LIST_EMPTY);
    EXPECT_EQ(list.popTail(item), GCL_LIST_EMPTY);
    EXPECT_EQ(list.getTail(item), GCL_LIST_EMPTY);
    EXPECT_EQ(item, 77);

    list.native().uiSize = 1;
    EXPECT_EQ(list.popHead(item), GCL_INCONSISTENT);
    EXPECT_EQ(list.popTail(item), GCL_INCONSISTENT);
    EXPECT_EQ(list.getTail(item), GCL_INCONSISTENT);
    EXPECT_EQ(item, 77);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(ListRemove, RemovesEveryNodeWithTheItem)
{
    List<int> list = listOf({-1, 2, -1, 3, -1});
    EXPECT_TRUE(list.itemExists(-1));
    EXPECT_EQ(list.remove(-1), GCL_OK);
    EXPECT_FALSE(list.itemExists(-1));
    EXPECT_EQ(itemsOf(list), (Ints{2, 3}));
    EXPECT_EQ(list.remove(-1), GCL_ITEM_NOT_FOUND);
    EXPECT_EQ(List<int>().remove(1), GCL_ITEM_NOT_FOUND);
}

TEST(ListIteration, StepsAsThePlainFunctionsDo)
{
    List<int> list = listOf({5, -6});
    List<int>::Position position = nullptr;
    int item = 77;
    ASSERT_EQ(list.startIterationFromHead(position), GCL_OK);
    EXPECT_EQ(position, list.native().pHead);
    EXPECT_EQ(list.getNext(item, position), GCL_OK);
    EXPECT_EQ(item, 5);
    const gcl::Result last = list.getNext(item, position);
    EXPECT_EQ(last, GCL_LAST_ITEM);
    EXPECT_FALSE(last.failed());
    EXPECT_EQ(last, gcl::Severity::Warning);
    EXPECT_EQ(item, -6);
    EXPECT_EQ(position, nullptr);
    EXPECT_EQ(list.getNext(item, position), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(item, 0);
    EXPECT_EQ(List<int>().startIterationFromHead(position), GCL_LIST_EMPTY);
}

TEST(ListIteration, InsertsAfterAPosition)
{
    List<int> list = listOf({1, 3});
    List<int>::Position position = nullptr;
    ASSERT_EQ(list.startIterationFromHead(position), GCL_OK);
    ASSERT_EQ(list.insertAfter(2, position), GCL_OK);
    EXPECT_EQ(itemsOf(list), (Ints{1, 2, 3}));
    EXPECT_EQ(list.insertAfter(4, nullptr), GCL_INVALID_ARGUMENT);
    ASSERT_EQ(list.insertAfter(20, std::next(list.begin()).position()), GCL_OK);
    EXPECT_EQ(itemsOf(list), (Ints{1, 2, 20, 3}));
}

TEST(ListIterator, WalksTheItems)
{
    const List<int> list = listOf({3, 1, 2});
    int sum = 0;
    for (const int item : list) {
        sum = 10 * sum + item;
    }
    EXPECT_EQ(sum, 312);
    EXPECT_EQ(std::accumulate(list.begin(), list.end(), 0), 6);
    EXPECT_EQ(std::find(list.begin(), list.end(), 1), std::next(list.begin()));
    EXPECT_EQ(std::distance(list.begin(), list.end()), 3);
    const List<int> none;
    EXPECT_EQ(none.begin(), none.end());
}

TEST(ListIterator, CanWalkTheSameItemsAgain)
{
    const List<int> list = listOf({1, 2});
    auto walker = list.begin();
    const auto kept = walker++;
    EXPECT_EQ(*kept, 1);
    EXPECT_EQ(*walker, 2);
    EXPECT_NE(kept, walker);
    auto again = kept;
    EXPECT_EQ(++again, walker);
    EXPECT_EQ(walker.position(), list.native().pTail);
    EXPECT_EQ(++walker, list.end());
    EXPECT_EQ(List<int>::Iterator(), list.end());
    static_assert(std::is_same_v<std::iterator_traits<List<int>::Iterator>::reference, int>);
}

TEST(ListIndex, InsertsReadsAndRemoves)
{
    List<int> list = listOf({5, 7});
    int item = 77;
    ASSERT_EQ(list.insertAt(1, 6), GCL_OK);
    EXPECT_EQ(itemsOf(list), (Ints{5, 6, 7}));
    EXPECT_EQ(list.getAt(2, item), GCL_OK);
    EXPECT_EQ(item, 7);
    EXPECT_EQ(list.removeAt(1), GCL_OK);
    EXPECT_EQ(itemsOf(list), (Ints{5, 7}));
    EXPECT_EQ(list.insertAt(2, 8), GCL_INDEX_OUT_OF_RANGE);
    EXPECT_EQ(list.getAt(2, item), GCL_INDEX_OUT_OF_RANGE);
    EXPECT_EQ(list.removeAt(2), GCL_INDEX_OUT_OF_RANGE);
    EXPECT_EQ(item, 7);
}

// Were the index cut to 32 bits, it would be 0 or 1.
TEST(ListIndex, RefusesWhatDoesNotFit)
{
    if constexpr (sizeof(size_t) > 4) {
        List<int> list = listOf({5, 6});
        int item = 77;
        for (const size_t index : {size_t{1} << 32, (size_t{1} << 32) + 1, ~size_t{0}}) {
            EXPECT_EQ(list.insertAt(index, 7), GCL_INDEX_OUT_OF_RANGE);
            EXPECT_EQ(list.getAt(index, item), GCL_INDEX_OUT_OF_RANGE);
            EXPECT_EQ(list.removeAt(index), GCL_INDEX_OUT_OF_RANGE);
        }
        EXPECT_EQ(item, 77);
        EXPECT_EQ(itemsOf(list), (Ints{5, 6}));
    } else {
        GTEST_SKIP() << "every size_t fits here";
    }
}

// As in the plain interface: index 0 makes a ring, which the caller mends before the list ends.
TEST(ListIndex, ZeroClosesARing)
{
    List<int> list = listOf({5});
    ASSERT_EQ(list.insertAt(0, 9), GCL_OK);
    CListNode* const head = list.native().pHead;
    ASSERT_EQ(head->pNext->pNext, head);
    EXPECT_EQ(list.remove(5), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(takeReports(),
              std::vector<Report>{gclReport(
                  "CList", "CList_Remove",
                  "CList_Remove: invalid argument. A cycle was detected in pThis! ", 0x8008)});
    head->pNext->pNext = nullptr;
    list.native().pTail = head->pNext;
    EXPECT_EQ(itemsOf(list), (Ints{5, 9}));
}

TEST(ListFind, TakesAPlainMatcher)
{
    const CListMatcher lastDigit = {[](unsigned long ulItem, unsigned long ulKey) -> uint32_t {
        return ulItem % 10 == ulKey ? 0x80000000u : 0;
    }};
    const List<int> list = listOf({11, 22, 31});
    List<int>::Position position = nullptr;
    int item = 77;
    ASSERT_TRUE(list.find(1, lastDigit, position));
    EXPECT_EQ(position, list.native().pHead);
    ASSERT_TRUE(list.findNext(1, lastDigit, position)); // the same node again
    EXPECT_EQ(position, list.native().pHead);
    ASSERT_EQ(list.getNext(item, position), GCL_OK);
    ASSERT_TRUE(list.findNext(1, lastDigit, position));
    EXPECT_EQ(position, list.native().pTail);
    EXPECT_TRUE(list.findAndRetrieve(2, lastDigit, item));
    EXPECT_EQ(item, 22);
    EXPECT_FALSE(list.findAndRetrieve(3, lastDigit, item));
    EXPECT_EQ(item, 22);
    EXPECT_FALSE(list.find(3, lastDigit, position));
    EXPECT_EQ(position, nullptr);
}

TEST(ListFindIf, TakesWhatCanBeCalled)
{
    List<int> list = listOf({-11, 22, -31});
    List<int>::Position position = nullptr;
    int item = 77;
    int calls = 0;
    int limit = 0;
    const auto below = [&calls, &limit](int value) {
        ++calls;
        return value < limit;
    };
    limit = -20; // it is called where it stands
    ASSERT_TRUE(list.findIf(below, position));
    EXPECT_EQ(position, list.native().pTail);
    EXPECT_EQ(calls, 3);
    EXPECT_TRUE(list.findAndRetrieveIf(below, item));
    EXPECT_EQ(item, -31);
    EXPECT_FALSE(list.findAndRetrieveIf([](int value) { return value == 0; }, item));
    EXPECT_EQ(item, -31);

    // A lambda with a state of its own, by reference; a function; a pointer to one.
    auto second = [seen = 0](int) mutable { return ++seen == 2; };
    ASSERT_TRUE(list.findIf(second, position));
    EXPECT_EQ(position, list.native().pHead->pNext);
    struct Local {
        static bool isEven(int value) { return value % 2 == 0; }
    };
    EXPECT_TRUE(list.findAndRetrieveIf(Local::isEven, item));
    EXPECT_EQ(item, 22);
    EXPECT_TRUE(list.findAndRetrieveIf(&Local::isEven, item));
    EXPECT_FALSE(list.findIf([](int) { return false; }, position));
    EXPECT_EQ(position, nullptr);

    ASSERT_EQ(list.startIterationFromHead(position), GCL_OK);
    const auto negative = [](int value) { return value < 0; };
    ASSERT_TRUE(list.findNextIf(negative, position));
    EXPECT_EQ(position, list.native().pHead);
    ASSERT_EQ(list.getNext(item, position), GCL_OK);
    ASSERT_TRUE(list.findNextIf(negative, position));
    EXPECT_EQ(position, list.native().pTail);
    EXPECT_FALSE(list.findNextIf([](int) { return false; }, position));
    EXPECT_EQ(position, list.native().pTail);
}

TEST(ListFindIf, AllocatesNothingHoweverMuchIsCaptured)
{
    const List<int> list = listOf({1, 2, 3});
    const std::array<int, 64> many = {3};
    int item = 0;
    const Count scalars(calls::newScalar);
    const Count arrays(calls::newArray);
    EXPECT_TRUE(list.findAndRetrieveIf([many](int value) { return value == many[0]; }, item));
    EXPECT_EQ(item, 3);
    EXPECT_EQ(scalars.calls() + arrays.calls(), 0u);
}

TEST(ListFindIf, LetsAnExceptionPass)
{
    const List<int> list = listOf({1});
    List<int>::Position position = nullptr;
    const auto throws = [](int) -> bool { throw std::runtime_error("from the predicate"); };
    EXPECT_THROW(list.findIf(throws, position), std::runtime_error);
    EXPECT_EQ(itemsOf(list), (Ints{1}));
}

TEST(ListPrintScalar, PrintsTheWords)
{
    const List<int> list = listOf({10, 255});
    testing::internal::CaptureStdout();
    EXPECT_GE(list.printScalar(false), 0);
    EXPECT_GE(list.printScalar(true), 0);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[0xA, 0xFF]\n[10, 255]\n");
    const Fault fault(calls::puts, {EOF, EIO});
    testing::internal::CaptureStdout();
    EXPECT_EQ(List<int>().printScalar(true), EOF);
    std::fflush(stdout);
    testing::internal::GetCapturedStdout();
}

TEST(ListAllocation, LetsTheFailurePassAndKeepsTheList)
{
    List<int> list = listOf({1, 2});
    const Fault fault(calls::newArray, {0, 0, 1, gcltest::Failure::kForGood});
    EXPECT_THROW(static_cast<void>(list.pushHead(3)), std::bad_alloc);
    EXPECT_THROW(static_cast<void>(list.pushTail(3)), std::bad_alloc);
    EXPECT_THROW(static_cast<void>(list.insertAt(1, 3)), std::bad_alloc);
    EXPECT_THROW(static_cast<void>(list.insertAfter(3, list.begin().position())), std::bad_alloc);
    EXPECT_EQ(list.currentSize(), 2u);
    EXPECT_EQ(*list.begin(), 1);
}

TEST(ListNative, IsTheListOfThePlainFunctions)
{
    List<int> list;
    ASSERT_EQ(CList_PushTail(&list.native(), static_cast<unsigned long>(-5)), GCL_OK);
    EXPECT_EQ(itemsOf(list), (Ints{-5})); // the higher bytes of the word do not matter
    const List<int>& constant = list;
    EXPECT_EQ(&constant.native(), &list.native());
}
