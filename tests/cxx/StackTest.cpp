#include "Framework/GCL/cxx/Stack.h"

#include <gtest/gtest.h>

#include <new>
#include <system_error>
#include <type_traits>
#include <vector>

#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"

using gcl::Stack;
using gcltest::Fault;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

TEST(StackProperties, MovesOnlyAndThrowsNothingInMoves)
{
    static_assert(!std::is_copy_constructible_v<Stack<int>>);
    static_assert(!std::is_copy_assignable_v<Stack<int>>);
    static_assert(std::is_nothrow_move_constructible_v<Stack<int>>);
    static_assert(std::is_nothrow_move_assignable_v<Stack<int>>);
    static_assert(!std::is_convertible_v<size_t, Stack<int>>);
    static_assert(sizeof(Stack<int>) == sizeof(CStack));
}

TEST(StackPush, KeepsEntriesUntilItIsFull)
{
    Stack<int> stack(2);
    int entry = 77;
    EXPECT_TRUE(stack.isEmpty());
    EXPECT_EQ(stack.push(-1), GCL_OK);
    EXPECT_EQ(stack.push(2), GCL_OK);
    EXPECT_EQ(stack.push(3), GCL_STACK_FULL);
    EXPECT_EQ(stack.getCurrentSize(), 2u);
    EXPECT_FALSE(stack.isEmpty());
    // Zeros stand above the value, whatever its sign.
    EXPECT_EQ(reinterpret_cast<uintptr_t>(stack.native().pEntries[0]), 0xFFFFFFFFu);
    EXPECT_EQ(stack.pop(entry), GCL_OK);
    EXPECT_EQ(entry, 2);
    EXPECT_EQ(stack.pop(entry), GCL_OK);
    EXPECT_EQ(entry, -1);
    EXPECT_EQ(stack.pop(entry), GCL_STACK_EMPTY);
    EXPECT_EQ(entry, -1);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(StackPush, KeepsPointersAndSmallStructures)
{
    int target = 0;
    Stack<int*> pointers(2);
    int* pointer = nullptr;
    ASSERT_EQ(pointers.push(&target), GCL_OK);
    EXPECT_EQ(pointers.native().pEntries[0], &target);
    ASSERT_EQ(pointers.push(nullptr), GCL_OK);
    EXPECT_EQ(pointers.pop(pointer), GCL_OK);
    EXPECT_EQ(pointer, nullptr);
    EXPECT_EQ(pointers.pop(pointer), GCL_OK);
    EXPECT_EQ(pointer, &target);

    struct Pair {
        uint16_t a;
        uint16_t b;
    };
    Stack<Pair> pairs(1);
    Pair pair{};
    ASSERT_EQ(pairs.push({1, 0xFFFF}), GCL_OK);
    ASSERT_EQ(pairs.pop(pair), GCL_OK);
    EXPECT_EQ(pair.a, 1);
    EXPECT_EQ(pair.b, 0xFFFF);
}

TEST(StackStatus, IsReturnedWhereItIsAFailure)
{
    Stack<int> stack(2);
    int entry = 77;
    stack.native().uiStatus = 0x8000;
    EXPECT_EQ(stack.push(1), GCL_FAILURE);
    EXPECT_EQ(stack.pop(entry), GCL_FAILURE);
    EXPECT_EQ(entry, 77);
    EXPECT_EQ(stack.getCurrentSize(), 0x8000u);
    EXPECT_TRUE(stack.isEmpty());
}

TEST(StackConstruct, MakesAnEmptyStackInPlaceOfTheFormer)
{
    Stack<int> stack;
    EXPECT_EQ(stack.push(1), GCL_STACK_FULL);
    ASSERT_EQ(stack.construct(1), GCL_OK);
    ASSERT_EQ(stack.push(1), GCL_OK);
    const gcltest::Frees frees;
    ASSERT_EQ(stack.construct(3), GCL_OK);
    EXPECT_EQ(frees.memory().size(), 1u);
    EXPECT_TRUE(stack.isEmpty());
    EXPECT_EQ(stack.native().uiCapacity, 3u);
    EXPECT_EQ(Stack<int>(0).push(1), GCL_STACK_FULL);
}

TEST(StackConstruct, RefusesWhatDoesNotFit)
{
    if constexpr (sizeof(size_t) > 4) {
        constexpr auto kOne = static_cast<size_t>((uint64_t{1} << 32) + 1);
        Stack<int> stack(1);
        ASSERT_EQ(stack.push(5), GCL_OK);
        EXPECT_EQ(stack.construct(kOne), GCL_INVALID_ARGUMENT);
        EXPECT_EQ(stack.getCurrentSize(), 1u);
        EXPECT_THROW(Stack<int>{kOne}, std::system_error);
    } else {
        GTEST_SKIP() << "every size_t fits here";
    }
}

TEST(StackConstruct, LetsAnAllocationFailurePass)
{
    Stack<int> stack(1);
    ASSERT_EQ(stack.push(5), GCL_OK);
    const Fault fault(calls::newArray, {0, 0, 1, 2});
    EXPECT_THROW(Stack<int>(4), std::bad_alloc);
    EXPECT_THROW(static_cast<void>(stack.construct(4)), std::bad_alloc);
    EXPECT_EQ(stack.push(5), GCL_STACK_FULL);
    EXPECT_TRUE(stack.isEmpty());
}

TEST(StackMove, HandsTheEntriesOnAndLeavesAnEmptyStack)
{
    Stack<int> from(2);
    ASSERT_EQ(from.push(5), GCL_OK);
    Stack<int> to(std::move(from));
    int entry = 0;
    // NOLINTBEGIN(bugprone-use-after-move): that is what the test is about
    EXPECT_TRUE(from.isEmpty());
    EXPECT_EQ(from.getCurrentSize(), 0u);
    EXPECT_EQ(from.push(1), GCL_STACK_FULL);
    EXPECT_EQ(from.pop(entry), GCL_STACK_EMPTY);
    from = Stack<int>(1);
    EXPECT_EQ(from.push(6), GCL_OK);
    from = std::move(to);
    EXPECT_EQ(from.pop(entry), GCL_OK);
    EXPECT_EQ(entry, 5);
    ASSERT_EQ(to.construct(1), GCL_OK);
    // NOLINTEND(bugprone-use-after-move)
    ASSERT_EQ(to.push(7), GCL_OK);
    Stack<int>& same = to;
    to = std::move(same);
    EXPECT_EQ(to.pop(entry), GCL_OK);
    EXPECT_EQ(entry, 7);
}

TEST(StackDestruct, LeavesAnEmptyStackWithRoomForNothing)
{
    Stack<int> stack(2);
    ASSERT_EQ(stack.push(5), GCL_OK);
    stack.destruct();
    EXPECT_TRUE(stack.isEmpty());
    EXPECT_EQ(stack.push(5), GCL_STACK_FULL);
    stack.destruct();
    const Stack<int>& constant = stack;
    EXPECT_EQ(&constant.native(), &stack.native());
}
