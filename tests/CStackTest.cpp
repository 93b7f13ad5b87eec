#include "Framework/GCL/CStack.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"

using gcltest::Count;
using gcltest::Failure;
using gcltest::Fault;
using gcltest::Hook;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

// A stack that ends with the test, which must have been silent.
class OwnedStack {
public:
    explicit OwnedStack(uint32_t capacity) { CStack_Construct(&stack, capacity); }
    ~OwnedStack()
    {
        CStack_Destruct(&stack);
        EXPECT_EQ(takeReports(), std::vector<Report>{});
    }
    OwnedStack(const OwnedStack&) = delete;
    OwnedStack& operator=(const OwnedStack&) = delete;
    CStack* operator&() { return &stack; }
    CStack* operator->() { return &stack; }
    CStack stack;
};

// Entries are told apart by the places of this array.
char places[8];

} // namespace

TEST(CStackLayout, HasTheFieldsInOrder)
{
    EXPECT_EQ(offsetof(CStack, pEntries), 0u);
    EXPECT_EQ(offsetof(CStack, iTop), sizeof(void*));
    EXPECT_EQ(offsetof(CStack, uiCapacity), sizeof(void*) + 4);
    EXPECT_EQ(offsetof(CStack, uiStatus), sizeof(void*) + 8);
    EXPECT_EQ(sizeof(CStack), sizeof(void*) == 8 ? 24u : 16u);
}

TEST(CStackConstruct, MakesAnEmptyStackWithOneArray)
{
    CStack stack;
    stack.pEntries = reinterpret_cast<void**>(places);
    stack.iTop = 77;
    stack.uiCapacity = 78;
    stack.uiStatus = 0x9000;
    std::vector<size_t> sizes;
    {
        const Hook hook(calls::newArray, [&sizes](size_t size) {
            sizes.push_back(size);
            return calls::newArray.real(size);
        });
        CStack_Construct(&stack, 5);
    }
    EXPECT_EQ(sizes, std::vector<size_t>{5 * sizeof(void*)});
    EXPECT_NE(stack.pEntries, nullptr);
    EXPECT_NE(stack.pEntries, reinterpret_cast<void**>(places));
    EXPECT_EQ(stack.iTop, -1);
    EXPECT_EQ(stack.uiCapacity, 5u);
    EXPECT_EQ(stack.uiStatus, 0u);
    EXPECT_EQ(CStack_IsEmpty(&stack), 1u);
    EXPECT_EQ(CStack_GetCurrentSize(&stack), 0u);
    CStack_Destruct(&stack);
}

TEST(CStackConstruct, PassesAnAllocationFailureOnAndLeavesAnEmptyStack)
{
    CStack stack;
    stack.pEntries = reinterpret_cast<void**>(places);
    stack.iTop = 77;
    stack.uiCapacity = 78;
    stack.uiStatus = 0x9000;
    {
        const Fault fault(calls::newArray, {0, 0, 1, Failure::kForGood});
        EXPECT_THROW(CStack_Construct(&stack, 3), std::bad_alloc);
        EXPECT_EQ(fault.failures(), 1u);
    }
    EXPECT_EQ(CStack_IsEmpty(&stack), 1u);
    EXPECT_EQ(CStack_Push(&stack, places), 0x8002u);
    void* entry = places;
    EXPECT_EQ(CStack_Pop(&stack, &entry), 0x8003u);
    CStack_Destruct(&stack);
    EXPECT_EQ(stack.pEntries, nullptr);
}

TEST(CStackConstruct, RefusesAnArrayThatNo32BitProcessorHolds)
{
    if (sizeof(size_t) > 4) {
        GTEST_SKIP() << "such an array fits into 64 bits";
    }
    for (const uint32_t capacity : {0x20000000u, 0x40000001u, 0x80000001u, 0xFFFFFFFFu}) {
        CStack stack;
        EXPECT_THROW(CStack_Construct(&stack, capacity), std::bad_alloc);
        EXPECT_EQ(stack.pEntries, nullptr);
        EXPECT_EQ(stack.uiCapacity, 0u);
    }
}

TEST(CStackDestruct, FreesTheEntriesAndKeepsTheOtherFields)
{
    CStack stack;
    CStack_Construct(&stack, 4);
    ASSERT_EQ(CStack_Push(&stack, places), GCL_OK);
    ASSERT_EQ(CStack_Push(&stack, places), GCL_OK);
    stack.uiStatus = 0x8001;
    const void* const entries = stack.pEntries;
    {
        const gcltest::Frees frees;
        CStack_Destruct(&stack);
        EXPECT_EQ(frees.memory(), std::vector<const void*>{entries});
    }
    EXPECT_EQ(stack.pEntries, nullptr);
    EXPECT_EQ(stack.iTop, 1);
    EXPECT_EQ(stack.uiCapacity, 4u);
    EXPECT_EQ(stack.uiStatus, 0x8001u);
    CStack_Destruct(&stack); // a second time finds nothing to free
    EXPECT_EQ(stack.pEntries, nullptr);
    CStack_Construct(&stack, 1);
    EXPECT_EQ(CStack_Push(&stack, places), GCL_OK);
    CStack_Destruct(&stack);
}

TEST(CStackPush, RefusesTheEntryThatDoesNotFit)
{
    OwnedStack stack(3);
    for (uint32_t held = 0; held < 3; ++held) {
        EXPECT_EQ(CStack_GetCurrentSize(&stack), held);
        EXPECT_EQ(CStack_Push(&stack, places + held), GCL_OK);
        EXPECT_EQ(stack->iTop, static_cast<int32_t>(held));
        EXPECT_EQ(stack->pEntries[held], places + held);
        EXPECT_EQ(CStack_IsEmpty(&stack), 0u);
    }
    EXPECT_EQ(CStack_Push(&stack, places + 3), 0x8002u);
    EXPECT_EQ(stack->iTop, 2);
    EXPECT_EQ(stack->pEntries[2], places + 2);
    EXPECT_EQ(CStack_GetCurrentSize(&stack), 3u);
}

TEST(CStackPop, HandsTheEntriesOutInReverse)
{
    OwnedStack stack(3);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(CStack_Push(&stack, places + i), GCL_OK);
    }
    void* entry = nullptr;
    for (int i = 2; i >= 0; --i) {
        EXPECT_EQ(CStack_Pop(&stack, &entry), GCL_OK);
        EXPECT_EQ(entry, places + i);
        EXPECT_EQ(stack->iTop, i - 1);
    }
    entry = places + 7;
    EXPECT_EQ(CStack_Pop(&stack, &entry), 0x8003u);
    EXPECT_EQ(entry, places + 7);
    EXPECT_EQ(stack->iTop, -1);
    EXPECT_EQ(CStack_IsEmpty(&stack), 1u);
}

TEST(CStackPop, HasNoUseForThePlaceWhereThereIsNothingToStore)
{
    OwnedStack stack(1);
    EXPECT_EQ(CStack_Pop(&stack, nullptr), 0x8003u);
    ASSERT_EQ(CStack_Push(&stack, places), GCL_OK);
    stack->uiStatus = 0x9000;
    EXPECT_EQ(CStack_Pop(&stack, nullptr), 0x9000u);
    EXPECT_EQ(stack->iTop, 0);
}

TEST(CStackPush, StoresNullLikeAnyOtherValue)
{
    OwnedStack stack(1);
    EXPECT_EQ(CStack_Push(&stack, nullptr), GCL_OK);
    void* entry = places;
    EXPECT_EQ(CStack_Pop(&stack, &entry), GCL_OK);
    EXPECT_EQ(entry, nullptr);
}

TEST(CStackCapacity, ZeroIsFullAndEmptyAtOnce)
{
    OwnedStack stack(0);
    EXPECT_EQ(CStack_Push(&stack, places), 0x8002u);
    EXPECT_EQ(stack->iTop, -1);
    EXPECT_EQ(CStack_IsEmpty(&stack), 1u);
    EXPECT_EQ(CStack_GetCurrentSize(&stack), 0u);
    void* entry = places;
    EXPECT_EQ(CStack_Pop(&stack, &entry), 0x8003u);
    EXPECT_EQ(entry, places);
}

TEST(CStackCapacity, IsComparedAsASignedNumber)
{
    void* entries[2] = {};
    CStack stack{entries, -1, 0x80000001u, 0};
    EXPECT_EQ(CStack_Push(&stack, places), 0x8002u) << "the last index is the least number";
    stack.uiCapacity = 0xFFFFFFFFu;
    EXPECT_EQ(CStack_Push(&stack, places), 0x8002u) << "the last index is -2";
    stack.uiCapacity = 0x80000000u;
    EXPECT_EQ(CStack_Push(&stack, places), GCL_OK) << "the last index is the greatest number";
    EXPECT_EQ(entries[0], places);
}

TEST(CStackSize, FollowsTheTopField)
{
    CStack stack{nullptr, -1, 0, 0};
    EXPECT_EQ(CStack_GetCurrentSize(&stack), 0u);
    EXPECT_EQ(CStack_IsEmpty(&stack), 1u);
    stack.iTop = INT32_MIN;
    EXPECT_EQ(CStack_IsEmpty(&stack), 1u);
    EXPECT_EQ(CStack_GetCurrentSize(&stack), 0x80000001u);
    stack.iTop = 0;
    EXPECT_EQ(CStack_IsEmpty(&stack), 0u);
    EXPECT_EQ(CStack_GetCurrentSize(&stack), 1u);
    stack.iTop = INT32_MAX;
    EXPECT_EQ(CStack_IsEmpty(&stack), 0u);
    EXPECT_EQ(CStack_GetCurrentSize(&stack), 0x80000000u);
}

TEST(CStackStatus, IsReturnedByEveryOperationOnceItIsAFailure)
{
    for (const uint32_t status : {0x8000u, 0x8001u, 0xFFFFu, 0x7FFFFFFFu}) {
        OwnedStack stack(2);
        ASSERT_EQ(CStack_Push(&stack, places), GCL_OK);
        stack->uiStatus = status;
        void* entry = places + 7;
        EXPECT_EQ(CStack_Push(&stack, places + 1), status);
        EXPECT_EQ(CStack_Pop(&stack, &entry), status);
        EXPECT_EQ(CStack_IsEmpty(&stack), status);
        EXPECT_EQ(CStack_GetCurrentSize(&stack), status);
        EXPECT_EQ(entry, places + 7);
        EXPECT_EQ(stack->iTop, 0);
        EXPECT_EQ(stack->uiStatus, status);
    }
}

TEST(CStackStatus, StopsNothingBelowAFailureOrWhenItIsNegative)
{
    for (const uint32_t status : {0u, 1u, 0x7FFFu, 0x80000000u, 0xFFFF8000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(status);
        OwnedStack stack(1);
        stack->uiStatus = status;
        void* entry = nullptr;
        EXPECT_EQ(CStack_IsEmpty(&stack), 1u);
        EXPECT_EQ(CStack_Push(&stack, places), GCL_OK);
        EXPECT_EQ(CStack_GetCurrentSize(&stack), 1u);
        EXPECT_EQ(CStack_Push(&stack, places), 0x8002u);
        EXPECT_EQ(CStack_Pop(&stack, &entry), GCL_OK);
        EXPECT_EQ(entry, places);
        EXPECT_EQ(CStack_Pop(&stack, &entry), 0x8003u);
        EXPECT_EQ(stack->uiStatus, status);
    }
}

TEST(CStackAllocation, HappensInConstructOnly)
{
    OwnedStack stack(4);
    const Count arrays(calls::newArray);
    const Count scalars(calls::newScalar);
    void* entry = nullptr;
    for (int i = 0; i < 6; ++i) {
        CStack_Push(&stack, places + i);
    }
    CStack_IsEmpty(&stack);
    CStack_GetCurrentSize(&stack);
    for (int i = 0; i < 6; ++i) {
        CStack_Pop(&stack, &entry);
    }
    CStack_Destruct(&stack);
    EXPECT_EQ(arrays.calls(), 0u);
    EXPECT_EQ(scalars.calls(), 0u);
}

TEST(CStackModel, AgreesWithAVectorOverRandomOperations)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (uint32_t capacity = 0; capacity < 8; ++capacity) {
        OwnedStack stack(capacity);
        std::vector<void*> model;
        for (int step = 0; step < 2000 && !HasFailure(); ++step) {
            void* const entry = random() % 8 == 0 ? nullptr : places + random() % 8;
            void* out = &stack;
            // Longer runs of one kind, so that both ends are met.
            if ((random() & (step / 32 % 2 == 0 ? 3u : 1u)) != 0) {
                const bool full = model.size() == capacity;
                EXPECT_EQ(CStack_Push(&stack, entry), full ? GCL_STACK_FULL : GCL_OK);
                if (!full) {
                    model.push_back(entry);
                }
            } else if (model.empty()) {
                EXPECT_EQ(CStack_Pop(&stack, &out), GCL_STACK_EMPTY);
                EXPECT_EQ(out, &stack);
            } else {
                EXPECT_EQ(CStack_Pop(&stack, &out), GCL_OK);
                EXPECT_EQ(out, model.back());
                model.pop_back();
            }
            EXPECT_EQ(CStack_GetCurrentSize(&stack), model.size());
            EXPECT_EQ(CStack_IsEmpty(&stack), model.empty() ? 1u : 0u);
        }
    }
}
