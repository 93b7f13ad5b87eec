// The floor of the reports: a call that has none, and a line that is formatted and written at once.
#ifndef KIVGCL_BENCH_FLOOR_REPORTFLOOR_H
#define KIVGCL_BENCH_FLOOR_REPORTFLOOR_H

#include <cstdint>

#include "bench/floor/Floor.h"

// Clears the item and refuses a NULL object with a code, as CList_GetNext does, and says nothing.
FLOOR_API uint32_t floorRefuse(const void* object, unsigned long* item, void** position);

// The sink's line, with its time, process, thread, channel, level, place and text, in one write.
FLOOR_API void floorWriteLine(int descriptor, const char* channel, int level, const char* file,
                              int line, const char* function, const char* text, unsigned long code);

#endif // KIVGCL_BENCH_FLOOR_REPORTFLOOR_H
