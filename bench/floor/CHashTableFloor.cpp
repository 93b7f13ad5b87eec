#include "bench/floor/CHashTableFloor.h"

#include <cstddef>
#include <cstring>

#include "Framework/GCL/private/Djb2.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#define FLOOR_INLINE [[gnu::always_inline]] inline

namespace {

constexpr uint32_t kInvalidTable = 0x8010;
constexpr uint32_t kInvalidKey = 0x8011;
constexpr uint32_t kNotFound = 0x8013;

// Out of line: the operations would otherwise save more registers than they need for a short key.
[[gnu::noinline]] uint32_t hashOf(const char* key, size_t length)
{
    return gcl::djb2(key, length);
}

FLOOR_INLINE uint32_t indexOf(uint32_t hash, uint32_t count)
{
    return (count & (count - 1)) == 0 ? hash & (count - 1) : hash % count;
}

template <typename Same>
FLOOR_INLINE FloorPair* walk(FloorPair* pair, const Same& same)
{
    while (pair != nullptr && !same(pair->key)) {
        pair = pair->next;
    }
    return pair;
}

#ifdef __SSE2__
FLOOR_INLINE bool sameVector(const char* left, const char* right)
{
    const __m128i equal = _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(left)),
                                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(right)));
    return _mm_movemask_epi8(equal) == 0xFFFF;
}
#endif

// The first pair from `pair` on whose key is the one of `size` bytes, its zero included. The last
// bytes come first: texts with a beginning in common are frequent. The kind of comparison is chosen
// once for all pairs.
FLOOR_INLINE FloorPair* find(FloorPair* first, const char* key, size_t size)
{
#ifdef __SSE2__
    if (size >= 16) {
        const size_t last = size - 16;
        return walk(first, [=](const char* stored) {
            if (!sameVector(stored + last, key + last)) {
                return false;
            }
            for (size_t at = 0; at < last; at += 16) {
                if (!sameVector(stored + at, key + at)) {
                    return false;
                }
            }
            return true;
        });
    }
#endif
    if (size >= sizeof(uintptr_t)) {
        const size_t last = size - sizeof(uintptr_t);
        const auto end = gcl::loadWord<uintptr_t>(key + last);
        return walk(first, [=](const char* stored) {
            return gcl::loadWord<uintptr_t>(stored + last) == end &&
                   std::memcmp(stored, key, last) == 0;
        });
    }
    return walk(first, [=](const char* stored) {
        for (size_t at = 0; at < size; ++at) {
            if (stored[at] != key[at]) {
                return false;
            }
        }
        return true;
    });
}

} // namespace

void floorTableConstruct(FloorTable* table, uint32_t bucketCount)
{
    *table = {bucketCount, 0, new FloorBucket[bucketCount]()};
}

void floorTableDestruct(FloorTable* table)
{
    for (uint32_t i = 0; i < table->bucketCount; ++i) {
        for (FloorPair* pair = table->buckets[i].first; pair != nullptr;) {
            FloorPair* const next = pair->next;
            delete[] pair;
            pair = next;
        }
    }
    delete[] table->buckets;
    *table = {0, table->count, nullptr};
}

uint32_t floorTableGet(const FloorTable* table, const char* key, unsigned long* value)
{
    if (__builtin_expect(table == nullptr, 0)) {
        return kInvalidTable;
    }
    if (__builtin_expect(key == nullptr, 0)) {
        return kInvalidKey;
    }
    const size_t length = std::strlen(key);
    const FloorBucket& bucket = table->buckets[indexOf(hashOf(key, length), table->bucketCount)];
    if (bucket.count == 0 || length > 255) {
        return kNotFound;
    }
    const FloorPair* const pair = find(bucket.first, key, length + 1);
    if (pair == nullptr) {
        return kNotFound;
    }
    *value = pair->value;
    return 0;
}

uint32_t floorTableGetByBytes(const FloorTable* table, const char* key, unsigned long* value)
{
    uint32_t hash = 5381;
    for (const char* next = key; *next != 0; ++next) {
        hash = hash * 33 + static_cast<unsigned char>(*next);
    }
    const FloorBucket& bucket = table->buckets[indexOf(hash, table->bucketCount)];
    for (const FloorPair* pair = bucket.first; pair != nullptr; pair = pair->next) {
        if (std::strcmp(pair->key, key) == 0) {
            *value = pair->value;
            return 0;
        }
    }
    return kNotFound;
}

uint32_t floorTableSet(FloorTable* table, const char* key, unsigned long value)
{
    if (__builtin_expect(table == nullptr, 0)) {
        return kInvalidTable;
    }
    if (__builtin_expect(key == nullptr, 0)) {
        return kInvalidKey;
    }
    size_t length = std::strlen(key);
    FloorBucket& bucket = table->buckets[indexOf(hashOf(key, length), table->bucketCount)];
    if (bucket.count != 0 && length <= 255) {
        FloorPair* const pair = find(bucket.first, key, length + 1);
        if (pair != nullptr) {
            pair->value = value;
            return 0;
        }
    }
    auto* const pair = new FloorPair[1];
    if (length > 255) {
        length = 255;
    }
    for (size_t at = length / 16 * 16; at != sizeof pair->key; at += 16) {
        std::memset(pair->key + at, 0, 16);
    }
    std::memcpy(pair->key, key, length);
    pair->value = value;
    pair->next = bucket.first;
    bucket.first = pair;
    ++bucket.count;
    ++table->count;
    return 0;
}

uint32_t floorTableUnset(FloorTable* table, const char* key, unsigned long* value)
{
    if (__builtin_expect(table == nullptr, 0)) {
        return kInvalidTable;
    }
    if (__builtin_expect(key == nullptr, 0)) {
        return kInvalidKey;
    }
    const size_t length = std::strlen(key);
    FloorBucket& bucket = table->buckets[indexOf(hashOf(key, length), table->bucketCount)];
    if (bucket.count == 0 || length > 255) {
        return kNotFound;
    }
    FloorPair* const pair = find(bucket.first, key, length + 1);
    if (pair == nullptr) {
        return kNotFound;
    }
    FloorPair** link = &bucket.first;
    while (*link != pair) {
        link = &(*link)->next;
    }
    *link = pair->next;
    --bucket.count;
    const unsigned long taken = pair->value;
    delete[] pair;
    if (taken == 0) {
        return kNotFound;
    }
    *value = taken;
    --table->count;
    return 0;
}
