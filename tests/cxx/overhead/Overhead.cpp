// The same small functions through the C++ layer (layer_*) and by hand (plain_*), in pairs, for
// check-overhead.sh to compare as the compiler leaves them. What is written by hand does what the
// layer promises: an output is written on success only, a length that does not fit is refused, and
// a move throws nothing.
#include <cstddef>
#include <cstdint>
#include <utility>

#include "Framework/GCL/cxx/FifoBuffer.h"
#include "Framework/GCL/cxx/HashTable.h"
#include "Framework/GCL/cxx/List.h"
#include "Framework/GCL/cxx/MemoryPool.h"
#include "Framework/GCL/cxx/Stack.h"
#include "Framework/GCL/cxx/TcpSocket.h"

#define LAYER(name) extern "C" [[gnu::noinline]] std::uint32_t layer_##name
#define PLAIN(name) extern "C" [[gnu::noinline]] std::uint32_t plain_##name

struct Sample {
    std::uint32_t number;
    double value;
};

// The word of a number of 32 bits.
static unsigned long wordOf(std::int32_t item)
{
    return static_cast<std::uint32_t>(item);
}

LAYER(ListPushTail)(gcl::List<std::int32_t>& list, std::int32_t item)
{
    return list.pushTail(item).code();
}
PLAIN(ListPushTail)(CList* list, std::int32_t item)
{
    return CList_PushTail(list, wordOf(item));
}

LAYER(ListPopHead)(gcl::List<std::int32_t>& list, std::int32_t& item)
{
    return list.popHead(item).code();
}
PLAIN(ListPopHead)(CList* list, std::int32_t* item)
{
    unsigned long word = 0;
    const std::uint32_t code = CList_PopHead(list, &word);
    if (!GCL_IS_FAILURE(code)) {
        *item = static_cast<std::int32_t>(word);
    }
    return code;
}

LAYER(ListGetAt)(gcl::List<const Sample*>& list, std::size_t index, const Sample*& item)
{
    return list.getAt(index, item).code();
}
PLAIN(ListGetAt)(CList* list, std::size_t index, const Sample** item)
{
#if SIZE_MAX > UINT32_MAX
    if (index > UINT32_MAX) {
        return GCL_INDEX_OUT_OF_RANGE;
    }
#endif
    unsigned long word = 0;
    const std::uint32_t code = CList_GetAt(list, static_cast<std::uint32_t>(index), &word);
    if (!GCL_IS_FAILURE(code)) {
        *item = reinterpret_cast<const Sample*>(word);
    }
    return code;
}

LAYER(ListWalk)(const gcl::List<std::uint32_t>& list)
{
    std::uint32_t sum = 0;
    for (const std::uint32_t item : list) {
        sum += item;
    }
    return sum;
}
PLAIN(ListWalk)(const CList* list)
{
    std::uint32_t sum = 0;
    for (const CListNode* node = list->pHead; node != nullptr; node = node->pNext) {
        sum += static_cast<std::uint32_t>(node->ulItem);
    }
    return sum;
}

LAYER(ListFindIf)(const gcl::List<const Sample*>& list, std::uint32_t number, const Sample*& found)
{
    const auto matches = [number](const Sample* sample) { return sample->number == number; };
    return list.findAndRetrieveIf(matches, found) ? 1 : 0;
}
static std::uint32_t matchNumber(unsigned long ulItem, unsigned long ulKey)
{
    const auto* const sample = reinterpret_cast<const Sample*>(ulItem);
    return sample->number == *reinterpret_cast<const std::uint32_t*>(ulKey) ? 1 : 0;
}
PLAIN(ListFindIf)(const CList* list, std::uint32_t number, const Sample** found)
{
    static constexpr CListMatcher kMatcher = {matchNumber};
    unsigned long word = 0;
    const bool isFound = CList_FindAndRetrieve(list, reinterpret_cast<unsigned long>(&number),
                                               &kMatcher, &word) != 0;
    if (isFound) {
        *found = reinterpret_cast<const Sample*>(word);
    }
    return isFound ? 1 : 0;
}

// From the making of a list to its end.
LAYER(ListLife)(std::int32_t item)
{
    gcl::List<std::int32_t> list;
    static_cast<void>(list.pushTail(item));
    static_cast<void>(list.pushHead(item));
    return list.currentSize();
}
PLAIN(ListLife)(std::int32_t item)
{
    struct Owned {
        ~Owned() { CList_Destruct(&list); }
        CList list = {};
    } owned;
    static_cast<void>(CList_PushTail(&owned.list, wordOf(item)));
    static_cast<void>(CList_PushHead(&owned.list, wordOf(item)));
    return CList_CurrentSize(&owned.list);
}

LAYER(ListMove)(gcl::List<std::int32_t>& to, gcl::List<std::int32_t>& from)
{
    to = std::move(from);
    return 0;
}
PLAIN(ListMove)(CList* to, CList* from) noexcept
{
    CList former = *from;
    *from = CList{};
    std::swap(*to, former);
    CList_Destruct(&former);
    return 0;
}

LAYER(HashTableSet)(gcl::HashTable<std::int32_t>& table, const char* key, std::int32_t value)
{
    return table.set(key, value).code();
}
PLAIN(HashTableSet)(CHashTable* table, const char* key, std::int32_t value)
{
    return CHashTable_Set(table, key, wordOf(value));
}

LAYER(HashTableGet)(const gcl::HashTable<std::int32_t>& table, const char* key, std::int32_t& value)
{
    return table.get(key, value).failed() ? 1 : 0;
}
PLAIN(HashTableGet)(const CHashTable* table, const char* key, std::int32_t* value)
{
    unsigned long word = 0;
    if (GCL_IS_FAILURE(CHashTable_Get(table, key, &word))) {
        return 1;
    }
    *value = static_cast<std::int32_t>(word);
    return 0;
}

LAYER(StackPush)(gcl::Stack<Sample*>& stack, Sample* entry)
{
    return stack.push(entry).code();
}
PLAIN(StackPush)(CStack* stack, Sample* entry)
{
    return CStack_Push(stack, entry);
}

LAYER(StackPop)(gcl::Stack<Sample*>& stack, Sample*& entry)
{
    return stack.pop(entry).code();
}
PLAIN(StackPop)(CStack* stack, Sample** entry)
{
    void* taken = nullptr;
    const std::uint32_t code = CStack_Pop(stack, &taken);
    if (!GCL_IS_FAILURE(code)) {
        *entry = static_cast<Sample*>(taken);
    }
    return code;
}

LAYER(MemoryPoolMalloc)(gcl::MemoryPool& pool, void*& block)
{
    return pool.malloc(sizeof(Sample), block).code();
}
PLAIN(MemoryPoolMalloc)(CMemoryPool* pool, void** block)
{
    return CMemoryPool_Malloc(pool, sizeof(Sample), block);
}

LAYER(MemoryPoolFree)(gcl::MemoryPool& pool, void* block)
{
    return pool.free(block).code();
}
PLAIN(MemoryPoolFree)(CMemoryPool* pool, void* block)
{
    return CMemoryPool_Free(pool, block);
}

LAYER(FifoBufferPut)(gcl::FifoBuffer<Sample>& fifo, const Sample& sample)
{
    return fifo.put(sample).code();
}
PLAIN(FifoBufferPut)(CFifoBuffer* fifo, const Sample* sample)
{
    return CFifoBuffer_Put(fifo, sample);
}

LAYER(FifoBufferGet)(gcl::FifoBuffer<Sample>& fifo, Sample& sample)
{
    return fifo.get(sample).failed() ? 1 : 0;
}
PLAIN(FifoBufferGet)(CFifoBuffer* fifo, Sample* sample)
{
    return GCL_IS_FAILURE(CFifoBuffer_Get(fifo, sample)) ? 1 : 0;
}

LAYER(TcpSocketWrite)(gcl::TcpSocket& socket, const Sample& sample)
{
    return socket.write(&sample, sizeof sample).code();
}
PLAIN(TcpSocketWrite)(CTcpSocket* socket, const Sample* sample)
{
    std::int32_t length = sizeof *sample;
    return CTcpSocket_Write(socket, sample, &length);
}

LAYER(TcpSocketRead)(gcl::TcpSocket& socket, void* buffer, std::size_t size, std::size_t& received)
{
    return socket.read(buffer, size, received).code();
}
PLAIN(TcpSocketRead)(CTcpSocket* socket, void* buffer, std::size_t size, std::size_t* received)
{
    *received = 0;
    if (size > INT32_MAX) {
        return GCL_INVALID_ARGUMENT;
    }
    auto length = static_cast<std::int32_t>(size);
    const std::uint32_t code = CTcpSocket_Read(socket, buffer, &length);
    *received = GCL_IS_FAILURE(code) ? 0 : static_cast<std::size_t>(length);
    return code;
}

#ifdef PLANTED
// Two differences that the comparison must find: a call more, and instructions more.
LAYER(PlantedCall)(gcl::List<std::int32_t>& list, std::int32_t item)
{
    static_cast<void>(list.isEmpty());
    return list.pushTail(item).code();
}
PLAIN(PlantedCall)(CList* list, std::int32_t item)
{
    return CList_PushTail(list, wordOf(item));
}
LAYER(PlantedWork)(gcl::List<std::int32_t>& list, std::int32_t item)
{
    volatile std::int32_t kept = item;
    for (std::int32_t i = 0; i < item; ++i) {
        kept = kept * 3;
        kept = kept + i;
    }
    return list.pushTail(kept).code();
}
PLAIN(PlantedWork)(CList* list, std::int32_t item)
{
    return CList_PushTail(list, wordOf(item));
}
#endif
