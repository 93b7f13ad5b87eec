// SweepProbe <scenario> <rounds> [step]: the library's modules, one scenario each. It knows nothing
// of faults: see tests/sweep/sweep.py.
#include <netdb.h>
#include <netinet/in.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <syslog.h>

#include <atomic>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/CStack.h"
#include "Framework/GCL/CSysLogHandler.h"
#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/SleepApi.h"
#include "Framework/GCL/TraceChannels.h"
#include "Framework/GCL/testing/PeerNode.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "Framework/VT/VorTrace.h"
#include "tests/sweep/Scenario.h"

using sweep::act;
using sweep::Output;
using sweep::step;

void sweep::takeMessages()
{
    for (const gcltest::Report& report : gcltest::takeReports()) {
        std::string text = report.text;
        for (char& character : text) {
            character = character == '\n' ? ' ' : character;
        }
        Output::get().line("  " + report.channel + " " + std::to_string(report.level) + " " +
                           report.function + ": " + text);
    }
}

namespace {

using Milliseconds = std::chrono::milliseconds;

void list()
{
    CList items;
    CList_Construct(&items);
    step("CList_PushTail", [&] { return CList_PushTail(&items, 1); });
    step("CList_PushHead", [&] { return CList_PushHead(&items, 2); });
    step("CList_InsertAt", [&] { return CList_InsertAt(&items, 1, 3); });
    CListNode* const first = items.pHead;
    if (first != nullptr) {
        step("CList_InsertAfter", [&] { return CList_InsertAfter(&items, 4, first); });
    }
    step("items", [&] {
        std::string all;
        for (const CListNode* node = items.pHead; node != nullptr; node = node->pNext) {
            all += " " + std::to_string(node->ulItem);
        }
        return std::to_string(items.uiSize) + ":" + all;
    });
    step("CList_PrintScalar", [&] { return CList_PrintScalar(&items, 0) < 0; });
    step("CList_PrintScalar", [&] { return CList_PrintScalar(&items, 1) < 0; });
    act("CList_Destruct", [&] { CList_Destruct(&items); });
    step("CList_PushTail", [&] { return CList_PushTail(&items, 5); });
    CList_Destruct(&items);
}

void hashTable()
{
    CHashTable table = {};
    step("CHashTable_Construct", [&] {
        CHashTable_Construct(&table, 7);
        return table.uiBucketCount;
    });
    if (table.uiBucketCount != 0) {
        step("CHashTable_Set", [&] { return CHashTable_Set(&table, "a", 1); });
        step("CHashTable_Set", [&] { return CHashTable_Set(&table, "b", 2); });
        step("CHashTable_Set", [&] { return CHashTable_Set(&table, "a", 3); });
        unsigned long value = 0;
        step("CHashTable_Get", [&] { return CHashTable_Get(&table, "a", &value); });
        step("CHashTable_Count", [&] { return CHashTable_Count(&table); });
        CList values = {};
        step("CHashTable_ToList", [&] { return CHashTable_ToList(&table, &values); });
        step("values", [&] { return CList_CurrentSize(&values); });
        CList_Destruct(&values);
        step("CHashTable_Unset", [&] { return CHashTable_Unset(&table, "b", &value); });
    }
    act("CHashTable_Destruct", [&] { CHashTable_Destruct(&table); });
}

void stack()
{
    CStack entries = {nullptr, -1, 0, 0}; // an empty stack of capacity 0
    step("CStack_Construct", [&] {
        CStack_Construct(&entries, 2);
        return entries.uiCapacity;
    });
    step("CStack_Push", [&] { return CStack_Push(&entries, &entries); });
    void* entry = nullptr;
    step("CStack_Pop", [&] { return CStack_Pop(&entries, &entry); });
    act("CStack_Destruct", [&] { CStack_Destruct(&entries); });
}

void pool()
{
    CMemoryPool blocks = {10, 0, nullptr, {nullptr, -1, 0, 0}}; // without a block
    step("CMemoryPool_Construct", [&] {
        CMemoryPool_Construct(&blocks, 10, 2);
        return blocks.uiNrOfBlocks;
    });
    void* block = nullptr;
    step("CMemoryPool_Malloc", [&] { return CMemoryPool_Malloc(&blocks, 10, &block); });
    if (block != nullptr) {
        step("CMemoryPool_Free", [&] { return CMemoryPool_Free(&blocks, block); });
    }
    uint32_t size = 0;
    uint32_t count = 0;
    uint32_t free = 0;
    step("CMemoryPool_Statistics",
         [&] { return CMemoryPool_Statistics(&blocks, &size, &count, &free); });
    step("free blocks", [&] { return free; });
    act("CMemoryPool_Destruct", [&] { CMemoryPool_Destruct(&blocks); });
}

// What is wrong between an operation and the next, as text behind its result, and made good: each
// semaphore counts what it stands for, and no lock is held.
std::string stateOf(CFifoBuffer& fifo)
{
    std::string state = ", held " + std::to_string(fifo.uiCurrentSize);
    if (fifo.bInitialized == 0) {
        return state;
    }
    if (fifo.eMode == eTaskingModeMutex) {
        state += pthread_mutex_trylock(&fifo.fifoMutex) != 0 ? ", locked" : "";
        pthread_mutex_unlock(&fifo.fifoMutex);
    }
    if (fifo.eMode == eTaskingModeSemaphore) {
        const auto heldSlots = static_cast<int>(fifo.uiCurrentSize);
        const auto allSlots = static_cast<int>(fifo.uiCapacity);
        const struct {
            sem_t& semaphore;
            int wanted;
            const char* name;
        } semaphores[] = {{fifo.putSemaphore, allSlots - heldSlots, "putSemaphore"},
                          {fifo.getSemaphore, heldSlots, "getSemaphore"},
                          {fifo.cpyMutex, 1, "cpyMutex"}};
        for (const auto& [semaphore, wanted, name] : semaphores) {
            int value = 0;
            sem_getvalue(&semaphore, &value);
            if (value != wanted) {
                const int missing = wanted - value;
                state += std::string(", ") + name + " lacks " + std::to_string(missing);
                for (; value < wanted; ++value) {
                    sem_post(&semaphore);
                }
            }
        }
    }
    return state;
}

void fifo(ETaskingMode mode)
{
    CFifoBuffer queue = {};
    step("CFifoBuffer_Construct", [&] {
        CFifoBuffer_Construct(&queue, 4, 2, mode);
        return queue.bInitialized;
    });
    uint32_t element = 7;
    for (int i = 0; i < 2; ++i) {
        step("CFifoBuffer_Put", [&] {
            const uint32_t code = CFifoBuffer_Put(&queue, &element);
            return sweep::hex(code) + stateOf(queue);
        });
    }
    for (int i = 0; i < 2; ++i) {
        step("CFifoBuffer_Get", [&] {
            if (queue.bInitialized != 0 && queue.uiCurrentSize == 0) {
                return std::string("nothing there");
            }
            const uint32_t code = CFifoBuffer_Get(&queue, &element);
            return sweep::hex(code) + stateOf(queue);
        });
    }
    act("CFifoBuffer_Destruct", [&] { CFifoBuffer_Destruct(&queue); });
}

// Sockets of the program's own.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : fd(descriptor) {}
    ~Descriptor()
    {
        if (fd >= 0) {
            close(fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    const int fd;
};

sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int listenOn(const Descriptor& socket)
{
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (bind(socket.fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(socket.fd, 5) != 0 ||
        getsockname(socket.fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::abort();
    }
    return ntohs(address.sin_port);
}

void end(CTcpSocket* object)
{
    if (object != nullptr) {
        step("CTcpSocket_Close", [&] { return CTcpSocket_Close(object); });
        CTcpSocket_Destruct(object);
        delete[] object;
    }
}

void server()
{
    int port = 0;
    {
        const Descriptor free(socket(AF_INET, SOCK_STREAM, 0));
        port = listenOn(free);
    }
    // A client that calls until it is served, or the server has given up.
    std::atomic<bool> over{false};
    std::thread client([&] {
        while (!over) {
            const Descriptor caller(socket(AF_INET, SOCK_STREAM, 0));
            const sockaddr_in address = loopback(port);
            if (connect(caller.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
                0) {
                while (!over) {
                    std::this_thread::sleep_for(Milliseconds(1));
                }
            }
            std::this_thread::sleep_for(Milliseconds(1));
        }
    });
    CTcpSocket* object = nullptr;
    step("CTcpSocket_WaitForConnection",
         [&] { return CTcpSocket_WaitForConnection(&object, port, 100); });
    over = true;
    client.join();
    end(object);
}

void client()
{
    const Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
    const int port = listenOn(listener);
    CTcpSocket* object = nullptr;
    step("CTcpSocket_Create", [&] { return CTcpSocket_Create(&object, "127.0.0.1", port, 100); });
    if (object == nullptr) {
        return;
    }
    {
        const Descriptor peer(accept(listener.fd, nullptr, nullptr));
        for (const uint32_t timeout : {2u, 0u}) {
            step("CTcpSocket_SetTimeout", [&] { return CTcpSocket_SetTimeout(object, timeout); });
            step("CTcpSocket_Write", [&] {
                int32_t length = 5;
                const uint32_t code = CTcpSocket_Write(object, "hello", &length);
                return sweep::hex(code) + ", " + std::to_string(length) + " bytes";
            });
            char got[100] = "";
            step("peer", [&] {
                static_cast<void>(!recv(peer.fd, got, sizeof got, MSG_DONTWAIT));
                return std::string(got);
            });
            if (write(peer.fd, "ABCDEFGHIJ", 10) != 10) {
                std::abort();
            }
            char buffer[10] = "";
            step("CTcpSocket_Read", [&] {
                int32_t length = 5;
                const uint32_t code = CTcpSocket_Read(object, buffer, &length);
                return sweep::hex(code) + ", " + std::to_string(length) + " bytes " + buffer;
            });
            std::memset(buffer, 0, sizeof buffer);
            step("CTcpSocket_ReadZT", [&] {
                int32_t length = 5;
                const uint32_t code = CTcpSocket_ReadZT(object, buffer, &length);
                return sweep::hex(code) + ", " + std::to_string(length) + " bytes " + buffer;
            });
            while (recv(object->iSocketHandle, got, sizeof got, MSG_DONTWAIT) > 0) {
            }
        }
    }
    end(object);
}

// A peer that reads nothing keeps the close waiting.
void drain()
{
    const Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
    const int port = listenOn(listener);
    const int near = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(port);
    if (connect(near, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::abort();
    }
    const Descriptor peer(accept(listener.fd, nullptr, nullptr));
    const std::string data(1 << 20, 'x');
    while (send(near, data.data(), data.size(), MSG_DONTWAIT) > 0) {
    }
    CTcpSocket object = {near, port, 100, 0};
    step("CTcpSocket_Close", [&] { return CTcpSocket_Close(&object); });
    step("closed", [&] { return object.iSocketHandle == -1 && object.iPort == 0; });
    if (object.iSocketHandle >= 0) {
        close(near);
    }
}

void framedClient()
{
    gcltest::PeerNode node{gcltest::PeerNode::Options()};
    const uint16_t port = node.start();
    VorTrace trace("KIV.SWEEP", VorTraceLevel4);
    Util::HijackApi client(trace, port, 100000, 0x434C4E54, 0x4E4F4445);
    if (!step("connectToServer", [&] { return client.connectToServer("127.0.0.1"); })) {
        step("descriptor", [&] { return client.socketFd > 0; });
        return;
    }
    // A frame that failed is tried once more.
    for (int attempt = 0; attempt < 2; ++attempt) {
        unsigned char payload[] = "payload";
        if (!step("writeToNet", [&] {
                unsigned written = 0;
                return client.writeToNet(payload, sizeof payload, &written) &&
                       written == 12 + sizeof payload;
            })) {
            continue;
        }
        unsigned char buffer[100] = "";
        unsigned length = 0;
        if (step("readFromNet",
                 [&] { return client.readFromNet(buffer, sizeof buffer, &length); })) {
            step("content", [&] {
                return length == sizeof payload && std::memcmp(buffer, payload, length) == 0;
            });
            break;
        }
    }
    close(client.socketFd);
}

template <typename Condition>
bool waitFor(Condition condition)
{
    for (int i = 0; i < 10000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(Milliseconds(1));
    }
    return false;
}

// The worker's calls may fall into any step, but their order and number is always the same.
void timer(CTimer::Type type, CTimer::Policy policy)
{
    gcltest::setTraceLevel("KIV.CTimer", 4);
    std::atomic<int> calls{0};
    std::unique_ptr<CTimer> timed;
    const auto callback = [&](void*) {
        // The second call of a cyclic timer ends its run.
        if (++calls == 2) {
            timed->stop();
        }
    };
    step("CTimer", [&] {
        timed = std::make_unique<CTimer>(callback, nullptr, "sweep", policy, 0, type);
        return std::string("constructed");
    });
    if (timed == nullptr) {
        return;
    }
    const bool hasWorker = !Output::get().stepSaid(" cought exception [");
    step("start", [&] { return timed->start(Milliseconds(1)); });
    step("called", [&] {
        if (!hasWorker) {
            timed->stop();
        }
        return waitFor([&] { return !timed->isRunning(); }) &&
               calls == (type == CTimer::Cyclic ? 2 : 1);
    });
    step("start", [&] { return timed->start(std::chrono::hours(1)); });
    step("start", [&] { return timed->start(std::chrono::hours(1)); });
    step("isRunning", [&] { return timed->isRunning(); });
    act("stop", [&] { timed->stop(); });
    step("isRunning", [&] { return timed->isRunning(); });
    act("~CTimer", [&] { timed.reset(); });
}

void sleep()
{
    using Clock = std::chrono::steady_clock;
    Util::SleepApi sleeper;
    step("sleepMs", [&] {
        const Clock::time_point begin = Clock::now();
        sleeper.sleepMs(20);
        return std::string(Clock::now() - begin >= Milliseconds(20) ? "whole" : "early");
    });
}

void sysLog()
{
    act("CSysLogHandler_Log",
        [] { CSysLogHandler_Log("sweep", "a/file", 1, GCL_FAILURE, "%s", "text"); });
    step("CSysLogHandler_GetLogLevel", [&] {
        uint32_t level = 0;
        CSysLogHandler_GetLogLevel(&level);
        return level;
    });
}

const std::map<std::string, void (*)()>& scenarios()
{
    static const std::map<std::string, void (*)()> table = {
        {"client", client},
        {"drain", drain},
        {"fifo0", [] { fifo(eTaskingModeSemaphore); }},
        {"fifo1", [] { fifo(eTaskingModeNone); }},
        {"fifo2", [] { fifo(eTaskingModeMutex); }},
        {"framedClient", framedClient},
        {"hashTable", hashTable},
        {"list", list},
        {"pool", pool},
        {"server", server},
        {"sleep", sleep},
        {"stack", stack},
        {"sysLog", sysLog},
        {"timerCyclic", [] { timer(CTimer::Cyclic, CTimer::Default); }},
        {"timerOnce", [] { timer(CTimer::NonCyclic, CTimer::Other); }},
    };
    return table;
}

// What the C library keeps for all its users, or for the last one, it gets on this program's
// account.
void takeOver()
{
    openlog("sweep", LOG_PERROR, LOG_USER);
    tzset();
    static_cast<void>(strerror(ETIMEDOUT));
    for (const char* const host : {static_cast<const char*>(nullptr), "127.0.0.1"}) {
        addrinfo hints = {};
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = host == nullptr ? AI_PASSIVE : 0;
        addrinfo* list = nullptr;
        if (getaddrinfo(host, "1", &hints, &list) == 0) {
            freeaddrinfo(list);
        }
    }
    Dl_info library = {};
    if (dladdr(reinterpret_cast<void*>(&CList_Construct), &library) != 0) {
        void* const handle = dlopen(library.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
        if (handle != nullptr) {
            dlclose(handle);
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    const auto scenario = argc == 3 || argc == 4 ? scenarios().find(argv[1]) : scenarios().end();
    if (scenario == scenarios().end()) {
        fprintf(stderr, "usage: %s <scenario> <rounds> [step to leave out]\n",
                argc > 0 ? argv[0] : "SweepProbe");
        return 2;
    }
    // The failures, and all of a drain where it is certain what it meets.
    GCL_trace.threshold = scenario->first == "drain" ? 7 : 3;
    takeOver();
    const int result = sweep::runRounds([&](int) { scenario->second(); }, std::atoi(argv[2]),
                                        argc > 3 ? std::atoi(argv[3]) : 0);
    takeOver();
    return result;
}
