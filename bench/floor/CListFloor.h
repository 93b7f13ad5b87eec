// The floor of CList.
#ifndef KIVGCL_BENCH_FLOOR_CLISTFLOOR_H
#define KIVGCL_BENCH_FLOOR_CLISTFLOOR_H

#include <cstdint>

#include "bench/floor/Floor.h"

struct FloorNode {
    unsigned long item;
    FloorNode* next;
};

struct FloorList {
    FloorNode* head;
    FloorNode* tail;
    uint32_t size;
};

using FloorMatch = uint32_t (*)(unsigned long item, unsigned long key);

FLOOR_API void floorListDestruct(FloorList* list);
FLOOR_API uint32_t floorListPushHead(FloorList* list, unsigned long item);
FLOOR_API uint32_t floorListPushTail(FloorList* list, unsigned long item);
FLOOR_API uint32_t floorListPopHead(FloorList* list, unsigned long* item);
FLOOR_API uint32_t floorListStart(const FloorList* list, FloorNode** position);
FLOOR_API uint32_t floorListNext(const FloorList* list, unsigned long* item, FloorNode** position);
FLOOR_API uint32_t floorListItemExists(const FloorList* list, unsigned long item);
FLOOR_API uint32_t floorListFind(const FloorList* list, unsigned long key,
                                 const FloorMatch* matcher, FloorNode** position);
FLOOR_API uint32_t floorListRemove(FloorList* list, unsigned long item);

#endif // KIVGCL_BENCH_FLOOR_CLISTFLOOR_H
