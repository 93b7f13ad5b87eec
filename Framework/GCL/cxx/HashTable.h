// gcl::HashTable: the owner of a CHashTable whose values are of one type.
//
// It destructs its table, can be moved and cannot be copied. Each operation but construct is one
// call of the plain function of the same name, whose comment in CHashTable.h is its manual; what
// differs stands here. All that CHashTable.h says of keys, threads, allocation failure and reports
// holds.
//
// T is any type that can be copied by its bytes and fits a machine word (Word.h). The table never
// owns what a value points to.
//
// A table that was built without a count of buckets, destructed or moved from has none: it can be
// counted, listed, constructed and assigned to; get, exists, set and unset raise SIGFPE on it.
#ifndef GCL_CXX_HASHTABLE_H
#define GCL_CXX_HASHTABLE_H

#include <cstddef>
#include <cstdint>
#include <utility>

#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/cxx/Error.h"
#include "Framework/GCL/cxx/Length.h"
#include "Framework/GCL/cxx/List.h"
#include "Framework/GCL/cxx/Word.h"

namespace gcl {

template <typename T>
class HashTable {
    using Word = detail::Word<T>;

public:
    HashTable() noexcept = default;

    // As construct, but a failure is thrown as a std::system_error.
    explicit HashTable(std::size_t bucketCount) : HashTable()
    {
        throwIfFailed(construct(bucketCount));
    }
    ~HashTable() { CHashTable_Destruct(&table); }
    HashTable(HashTable&& other) noexcept : table(std::exchange(other.table, CHashTable{})) {}
    HashTable& operator=(HashTable&& other) noexcept
    {
        HashTable moved(std::move(other));
        std::swap(table, moved.table);
        return *this;
    }
    HashTable(const HashTable&) = delete;
    HashTable& operator=(const HashTable&) = delete;

    // native is the plain structure, for plain calls. The table goes on owning its pairs.
    CHashTable& native() noexcept { return table; }
    const CHashTable& native() const noexcept { return table; }

    // construct frees what the table held and makes it an empty one of bucketCount buckets.
    //   GCL_OK                constructed
    //   GCL_INVALID_ARGUMENT  bucketCount is 0 or 2^32 or more; the table is as it was (silent)
    Result construct(std::size_t bucketCount)
    {
        if (bucketCount == 0 || !detail::fits<std::uint32_t>(bucketCount)) {
            return GCL_INVALID_ARGUMENT;
        }
        CHashTable_Destruct(&table);
        CHashTable_Construct(&table, static_cast<std::uint32_t>(bucketCount));
        return GCL_OK;
    }

    void destruct() { CHashTable_Destruct(&table); }

    // get and unset store a value on success and leave `value` alone otherwise.
    Result get(const char* key, T& value) const
    {
        unsigned long word = 0;
        return stored(Result(CHashTable_Get(&table, key, &word)), word, value);
    }
    Result unset(const char* key, T& value)
    {
        unsigned long word = 0;
        return stored(Result(CHashTable_Unset(&table, key, &word)), word, value);
    }

    bool exists(const char* key) const { return CHashTable_Exists(&table, key) != 0; }
    Result set(const char* key, T value)
    {
        return Result(CHashTable_Set(&table, key, Word::of(value)));
    }
    std::uint32_t count() const { return CHashTable_Count(&table); }

    // toList returns the values, in the plain function's order, as a list of their own:
    // `for (const T value : table.toList())`.
    List<T> toList() const
    {
        List<T> values;
        // It fails for NULL arguments only.
        static_cast<void>(CHashTable_ToList(&table, &values.native()));
        return values;
    }

private:
    // The word is taken by reference: it is written while the arguments are made.
    static Result stored(Result result, const unsigned long& word, T& value) noexcept
    {
        if (!result.failed()) {
            Word::store(word, value);
        }
        return result;
    }

    CHashTable table = {}; // no buckets
};

} // namespace gcl

#endif // GCL_CXX_HASHTABLE_H
