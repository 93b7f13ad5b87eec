// A caller of everything that has a layout: scripts/abi builds it with and without 64-bit time for
// 32-bit processors and compares the two. Each function takes what a caller shares with the
// library.
#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/CStack.h"
#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/DefaultSleepApi.h"
#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/SleepApi.h"
#include "Framework/GCL/TraceChannels.h"
#include "Framework/VT/VorTrace.h"

#define SHARED __attribute__((visibility("default")))

SHARED void lists(CList, CListNode, CListMatcher, CHashTable, CStack, CMemoryPool) {}
SHARED void fifo(CFifoBuffer& buffer)
{
    CFifoBuffer_Destruct(&buffer);
}
SHARED void socket(CTcpSocket& connection)
{
    CTcpSocket_Close(&connection);
}
SHARED bool timer(CTimer& timer, std::chrono::milliseconds time)
{
    return timer.start(time);
}
class SHARED Receiver : public ITimerReceiver {
public:
    void onTimer(void*) override;
};
void Receiver::onTimer(void*) {}
SHARED void sleeper(Util::ISleepApi& sleeper, Util::SleepApi&, Util::DefaultSleepApi&)
{
    sleeper.sleepMs(1);
}
SHARED bool link(Util::HijackApi& link)
{
    return link.connectToServer("127.0.0.1");
}
SHARED void channels(TraceChannel& channel, VorTrace& trace)
{
    channel = GCL_trace;
    trace.endLogMsg();
}
