// The floor of CHashTable. The buckets and pairs are those of the library, and so is the hash, but
// each operation is one function of its own.
#ifndef KIVGCL_BENCH_FLOOR_CHASHTABLEFLOOR_H
#define KIVGCL_BENCH_FLOOR_CHASHTABLEFLOOR_H

#include <cstdint>

#include "bench/floor/Floor.h"

struct FloorPair {
    char key[256];
    unsigned long value;
    FloorPair* next;
};

struct FloorBucket {
    uint32_t count;
    FloorPair* first;
};

struct FloorTable {
    uint32_t bucketCount;
    uint32_t count;
    FloorBucket* buckets;
};

FLOOR_API void floorTableConstruct(FloorTable* table, uint32_t bucketCount);
FLOOR_API void floorTableDestruct(FloorTable* table);
FLOOR_API uint32_t floorTableGet(const FloorTable* table, const char* key, unsigned long* value);
// The same with the hash done byte by byte and the keys compared by strcmp.
FLOOR_API uint32_t floorTableGetByBytes(const FloorTable* table, const char* key,
                                        unsigned long* value);
FLOOR_API uint32_t floorTableSet(FloorTable* table, const char* key, unsigned long value);
FLOOR_API uint32_t floorTableUnset(FloorTable* table, const char* key, unsigned long* value);

#endif // KIVGCL_BENCH_FLOOR_CHASHTABLEFLOOR_H
