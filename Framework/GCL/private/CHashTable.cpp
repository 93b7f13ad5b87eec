#include "Framework/GCL/CHashTable.h"

#include <cstddef>
#include <cstring>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/private/DivideByZero.h"
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

// djb2, modulo 2^32, over the bytes read as unsigned ones. Four bytes at a time shorten the chain
// of dependent steps; nothing behind the terminating zero is read.
uint32_t hashOf(const char* key)
{
    constexpr uint32_t k33 = 33;
    const auto* next = reinterpret_cast<const unsigned char*>(key);
    uint32_t hash = 5381;
    for (; next[0] != 0 && next[1] != 0 && next[2] != 0 && next[3] != 0; next += 4) {
        hash = hash * (k33 * k33 * k33 * k33) + next[0] * (k33 * k33 * k33) +
               next[1] * (k33 * k33) + next[2] * k33 + next[3];
    }
    for (; *next != 0; ++next) {
        hash = hash * k33 + *next;
    }
    return hash;
}

CHashTableBucket& bucketOf(const CHashTable& table, const char* key)
{
    const uint32_t hash = hashOf(key);
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

bool hasKey(const CHashTablePair& pair, const char* key)
{
    return pair.szKey[0] == key[0] && std::strcmp(pair.szKey, key) == 0;
}

// The pair with the key, NULL if there is none. A bucket that counts none is not walked.
CHashTablePair* findPair(const CHashTableBucket& bucket, const char* key)
{
    CHashTablePair* pair = bucket.uiCount == 0 ? nullptr : bucket.pFirst;
    while (pair != nullptr && !hasKey(*pair, key)) {
        pair = pair->pNext;
    }
    return pair;
}

// Whether a bucket's first pair has the key. A bucket that counts pairs must have one: its absence
// is reported, under this function's own name.
bool CHashTable_PairHasKey(const CHashTablePair* pair, const char* key)
{
    if (pair == nullptr) {
        static_cast<void>(GCL_REPORT(GCL_INVALID_HASH_TABLE, "Invalid hash table"));
        return false;
    }
    return hasKey(*pair, key);
}

// Takes the pair with the key out of its bucket; NULL if there is none.
CHashTablePair* unlinkPair(CHashTableBucket& bucket, const char* key)
{
    if (bucket.uiCount == 0) {
        return nullptr;
    }
    CHashTablePair** link = &bucket.pFirst;
    for (bool found = CHashTable_PairHasKey(*link, key); !found; found = hasKey(**link, key)) {
        if (*link == nullptr || (*link)->pNext == nullptr) {
            return nullptr;
        }
        link = &(*link)->pNext;
    }
    CHashTablePair* const pair = *link;
    *link = pair->pNext;
    --bucket.uiCount;
    return pair;
}

CHashTablePair* newPair(const char* key, unsigned long value, CHashTablePair* next)
{
    auto* const pair = new CHashTablePair[1];
    // By contract: a longer key is cut, although all of it was hashed; by itself it is not found
    // again.
    std::strncpy(pair->szKey, key, sizeof pair->szKey);
    pair->szKey[sizeof pair->szKey - 1] = '\0';
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
    const CHashTablePair* const pair = findPair(bucketOf(*pThis, szKey), szKey);
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
    return findPair(bucketOf(*pThis, szKey), szKey) == nullptr ? 0 : 1;
}

uint32_t CHashTable_Set(CHashTable* pThis, const char* szKey, unsigned long ulValue)
{
    if (pThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_HASH_TABLE, "Invalid hash table");
    }
    if (szKey == nullptr) {
        return GCL_REPORT(GCL_INVALID_HASH_KEY, "Invalid hash key");
    }
    CHashTableBucket& bucket = bucketOf(*pThis, szKey);
    CHashTablePair* const pair = findPair(bucket, szKey);
    if (pair != nullptr) {
        pair->ulValue = ulValue;
        return GCL_OK;
    }
    bucket.pFirst = newPair(szKey, ulValue, bucket.pFirst);
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
    CHashTablePair* const pair = unlinkPair(bucketOf(*pThis, szKey), szKey);
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
