// CHashTable: one-word values under text keys, kept in a structure that the caller owns.
//
// A value is an unsigned integer as wide as a pointer: a scalar, or a pointer cast to it. A key is
// a NUL-terminated text of any bytes, the empty text included. The table copies the keys that it
// stores and never owns what a value points to. It has a fixed number of buckets, chosen at
// construction, each a chain of pairs; the djb2 hash of the whole key selects the bucket. Chains
// grow with the load: there is no resizing.
//
// Keys of up to 255 characters are kept whole. Of a longer key the first 255 characters are kept,
// while all of it is hashed, and it is never found again by itself: each CHashTable_Set of it adds
// another pair, which only CHashTable_ToList and CHashTable_Destruct are certain to reach. Where
// the hashes of the long key and of its first 255 characters select the same bucket, though, that
// pair is found, overwritten and removed by the key of those 255 characters.
//
// A table made with 0 buckets can be counted, listed and destructed; CHashTable_Get,
// CHashTable_Exists, CHashTable_Set and CHashTable_Unset divide by zero on it and raise SIGFPE, on
// processors too that do not trap such a division. Where that signal does not end the process, they
// abort it (abort(3)).
//
// The table allocates and frees its bucket array and its pairs, one array-form operator new[] for
// each. Where an allocation fails, std::bad_alloc passes through the call, the table is as it was
// before it, and nothing leaks; a C caller on ARM must be compiled with -fexceptions for that.
//
// A copy of the structure shares the buckets and pairs with the original: only one of the two may
// be used and destructed from then on.
//
// A table takes no lock: threads that share one serialise their calls. Results are codes of
// ResultCodes.h unless stated otherwise; failures marked so are reported on GCL_trace. A failing
// call changes nothing but what its comment names. Where a comment does not mention a check for
// NULL, there is none, and a NULL pointer is the caller's error.
#ifndef GCL_CHASHTABLE_H
#define GCL_CHASHTABLE_H

#include <stdint.h>

#include "Framework/GCL/Api.h"
#include "Framework/GCL/CList.h"

GCL_C_BEGIN

// A pair; made and freed by the table only.
typedef struct CHashTablePair {
    char szKey[256];              // the first 255 characters of the key at most; zeros behind it
    unsigned long ulValue;        // the value
    struct CHashTablePair* pNext; // the next pair of the bucket, NULL at the end
} CHashTablePair;

// A bucket.
typedef struct CHashTableBucket {
    uint32_t uiCount;       // number of pairs in the chain
    CHashTablePair* pFirst; // the pair that was stored last, NULL if there is none; owned
} CHashTableBucket;

// A table. Construct it before any other use; the fields may be read, but are the table's to write.
typedef struct CHashTable {
    uint32_t uiBucketCount;     // number of buckets; 0 after Destruct
    uint32_t uiCount;           // number of pairs; see CHashTable_Unset and CHashTable_Destruct
    CHashTableBucket* pBuckets; // the buckets, uiBucketCount of them; owned; NULL after Destruct
} CHashTable;

// CHashTable_Construct makes pThis an empty table of uiBucketCount buckets. What the structure held
// before is forgotten, not freed. It returns nothing; its one failure is told by the trace only:
//   GCL_INVALID_HASH_TABLE  pThis is NULL; nothing was done (reported)
// Where the buckets cannot be allocated, pThis is a table of 0 buckets.
GCL_API void CHashTable_Construct(CHashTable* pThis, uint32_t uiBucketCount);

// CHashTable_Destruct frees every pair and the buckets. uiCount keeps its value, so that
// CHashTable_Count still tells how many pairs there were. The table must be constructed anew before
// it is used again. It returns nothing; its one failure is told by the trace only:
//   GCL_INVALID_HASH_TABLE  pThis is NULL (reported)
GCL_API void CHashTable_Destruct(CHashTable* pThis);

// CHashTable_Get stores the value under szKey in *pulValue, which must not be NULL where the key is
// present. Hashes the key and walks one chain; allocates nothing.
//   GCL_OK                  stored
//   GCL_INVALID_HASH_TABLE  pThis is NULL (reported)
//   GCL_INVALID_HASH_KEY    szKey is NULL (reported)
//   GCL_PAIR_NOT_FOUND      there is no such key; *pulValue is untouched (silent)
GCL_API uint32_t CHashTable_Get(const CHashTable* pThis, const char* szKey,
                                unsigned long* pulValue);

// CHashTable_Exists returns 1 if there is a value under szKey, else 0. Hashes the key and walks one
// chain; allocates nothing. With a NULL pThis or szKey it returns 0 and reports:
//   GCL_INVALID_HASH_TABLE  pThis is NULL (reported)
//   GCL_INVALID_HASH_KEY    szKey is NULL (reported)
GCL_API uint32_t CHashTable_Exists(const CHashTable* pThis, const char* szKey);

// CHashTable_Set stores ulValue under szKey: in place of the value that is there, or as a new pair
// in front of its bucket's chain. One allocation for a new pair.
//   GCL_OK                  stored
//   GCL_INVALID_HASH_TABLE  pThis is NULL (reported)
//   GCL_INVALID_HASH_KEY    szKey is NULL (reported)
GCL_API uint32_t CHashTable_Set(CHashTable* pThis, const char* szKey, unsigned long ulValue);

// CHashTable_Unset removes the pair under szKey and stores its value in *pulValue, which must not
// be NULL where the value is not 0. A value of 0 counts as an absent pair: the pair is removed all
// the same, but *pulValue is not written, the table's uiCount still counts the pair, and the result
// is GCL_PAIR_NOT_FOUND.
//   GCL_OK                  removed; its value was not 0
//   GCL_INVALID_HASH_TABLE  pThis is NULL (reported). A bucket that counts pairs but has none is
//                           reported with this code, too; GCL_PAIR_NOT_FOUND is then returned
//   GCL_INVALID_HASH_KEY    szKey is NULL (reported)
//   GCL_PAIR_NOT_FOUND      there is no such key, or its value was 0 (reported)
GCL_API uint32_t CHashTable_Unset(CHashTable* pThis, const char* szKey, unsigned long* pulValue);

// CHashTable_Count returns uiCount: the number of pairs, those included whose value was 0 when they
// were removed, and after CHashTable_Destruct the number from before. With a NULL pThis it returns
// 0 and reports:
//   GCL_INVALID_HASH_TABLE  pThis is NULL (reported)
GCL_API uint32_t CHashTable_Count(const CHashTable* pThis);

// CHashTable_ToList constructs *pList (what it held before is forgotten, not freed) and pushes
// every value at its head, from the first bucket to the last and within a bucket from the pair
// stored last to the one stored first, so that the values of the last bucket stand first. Of each
// bucket it takes as many values as the bucket counts, fewer if its chain is shorter. Keys are not
// listed. The caller destructs the list. Where an allocation fails, the list is empty.
//   GCL_OK                all values are in the list
//   GCL_INVALID_ARGUMENT  pThis or pList is NULL (silent)
GCL_API uint32_t CHashTable_ToList(const CHashTable* pThis, CList* pList);

GCL_C_END

#endif // GCL_CHASHTABLE_H
