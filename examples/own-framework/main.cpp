// A process that brings its own trace framework (Framework.cpp). It links the library alone; every
// report arrives in the framework.
#include <cstdlib>

#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/VT/VorTrace.h"

int main()
{
    // A report of a plain-structure module comes through the functions of VT.h ...
    CMemoryPool pool;
    CMemoryPool_Construct(&pool, 64, 4);
    void* block = nullptr;
    const uint32_t result = CMemoryPool_Malloc(&pool, 65, &block);
    CMemoryPool_Destruct(&pool);

    // ... one of the timer through the VorTrace object of the library, in pieces ...
    const CTimer refused([](void*) {}, nullptr, "", CTimer::Cyclic);

    // ... and those of the framed client through the object that it was given, as a stream.
    VorTrace trace("KIV.LINK", VorTraceLevel3);
    Util::HijackApi client(trace, 1, 1000, 1, 2);
    client.socketFd = -1;
    unsigned char payload = 0;
    const bool written = client.writeToNet(&payload, sizeof payload, nullptr);

    return result == GCL_INVALID_ARGUMENT && !refused.isRunning() && !written ? EXIT_SUCCESS
                                                                              : EXIT_FAILURE;
}
