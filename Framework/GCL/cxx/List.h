// gcl::List: the owner of a CList whose items are values of one type.
//
// It destructs its list, can be moved and cannot be copied. Each operation is one call of the plain
// function of the same name, whose comment in CList.h is its manual; what differs stands here. All
// that CList.h says of threads, allocation failure and reports holds.
//
// T is any type that can be copied by its bytes and fits a machine word: a number, an enumeration,
// a pointer, a small structure (Word.h). The list never owns what an item points to.
//
// The operations whose sharp edges CList.h names keep them. A list that insertAt(0, ...) has closed
// into a ring must not be destructed, nor go out of scope, before the links are mended through
// native(), and walking it never ends.
//
// A moved-from list is empty and can be used.
#ifndef GCL_CXX_LIST_H
#define GCL_CXX_LIST_H

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/cxx/Error.h"
#include "Framework/GCL/cxx/Length.h"
#include "Framework/GCL/cxx/Word.h"

namespace gcl {

// A place in a list, as in the plain interface; valid until its node is removed.
using ListPosition = CListNode*;

// The iterator of gcl::List. It yields items by value, so that C++17's algorithms count it as an
// input iterator; a copy walks the same items again all the same, as C++20 has it. It is valid
// until its node is removed; items inserted behind it are met.
template <typename T>
class ListIterator {
    // What -> needs: an item that lives as long as the expression.
    class Holder {
    public:
        explicit Holder(T held) noexcept : item(held) {}
        const T* operator->() const noexcept { return std::addressof(item); }

    private:
        T item;
    };

public:
    using value_type = T;
    using reference = T;
    using pointer = Holder;
    using difference_type = std::ptrdiff_t;
    using iterator_category = std::input_iterator_tag;
#if __cplusplus >= 202002L
    using iterator_concept = std::forward_iterator_tag;
#endif

    ListIterator() noexcept = default;
    explicit ListIterator(ListPosition position) noexcept : node(position) {}

    T operator*() const noexcept
    {
        return detail::Word<T>::value(node->ulItem);
    }
    Holder operator->() const noexcept
    {
        return Holder(**this);
    }
    ListIterator& operator++() noexcept
    {
        node = node->pNext;
        return *this;
    }
    ListIterator operator++(int) noexcept
    {
        const ListIterator before = *this;
        node = node->pNext;
        return before;
    }

    // position is what insertAfter takes; NULL at the end.
    ListPosition position() const noexcept
    {
        return node;
    }

    friend bool operator==(ListIterator a, ListIterator b) noexcept
    {
        return a.node == b.node;
    }
    friend bool operator!=(ListIterator a, ListIterator b) noexcept
    {
        return a.node != b.node;
    }

private:
    ListPosition node = nullptr;
};

template <typename T>
class List {
    using Word = detail::Word<T>;

public:
    using Position = ListPosition;
    using Iterator = ListIterator<T>;
    using value_type = T;
    using iterator = Iterator;
    using const_iterator = Iterator;

    List() noexcept = default;
    ~List() { CList_Destruct(&list); }
    List(List&& other) noexcept : list(std::exchange(other.list, CList{})) {}
    List& operator=(List&& other) noexcept
    {
        List moved(std::move(other));
        std::swap(list, moved.list);
        return *this;
    }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    // native is the plain structure, for plain calls. The list goes on owning its nodes.
    CList& native() noexcept { return list; }
    const CList& native() const noexcept { return list; }

    // destruct frees every node; the list is then empty and can be used.
    void destruct() { CList_Destruct(&list); }

    bool isEmpty() const { return CList_IsEmpty(&list) != 0; }
    std::uint32_t currentSize() const { return CList_CurrentSize(&list); }

    // itemExists and remove compare bytes, so they refuse to compile for a T whose equal values may
    // differ in their bytes.
    bool itemExists(T item) const
    {
        static_assert(detail::equalByBytes<T>());
        return CList_ItemExists(&list, Word::of(item)) != 0;
    }
    Result remove(T item)
    {
        static_assert(detail::equalByBytes<T>());
        return Result(CList_Remove(&list, Word::of(item)));
    }

    Result pushHead(T item) { return Result(CList_PushHead(&list, Word::of(item))); }
    Result pushTail(T item) { return Result(CList_PushTail(&list, Word::of(item))); }

    // These store an item on success and leave `item` alone otherwise.
    Result popHead(T& item)
    {
        unsigned long word = 0;
        return stored(Result(CList_PopHead(&list, &word)), word, item);
    }
    Result getHead(T& item) const
    {
        unsigned long word = 0;
        return stored(Result(CList_GetHead(&list, &word)), word, item);
    }
    Result popTail(T& item)
    {
        unsigned long word = 0;
        return stored(Result(CList_PopTail(&list, &word)), word, item);
    }
    Result getTail(T& item) const
    {
        unsigned long word = 0;
        return stored(Result(CList_GetTail(&list, &word)), word, item);
    }

    Result startIterationFromHead(Position& position) const
    {
        return Result(CList_StartIterationFromHead(&list, &position));
    }
    Result insertAfter(T item, Position position)
    {
        return Result(CList_InsertAfter(&list, Word::of(item), position));
    }

    // getNext yields GCL_LAST_ITEM, a success, with the last item. Where it fails, `item` is filled
    // with zero bits.
    Result getNext(T& item, Position& position) const
    {
        unsigned long word = 0;
        const Result result(CList_GetNext(&list, &word, &position));
        Word::store(word, item);
        return result;
    }

    // An index of 2^32 or more gives GCL_INDEX_OUT_OF_RANGE.
    Result insertAt(std::size_t index, T item)
    {
        if (!detail::fits<std::uint32_t>(index)) {
            return GCL_INDEX_OUT_OF_RANGE;
        }
        return Result(CList_InsertAt(&list, static_cast<std::uint32_t>(index), Word::of(item)));
    }
    Result getAt(std::size_t index, T& item) const
    {
        if (!detail::fits<std::uint32_t>(index)) {
            return GCL_INDEX_OUT_OF_RANGE;
        }
        unsigned long word = 0;
        return stored(Result(CList_GetAt(&list, static_cast<std::uint32_t>(index), &word)), word,
                      item);
    }
    Result removeAt(std::size_t index)
    {
        if (!detail::fits<std::uint32_t>(index)) {
            return GCL_INDEX_OUT_OF_RANGE;
        }
        return Result(CList_RemoveAt(&list, static_cast<std::uint32_t>(index)));
    }

    // The searches with a matcher of the plain interface, which sees words: ulKey as it stands, and
    // items as Word.h says.
    bool find(unsigned long ulKey, const CListMatcher& matcher, Position& position) const
    {
        return CList_Find(&list, ulKey, &matcher, &position) != 0;
    }
    bool findNext(unsigned long ulKey, const CListMatcher& matcher, Position& position) const
    {
        return CList_FindNext(&list, ulKey, &matcher, &position) != 0;
    }
    bool findAndRetrieve(unsigned long ulKey, const CListMatcher& matcher, T& item) const
    {
        unsigned long word = 0;
        return stored(CList_FindAndRetrieve(&list, ulKey, &matcher, &word) != 0, word, item);
    }

    // The same with anything that can be called with a T and says whether it matches, a lambda with
    // captures for instance. It is called where it stands, neither copied nor allocated, and what
    // it throws passes through. findNextIf, too, looks at the node at the position first.
    template <typename Predicate>
    bool findIf(Predicate&& matches, Position& position) const
    {
        using Function = std::remove_reference_t<Predicate>;
        return find(addressOf(matches), kMatcher<Function>, position);
    }
    template <typename Predicate>
    bool findNextIf(Predicate&& matches, Position& position) const
    {
        using Function = std::remove_reference_t<Predicate>;
        return findNext(addressOf(matches), kMatcher<Function>, position);
    }
    template <typename Predicate>
    bool findAndRetrieveIf(Predicate&& matches, T& item) const
    {
        using Function = std::remove_reference_t<Predicate>;
        return findAndRetrieve(addressOf(matches), kMatcher<Function>, item);
    }

    // printScalar prints the items' words.
    int printScalar(bool decimal) const { return CList_PrintScalar(&list, decimal ? 1 : 0); }

    // A walk without calls, from the first node to the last one that can be reached.
    Iterator begin() const noexcept { return Iterator(list.pHead); }
    Iterator end() const noexcept { return Iterator(); }

private:
    // The word is taken by reference: it is written while the arguments are made.
    static Result stored(Result result, const unsigned long& word, T& item) noexcept
    {
        if (!result.failed()) {
            Word::store(word, item);
        }
        return result;
    }
    static bool stored(bool found, const unsigned long& word, T& item) noexcept
    {
        if (found) {
            Word::store(word, item);
        }
        return found;
    }

    // The key of a search is a word, and so is the address of the predicate.
    template <typename Function>
    static unsigned long addressOf(Function& matches) noexcept
    {
        return reinterpret_cast<unsigned long>(std::addressof(matches));
    }
    template <typename Function>
    static std::uint32_t match(unsigned long ulItem, unsigned long ulKey)
    {
        auto& matches = *reinterpret_cast<Function*>(ulKey);
        return matches(Word::value(ulItem)) ? 1 : 0;
    }
    template <typename Function>
    static constexpr CListMatcher kMatcher = {&List::match<Function>};

    CList list = {}; // as CList_Construct leaves it
};

} // namespace gcl

#endif // GCL_CXX_LIST_H
