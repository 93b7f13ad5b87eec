// The steps of the bounded stack, for CStack itself and for the memory pool, whose every call is
// one of them.
#ifndef GCL_PRIVATE_STACKSTEPS_H
#define GCL_PRIVATE_STACKSTEPS_H

#include <cstdint>

#include "Framework/GCL/CStack.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/private/Unlikely.h"

namespace gcl {

// By contract: the status is compared as a signed number, so that 0x80000000 and more pass.
inline bool stackHasFailed(const CStack& stack)
{
    return unlikely(static_cast<int32_t>(stack.uiStatus) >= static_cast<int32_t>(GCL_FAILURE));
}

// By contract: the last index is taken unsigned and compared signed. A capacity of 0 gives -1, one
// above 0x80000000 a negative number too: such stacks are full from the start.
inline int32_t stackLastIndex(const CStack& stack)
{
    return static_cast<int32_t>(stack.uiCapacity - 1);
}

inline uint32_t stackPush(CStack& stack, void* entry)
{
    if (stackHasFailed(stack)) {
        return stack.uiStatus;
    }
    const int32_t top = stack.iTop;
    if (unlikely(top >= stackLastIndex(stack))) {
        return GCL_STACK_FULL;
    }
    stack.iTop = top + 1;
    stack.pEntries[top + 1] = entry;
    return GCL_OK;
}

// `entry` is looked at only where there is an entry to store.
inline uint32_t stackPop(CStack& stack, void** entry)
{
    if (stackHasFailed(stack)) {
        return stack.uiStatus;
    }
    const int32_t top = stack.iTop;
    if (unlikely(top < 0)) {
        return GCL_STACK_EMPTY;
    }
    *entry = stack.pEntries[top];
    stack.iTop = top - 1;
    return GCL_OK;
}

inline uint32_t stackCurrentSize(const CStack& stack)
{
    if (stackHasFailed(stack)) {
        return stack.uiStatus;
    }
    return static_cast<uint32_t>(stack.iTop) + 1;
}

} // namespace gcl

#endif // GCL_PRIVATE_STACKSTEPS_H
