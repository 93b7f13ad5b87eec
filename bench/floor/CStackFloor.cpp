#include "bench/floor/CStackFloor.h"

void floorStackConstruct(FloorStack* stack, uint32_t capacity)
{
    *stack = {new void*[capacity], -1, capacity, 0};
}

void floorStackDestruct(FloorStack* stack)
{
    delete[] stack->entries;
    stack->entries = nullptr;
}

uint32_t floorStackPush(FloorStack* stack, void* entry)
{
    if (__builtin_expect(static_cast<int32_t>(stack->status) >= 0x8000, 0)) {
        return stack->status;
    }
    const int32_t top = stack->top;
    if (__builtin_expect(top >= static_cast<int32_t>(stack->capacity - 1), 0)) {
        return 0x8002;
    }
    stack->top = top + 1;
    stack->entries[top + 1] = entry;
    return 0;
}

uint32_t floorStackPop(FloorStack* stack, void** entry)
{
    if (__builtin_expect(static_cast<int32_t>(stack->status) >= 0x8000, 0)) {
        return stack->status;
    }
    const int32_t top = stack->top;
    if (__builtin_expect(top < 0, 0)) {
        return 0x8003;
    }
    *entry = stack->entries[top];
    stack->top = top - 1;
    return 0;
}
