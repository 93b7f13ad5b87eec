#include "Framework/GCL/CHashTable.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/private/DivideByZero.h"
#include "Framework/GCL/private/Djb2.h"
#include "Framework/GCL/private/Report.h"

namespace {

static_assert(sizeof(unsigned long) == sizeof(void*), "a value holds a pointer");
static_assert(offsetof(CHashTablePair, szKey) == 0);
static_assert(offsetof(CHashTablePair, ulValue) == 256);
static_assert(offsetof(CHashTablePair, pNext) == 256 + sizeof(void*));
static_assert(sizeof(CHashTablePair) == 256 + 2 * sizeof(void*));
static_assert(offsetof(CHashTableBucket, uiCount) == 0);
static_assert(offsetof(CHashTableBucket, pFirst) == sizeof(void*));
static_assert(sizeof(CHashTableBucket) == 2 * sizeof(void*));
static_assert(offsetof(CHashTable, uiBucketCount) == 0);
static_assert(offsetof(CHashTable, uiCount) == 4);
static_assert(offsetof(CHashTable, pBuckets) == 8);
static_assert(sizeof(CHashTable) == 8 + sizeof(void*));

constexpr char kSource[] = "Framework/GCL/private/CHashTable";

// A key that was given. Its length is taken once, so that neither the hash nor the walk looks for
// its end again.
struct Key {
    explicit Key(const char* given) : text(given), size(std::strlen(given) + 1) {}

    const char* text;
    size_t size; // with the terminating zero
};

[[gnu::always_inline]] inline CHashTableBucket& bucketOf(const CHashTable& table, const Key& key)
{
    const uint32_t hash = gcl::djb2(key.text, key.size - 1);
    const uint32_t count = table.uiBucketCount;
    if ((count & (count - 1)) != 0) {
        return table.pBuckets[hash % count];
    }
    // A power of two needs no division, and zero allows none.
    if (count == 0) {
        gcl::divideByZero();
    }
    return table.pBuckets[hash & (count - 1)];
}

// What is done for each pair is forced inline: a call would cost as much as its work.

template <typename Block>
[[gnu::always_inline]] inline bool differ(const char* left, const char* right)
{
    Block one{};
    Block other{};
    std::memcpy(&one, left, sizeof one);
    std::memcpy(&other, right, sizeof other);
    return one != other;
}

#ifdef __SSE2__
template <>
[[gnu::always_inline]] inline bool differ<__m128i>(const char* left, const char* right)
{
    const __m128i one = _mm_loadu_si128(reinterpret_cast<const __m128i*>(left));
    const __m128i other = _mm_loadu_si128(reinterpret_cast<const __m128i*>(right));
    // gcov counts a second end of the comparison, which is one instruction and has no branch.
    const __m128i equal = _mm_cmpeq_epi8(one, other); // GCOVR_EXCL_BR_LINE
    return _mm_movemask_epi8(equal) != 0xFFFF;
}
#endif

// Whether a pair has the key, which has at least the size of a block. The last block is compared
// first: keys often begin alike, and the zero at the end settles the length.
template <typename Block>
[[gnu::always_inline]] inline bool hasKey(const CHashTablePair& pair, const Key& key)
{
    const size_t last = key.size - sizeof(Block);
    if (differ<Block>(pair.szKey + last, key.text + last)) {
        return false;
    }
    for (size_t at = 0; at < last; at += sizeof(Block)) {
        if (differ<Block>(pair.szKey + at, key.text + at)) {
            return false;
        }
    }
    return true;
}

// A pair, NULL if there is none, and the link that leads to it.
struct Place {
    CHashTablePair* pair;
    CHashTablePair** link;
};

template <typename Block>
[[gnu::always_inline]] inline Place findFrom(CHashTablePair** link, const Key& key)
{
    CHashTablePair* pair = *link;
    while (pair != nullptr && !hasKey<Block>(*pair, key)) {
        link = &pair->pNext;
        pair = *link;
    }
    return {pair, link};
}

// The pair with the key. A bucket that counts none is not walked.
[[gnu::always_inline]] inline Place find(CHashTableBucket& bucket, const Key& key)
{
    if (bucket.uiCount == 0 || key.size > sizeof(CHashTablePair::szKey)) {
        return {nullptr, nullptr}; // none so long is stored whole
    }
#ifdef __SSE2__
    if (key.size >= sizeof(__m128i)) {
        return findFrom<__m128i>(&bucket.pFirst, key);
    }
#endif
    if (key.size >= sizeof(uint64_t)) {
        return findFrom<uint64_t>(&bucket.pFirst, key);
    }
    if (key.size >= sizeof(uint32_t)) {
        return findFrom<uint32_t>(&bucket.pFirst, key);
    }
    return findFrom<unsigned char>(&bucket.pFirst, key);
}

// A bucket that counts pairs must have a first one: its absence is reported, under this function's
// own name.
void CHashTable_PairHasKey(const CHashTablePair* first)
{
    if (first == nullptr) {
        static_cast<void>(GCL_REPORT(GCL_INVALID_HASH_TABLE, "Invalid hash table"));
    }
}

// Takes the pair with the key out of its bucket; NULL if there is none.
CHashTablePair* unlinkPair(CHashTableBucket& bucket, const Key& key)
{
    if (bucket.uiCount != 0) {
        CHashTable_PairHasKey(bucket.pFirst);
    }
    const Place found = find(bucket, key);
    if (found.pair != nullptr) {
        *found.link = found.pair->pNext;
        --bucket.uiCount;
    }
    return found.pair;
}

// Bytes that are cleared at once: few enough for the compiler to write them without a call.
constexpr size_t kWord = sizeof(uintptr_t);
constexpr size_t kZeros = kWord * kWord;

CHashTablePair* newPair(const Key& key, unsigned long value, CHashTablePair* next)
{
    auto* const pair = new CHashTablePair[1];
    // By contract: a longer key is cut, although all of it was hashed; by itself it is not found
    // again. The bytes behind the key are zeros.
    const size_t length = std::min(key.size, sizeof pair->szKey) - 1;
    for (size_t at = length / kZeros * kZeros; at != sizeof pair->szKey; at += kZeros) {
        std::memset(pair->szKey + at, 0, kZeros);
    }
    std::memcpy(pair->szKey, key.text, length);
    pair->ulValue = value;
    pair->pNext = next;
    return pair;
}

} // namespace

void CHashTable_Construct(CHashTable* pThis, uint32_t uiBucketCount)
{
    if (pThis == nullptr) {
        static_cast<void>(GCL_REPORT(GCL_INVALID_HASH_TABLE, "Invalid hash table"));
        return;
    }
    // Without its buckets it stays a table of none, which can be destructed.
    *pThis = {0, 0, nullptr};
    pThis->pBuckets = new CHashTableBucket[uiBucketCount]();
    pThis->uiBucketCount = uiBucketCount;
}

void CHashTable_Destruct(CHashTable* pThis)
{
    if (pThis == nullptr) {
        static_cast<void>(GCL_REPORT(GCL_INVALID_HASH_TABLE, "Invalid hash table"));
        return;
    }
    for (uint32_t i = 0; i < pThis->uiBucketCount; ++i) {
        for (CHashTablePair* pair = pThis->pBuckets[i].pFirst; pair != nullptr;) {
            CHashTablePair* const next = pair->pNext;
            delete[] pair;
            pair = next;
        }
    }
    // By contract: uiCount stays and tells how many pairs there were.
    pThis->uiBucketCount = 0;
    delete[] pThis->pBuckets;
    pThis->pBuckets = nullptr;
}

uint32_t CHashTable_Get(const CHashTable* pThis, const char* szKey, unsigned long* pulValue)
{
    if (pThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_HASH_TABLE, "Invalid hash table");
    }
    if (szKey == nullptr) {
        return GCL_REPORT(GCL_INVALID_HASH_KEY, "Invalid hash key");
    }
    const Key key(szKey);
    const CHashTablePair* const pair = find(bucketOf(*pThis, key), key).pair;
    if (pair == nullptr) {
        return GCL_PAIR_NOT_FOUND;
    }
    *pulValue = pair->ulValue;
    return GCL_OK;
}

uint32_t CHashTable_Exists(const CHashTable* pThis, const char* szKey)
{
    if (pThis == nullptr) {
        static_cast<void>(GCL_REPORT(GCL_INVALID_HASH_TABLE, "Invalid hash table"));
        return 0;
    }
    if (szKey == nullptr) {
        static_cast<void>(GCL_REPORT(GCL_INVALID_HASH_KEY, "Invalid hash key"));
        return 0;
    }
    const Key key(szKey);
    return find(bucketOf(*pThis, key), key).pair == nullptr ? 0 : 1;
}

uint32_t CHashTable_Set(CHashTable* pThis, const char* szKey, unsigned long ulValue)
{
    if (pThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_HASH_TABLE, "Invalid hash table");
    }
    if (szKey == nullptr) {
        return GCL_REPORT(GCL_INVALID_HASH_KEY, "Invalid hash key");
    }
    const Key key(szKey);
    CHashTableBucket& bucket = bucketOf(*pThis, key);
    CHashTablePair* const pair = find(bucket, key).pair;
    if (pair != nullptr) {
        pair->ulValue = ulValue;
        return GCL_OK;
    }
    bucket.pFirst = newPair(key, ulValue, bucket.pFirst);
    ++bucket.uiCount;
    ++pThis->uiCount;
    return GCL_OK;
}

uint32_t CHashTable_Unset(CHashTable* pThis, const char* szKey, unsigned long* pulValue)
{
    if (pThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_HASH_TABLE, "Invalid hash table");
    }
    if (szKey == nullptr) {
        return GCL_REPORT(GCL_INVALID_HASH_KEY, "Invalid hash key");
    }
    const Key key(szKey);
    CHashTablePair* const pair = unlinkPair(bucketOf(*pThis, key), key);
    const unsigned long value = pair == nullptr ? 0 : pair->ulValue;
    delete[] pair;
    // By contract: a value of 0 counts as an absent pair. The pair is gone all the same, but the
    // table still counts it and the caller's variable is left alone.
    if (value == 0) {
        return GCL_REPORT(GCL_PAIR_NOT_FOUND, "Pair not found");
    }
    *pulValue = value;
    --pThis->uiCount;
    return GCL_OK;
}

uint32_t CHashTable_Count(const CHashTable* pThis)
{
    if (pThis == nullptr) {
        static_cast<void>(GCL_REPORT(GCL_INVALID_HASH_TABLE, "Invalid hash table"));
        return 0;
    }
    return pThis->uiCount;
}

uint32_t CHashTable_ToList(const CHashTable* pThis, CList* pList)
{
    if (pThis == nullptr || pList == nullptr) {
        return GCL_INVALID_ARGUMENT;
    }
    CList_Construct(pList);
    try {
        for (uint32_t i = 0; i < pThis->uiBucketCount; ++i) {
            const CHashTablePair* pair = pThis->pBuckets[i].pFirst;
            // By contract: the bucket's count says how many values are taken; a chain that is
            // shorter ends the bucket.
            for (uint32_t k = 0; k < pThis->pBuckets[i].uiCount && pair != nullptr; ++k) {
                // The list refuses nothing but a NULL list today, so that no call gets the code; a
                // refusal that comes with a later list must not go unnoticed, though.
                const uint32_t result = CList_PushHead(pList, pair->ulValue);
                // GCOVR_EXCL_START: never true today, see above
                if (static_cast<int32_t>(result) > 0x7FFF) {
                    return result;
                }
                // GCOVR_EXCL_STOP
                pair = pair->pNext;
            }
        }
    } catch (...) {
        CList_Destruct(pList); // the caller does not expect a list to free
        throw;
    }
    return GCL_OK;
}
