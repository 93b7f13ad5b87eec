// CList beside its floor, GLib's queue and std::list.
#include "Framework/GCL/CList.h"

#include <algorithm>
#include <glib.h>
#include <list>

#include "Framework/GCL/cxx/List.h"
#include "bench/floor/CListFloor.h"
#include "bench/support/Bench.h"

namespace {

// The lists behind one face.

class Ours {
public:
    Ours() { CList_Construct(&list); }
    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;
    ~Ours() { CList_Destruct(&list); }
    void pushHead(unsigned long item) { static_cast<void>(CList_PushHead(&list, item)); }
    void pushTail(unsigned long item) { static_cast<void>(CList_PushTail(&list, item)); }
    unsigned long popHead()
    {
        unsigned long item = 0;
        static_cast<void>(CList_PopHead(&list, &item));
        return item;
    }
    unsigned long sum()
    {
        unsigned long sum = 0;
        unsigned long item = 0;
        CListNode* position = nullptr;
        static_cast<void>(CList_StartIterationFromHead(&list, &position));
        for (uint32_t result = 0; result == 0;) {
            result = CList_GetNext(&list, &item, &position);
            sum += item;
        }
        return sum;
    }
    bool contains(unsigned long item) { return CList_ItemExists(&list, item) != 0; }
    bool find(unsigned long item)
    {
        static constexpr CListMatcher matcher = {
            [](unsigned long of, unsigned long key) { return of == key ? 1U : 0U; }};
        CListNode* position = nullptr;
        return CList_Find(&list, item, &matcher, &position) != 0;
    }
    void remove(unsigned long item) { static_cast<void>(CList_Remove(&list, item)); }

private:
    CList list;
};

// The C++ layer, by the calls that it shares with the plain interface.
class Cxx {
public:
    void pushHead(unsigned long item) { static_cast<void>(list.pushHead(item)); }
    void pushTail(unsigned long item) { static_cast<void>(list.pushTail(item)); }
    unsigned long popHead()
    {
        unsigned long item = 0;
        static_cast<void>(list.popHead(item));
        return item;
    }
    unsigned long sum()
    {
        unsigned long sum = 0;
        unsigned long item = 0;
        gcl::ListPosition position = nullptr;
        static_cast<void>(list.startIterationFromHead(position));
        for (uint32_t result = 0; result == 0;) {
            result = list.getNext(item, position).code();
            sum += item;
        }
        return sum;
    }
    bool contains(unsigned long item) { return list.itemExists(item); }
    bool find(unsigned long item)
    {
        gcl::ListPosition position = nullptr;
        return list.findIf([&](unsigned long of) { return of == item; }, position);
    }
    void remove(unsigned long item) { static_cast<void>(list.remove(item)); }

private:
    gcl::List<unsigned long> list;
};

class Floor {
public:
    Floor() = default;
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;
    ~Floor() { floorListDestruct(&list); }
    void pushHead(unsigned long item) { static_cast<void>(floorListPushHead(&list, item)); }
    void pushTail(unsigned long item) { static_cast<void>(floorListPushTail(&list, item)); }
    unsigned long popHead()
    {
        unsigned long item = 0;
        static_cast<void>(floorListPopHead(&list, &item));
        return item;
    }
    unsigned long sum()
    {
        unsigned long sum = 0;
        unsigned long item = 0;
        FloorNode* position = nullptr;
        static_cast<void>(floorListStart(&list, &position));
        for (uint32_t result = 0; result == 0;) {
            result = floorListNext(&list, &item, &position);
            sum += item;
        }
        return sum;
    }
    bool contains(unsigned long item) { return floorListItemExists(&list, item) != 0; }
    bool find(unsigned long item)
    {
        static constexpr FloorMatch matcher = [](unsigned long of, unsigned long key) {
            return of == key ? 1U : 0U;
        };
        FloorNode* position = nullptr;
        return floorListFind(&list, item, &matcher, &position) != 0;
    }
    void remove(unsigned long item) { static_cast<void>(floorListRemove(&list, item)); }

private:
    FloorList list = {nullptr, nullptr, 0};
};

class Glib {
public:
    Glib() = default;
    Glib(const Glib&) = delete;
    Glib& operator=(const Glib&) = delete;
    ~Glib() { g_queue_clear(&queue); }
    void pushHead(unsigned long item) { g_queue_push_head(&queue, GSIZE_TO_POINTER(item)); }
    void pushTail(unsigned long item) { g_queue_push_tail(&queue, GSIZE_TO_POINTER(item)); }
    unsigned long popHead() { return GPOINTER_TO_SIZE(g_queue_pop_head(&queue)); }
    unsigned long sum()
    {
        unsigned long sum = 0;
        for (const GList* link = queue.head; link != nullptr; link = link->next) {
            sum += GPOINTER_TO_SIZE(link->data);
        }
        return sum;
    }
    bool contains(unsigned long item)
    {
        return g_queue_find(&queue, GSIZE_TO_POINTER(item)) != nullptr;
    }
    bool find(unsigned long item)
    {
        return g_queue_find_custom(
                   &queue, GSIZE_TO_POINTER(item),
                   [](const void* of, const void* key) { return of == key ? 0 : 1; }) != nullptr;
    }
    void remove(unsigned long item) { g_queue_remove_all(&queue, GSIZE_TO_POINTER(item)); }

private:
    GQueue queue = G_QUEUE_INIT;
};

class Std {
public:
    void pushHead(unsigned long item) { list.push_front(item); }
    void pushTail(unsigned long item) { list.push_back(item); }
    unsigned long popHead()
    {
        const unsigned long item = list.front();
        list.pop_front();
        return item;
    }
    unsigned long sum()
    {
        unsigned long sum = 0;
        for (const unsigned long item : list) {
            sum += item;
            benchmark::DoNotOptimize(sum);
        }
        return sum;
    }
    bool contains(unsigned long item)
    {
        return std::find(list.begin(), list.end(), item) != list.end();
    }
    bool find(unsigned long item)
    {
        return std::find_if(list.begin(), list.end(),
                            [&](unsigned long of) { return of == item; }) != list.end();
    }
    void remove(unsigned long item) { list.remove(item); }

private:
    std::list<unsigned long> list;
};

template <typename List>
void fill(List& list, unsigned long length)
{
    for (unsigned long item = 1; item <= length; ++item) {
        list.pushTail(item);
    }
}

// Half an operation is a push, half of it a pop.
template <typename List>
void queue(benchmark::State& state, unsigned long length)
{
    List list;
    unsigned long wrong = 0;
    for (auto _ : state) {
        fill(list, length);
        for (unsigned long item = 1; item <= length; ++item) {
            wrong |= list.popHead() ^ item;
        }
    }
    bench::require(state, wrong == 0, "an item was lost");
    bench::setOperations(state, 2.0 * static_cast<double>(length));
}

template <typename List>
void stack(benchmark::State& state, unsigned long length)
{
    List list;
    unsigned long wrong = 0;
    for (auto _ : state) {
        for (unsigned long item = 1; item <= length; ++item) {
            list.pushHead(item);
        }
        for (unsigned long item = length; item >= 1; --item) {
            wrong |= list.popHead() ^ item;
        }
    }
    bench::require(state, wrong == 0, "an item was lost");
    bench::setOperations(state, 2.0 * static_cast<double>(length));
}

template <typename List>
void walk(benchmark::State& state, unsigned long length)
{
    List list;
    fill(list, length);
    bool right = true;
    for (auto _ : state) {
        right &= list.sum() == length * (length + 1) / 2;
    }
    bench::require(state, right, "an item was missed");
    bench::setOperations(state, static_cast<double>(length));
}

// The item is the last one, so that all nodes are looked at.
template <typename List>
void contains(benchmark::State& state, unsigned long length)
{
    List list;
    fill(list, length);
    bool found = true;
    for (auto _ : state) {
        unsigned long item = length;
        benchmark::DoNotOptimize(item);
        found &= list.contains(item);
    }
    bench::require(state, found, "the item was not found");
    bench::setOperations(state, 1);
}

template <typename List>
void find(benchmark::State& state, unsigned long length)
{
    List list;
    fill(list, length);
    bool found = true;
    for (auto _ : state) {
        unsigned long item = length;
        benchmark::DoNotOptimize(item);
        found &= list.find(item);
    }
    bench::require(state, found, "the item was not found");
    bench::setOperations(state, 1);
}

template <typename List>
void removeAbsent(benchmark::State& state, unsigned long length)
{
    List list;
    fill(list, length);
    for (auto _ : state) {
        list.remove(0);
    }
    bench::require(state, list.sum() == length * (length + 1) / 2, "an item was removed");
    bench::setOperations(state, 1);
}

// The item goes from the middle to the end; the next one takes its place.
template <typename List>
void removeOne(benchmark::State& state, unsigned long length)
{
    List list;
    fill(list, length);
    const unsigned long before = list.sum();
    // The first half stays; the others take turns.
    const unsigned long half = length / 2;
    unsigned long item = half;
    for (auto _ : state) {
        item = item == length ? half + 1 : item + 1;
        list.remove(item);
        list.pushTail(item);
    }
    bench::require(state, list.sum() == before, "an item was lost");
    bench::setOperations(state, 1);
}

// Which of the two other lists make calls as ours does, so that they are peers.
enum class Peers { Both, Glib, None };

using Measure = void (*)(benchmark::State&, unsigned long);

void add(const char* operation, bench::Targets targets, unsigned long length, Measure ours,
         Measure floor, Measure cxx, Measure glib, Measure std, Peers peers)
{
    const auto side = [length](Measure measure) {
        return [=](benchmark::State& state) { measure(state, length); };
    };
    bench::Case sides(operation, targets);
    sides.at("length", static_cast<double>(length)).ours(side(ours)).floor(side(floor));
    sides.shown("gcl::List", "the C++ layer, which calls the same functions", side(cxx));
    if (peers == Peers::None) {
        sides.shown("GQueue", "its caller follows the links", side(glib));
    } else {
        sides.peer("GQueue", side(glib));
    }
    if (peers == Peers::Both) {
        sides.peer("std::list (inlined)", side(std));
    } else {
        sides.shown("std::list (inlined)", "makes no call for a node", side(std));
    }
}

} // namespace

void bench::addCases()
{
    for (const unsigned long length : {1UL, 16UL, 256UL, 1024UL}) {
        add("CList_PushTail, CList_PopHead", {1.05, 1.0}, length, queue<Ours>, queue<Floor>,
            queue<Cxx>, queue<Glib>, queue<Std>, Peers::Both);
        add("CList_PushHead, CList_PopHead", {1.05, 1.0}, length, stack<Ours>, stack<Floor>,
            stack<Cxx>, stack<Glib>, stack<Std>, Peers::Both);
    }
    for (const unsigned long length : {4UL, 16UL, 64UL, 256UL, 1024UL}) {
        add("CList_GetNext", {1.0, 0}, length, walk<Ours>, walk<Floor>, walk<Cxx>, walk<Glib>,
            walk<Std>, Peers::None);
        add("CList_ItemExists", {1.05, 1.0}, length, contains<Ours>, contains<Floor>, contains<Cxx>,
            contains<Glib>, contains<Std>, Peers::Both);
        add("CList_Find", {1.05, 1.0}, length, find<Ours>, find<Floor>, find<Cxx>, find<Glib>,
            find<Std>, Peers::Glib);
        add("CList_Remove of an absent item", {1.05, 0}, length, removeAbsent<Ours>,
            removeAbsent<Floor>, removeAbsent<Cxx>, removeAbsent<Glib>, removeAbsent<Std>,
            Peers::Both);
        add("CList_Remove, CList_PushTail", {1.05, 0}, length, removeOne<Ours>, removeOne<Floor>,
            removeOne<Cxx>, removeOne<Glib>, removeOne<Std>, Peers::Both);
    }
}
