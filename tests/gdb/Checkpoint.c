/* Where the debugger looks at the probe: a break point that no optimisation moves, in C. */
#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CList.h"

void checkpoint(const CList* list, const CFifoBuffer* fifo);

__attribute__((noinline)) void checkpoint(const CList* list, const CFifoBuffer* fifo)
{
    __asm__ volatile("" : : "r"(list), "r"(fifo) : "memory");
}
