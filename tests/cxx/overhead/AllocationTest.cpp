// What the operations allocate and free, through the C++ layer and by hand.
#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Framework/GCL/TraceChannels.h"
#include "Framework/GCL/cxx/FifoBuffer.h"
#include "Framework/GCL/cxx/HashTable.h"
#include "Framework/GCL/cxx/List.h"
#include "Framework/GCL/cxx/MemoryPool.h"
#include "Framework/GCL/cxx/SigpipeGuard.h"
#include "Framework/GCL/cxx/Stack.h"
#include "Framework/GCL/cxx/TcpSocket.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/Loopback.h"

namespace calls = gcltest::calls;

namespace {

struct Tally {
    unsigned scalars;
    unsigned arrays;
    size_t freed;

    bool operator==(const Tally& other) const
    {
        return scalars == other.scalars && arrays == other.arrays && freed == other.freed;
    }
};

std::ostream& operator<<(std::ostream& out, const Tally& tally)
{
    return out << tally.scalars << " objects and " << tally.arrays << " arrays made, "
               << tally.freed << " arrays freed";
}

template <typename Work>
Tally tallyOf(Work&& work)
{
    const gcltest::Count scalars(calls::newScalar);
    const gcltest::Count arrays(calls::newArray);
    size_t freed = 0;
    const gcltest::Hook hook(calls::deleteArray, [&](void* memory) {
        freed += memory != nullptr ? 1 : 0;
        calls::deleteArray.real(memory);
    });
    work();
    return {scalars.calls(), arrays.calls(), freed};
}

void use(gcl::Result) {}

} // namespace

TEST(Allocation, OfAListIsThatOfThePlainOne)
{
    const Tally layer = tallyOf([] {
        gcl::List<int> list;
        int item = 0;
        use(list.pushTail(1));
        use(list.pushHead(2));
        use(list.insertAt(1, 3));
        use(list.popHead(item));
        for (const int other : list) {
            item += other;
        }
        EXPECT_TRUE(list.findAndRetrieveIf([](int value) { return value == 1; }, item));
        gcl::List<int> moved(std::move(list));
        use(moved.remove(1));
    });
    const Tally plain = tallyOf([] {
        CList list;
        unsigned long item = 0;
        CList_Construct(&list);
        CList_PushTail(&list, 1);
        CList_PushHead(&list, 2);
        CList_InsertAt(&list, 1, 3);
        CList_PopHead(&list, &item);
        CList_Remove(&list, 1);
        CList_Destruct(&list);
    });
    EXPECT_EQ(layer, plain);
    EXPECT_EQ(plain, (Tally{0, 3, 3}));
}

TEST(Allocation, OfAHashTableIsThatOfThePlainOne)
{
    const Tally layer = tallyOf([] {
        gcl::HashTable<int> table(4);
        int value = 0;
        use(table.set("a", 1));
        use(table.set("b", 2));
        use(table.get("a", value));
        use(table.unset("a", value));
        EXPECT_EQ(table.toList().currentSize(), 1u);
    });
    const Tally plain = tallyOf([] {
        CHashTable table;
        unsigned long value = 0;
        CHashTable_Construct(&table, 4);
        CHashTable_Set(&table, "a", 1);
        CHashTable_Set(&table, "b", 2);
        CHashTable_Get(&table, "a", &value);
        CHashTable_Unset(&table, "a", &value);
        CList list;
        CHashTable_ToList(&table, &list);
        CList_Destruct(&list);
        CHashTable_Destruct(&table);
    });
    EXPECT_EQ(layer, plain);
    EXPECT_EQ(plain, (Tally{0, 4, 4}));
}

TEST(Allocation, OfStackPoolAndFifoIsThatOfThePlainOnes)
{
    const Tally layer = tallyOf([] {
        gcl::Stack<int> stack(2);
        int entry = 0;
        use(stack.push(1));
        use(stack.pop(entry));
        gcl::MemoryPool pool(8, 2);
        void* block = nullptr;
        use(pool.malloc(8, block));
        use(pool.free(block));
        gcl::FifoBuffer<int> fifo(2, eTaskingModeSemaphore);
        use(fifo.put(1));
        use(fifo.getThroughSignals(entry));
    });
    const Tally plain = tallyOf([] {
        CStack stack;
        void* entry = nullptr;
        CStack_Construct(&stack, 2);
        CStack_Push(&stack, nullptr);
        CStack_Pop(&stack, &entry);
        CMemoryPool pool;
        CMemoryPool_Construct(&pool, 8, 2);
        CMemoryPool_Malloc(&pool, 8, &entry);
        CMemoryPool_Free(&pool, entry);
        CFifoBuffer fifo;
        int element = 0;
        CFifoBuffer_Construct(&fifo, sizeof element, 2, eTaskingModeSemaphore);
        CFifoBuffer_Put(&fifo, &element);
        CFifoBuffer_Get(&fifo, &element);
        CFifoBuffer_Destruct(&fifo);
        CMemoryPool_Destruct(&pool);
        CStack_Destruct(&stack);
    });
    EXPECT_EQ(layer, plain);
    EXPECT_EQ(plain, (Tally{0, 4, 4}));
}

TEST(Allocation, OfASocketIsThatOfThePlainOne)
{
    const gcltest::Listener listener;
    GCL_trace.threshold = 0; // the recorder of the reports allocates
    gcltest::OwnedFd peer;
    const Tally layer = tallyOf([&] {
        gcl::TcpSocket socket;
        use(socket.create("127.0.0.1", listener.port, 100));
        peer = listener.accepted();
        const gcl::SigpipeGuard guard;
        use(socket.write("x", 1));
        EXPECT_EQ(gcltest::receiveAll(peer.get(), 1).size(), 1u);
        peer.reset();
    });
    const Tally plain = tallyOf([&] {
        CTcpSocket* socket = nullptr;
        CTcpSocket_Create(&socket, "127.0.0.1", listener.port, 100);
        peer = listener.accepted();
        int32_t length = 1;
        CTcpSocket_Write(socket, "x", &length);
        EXPECT_EQ(gcltest::receiveAll(peer.get(), 1).size(), 1u);
        peer.reset();
        CTcpSocket_Destruct(socket);
        delete[] socket;
    });
    EXPECT_EQ(layer, plain);
    EXPECT_EQ(plain, (Tally{0, 1, 1}));
}

TEST(Allocation, OfAResultIsNone)
{
    EXPECT_EQ(tallyOf([] {
                  const std::error_code error = gcl::Result(GCL_STACK_FULL);
                  EXPECT_EQ(error == gcl::Severity::Error, true);
              }),
              (Tally{0, 0, 0}));
}
