#include "examples/unit-test/Reporter.h"

#include <unistd.h>

#include <cstring>
#include <new>

#include "Framework/GCL/DefaultSleepApi.h"

namespace {

constexpr unsigned kMaxSyncWaitUs = 1'000'000;
constexpr unsigned kTxSyncId = 0x434C4E54;
constexpr unsigned kRxSyncId = 0x4E4F4445;

} // namespace

Reporter::Reporter(uint16_t port)
    : trace("KIV.REPORTER", VorTraceLevel3),
      client(trace, port, kMaxSyncWaitUs, kTxSyncId, kRxSyncId)
{
    CList_Construct(&numbers);
}

Reporter::~Reporter()
{
    CList_Destruct(&numbers);
    if (client.socketFd > 0) {
        close(client.socketFd);
    }
}

bool Reporter::connect(unsigned attempts)
{
    unsigned pauseMs = 100;
    for (unsigned i = 0; i < attempts; ++i) {
        if (client.connectToServer("127.0.0.1")) {
            return true;
        }
        Util::DefaultSleepApi::get().sleepMs(pauseMs);
        pauseMs *= 2;
    }
    return false;
}

bool Reporter::report(uint32_t number)
{
    unsigned char sent[sizeof number];
    unsigned char answer[sizeof number];
    unsigned length = 0;
    std::memcpy(sent, &number, sizeof number);
    return client.writeToNet(sent, sizeof sent, nullptr) &&
           client.readFromNet(answer, sizeof answer, &length) && length == sizeof answer &&
           std::memcmp(sent, answer, sizeof sent) == 0;
}

bool Reporter::remember(uint32_t number)
{
    try {
        return CList_PushTail(&numbers, number) == 0;
    } catch (const std::bad_alloc&) {
        return false;
    }
}
