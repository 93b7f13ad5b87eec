// SweepProbe <scenario> <rounds>: the library's modules, one scenario each. It knows nothing of
// faults: see tests/sweep/sweep.py.
#include <netinet/in.h>
#include <semaphore.h>
#include <sys/socket.h>

#include <atomic>
#include <map>
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
    step("push tail", [&] { return CList_PushTail(&items, 1); });
    step("push head", [&] { return CList_PushHead(&items, 2); });
    step("insert at 1", [&] { return CList_InsertAt(&items, 1, 3); });
    step("insert after", [&] { return CList_InsertAfter(&items, 4, items.pHead); });
    step("size", [&] { return CList_CurrentSize(&items); });
    step("print", [&] { return CList_PrintScalar(&items, 0) < 0; });
    CList_Destruct(&items);
    step("push again", [&] { return CList_PushTail(&items, 5); });
    CList_Destruct(&items);
}

void hashTable()
{
    CHashTable table = {};
    step("construct", [&] {
        CHashTable_Construct(&table, 7);
        return table.uiBucketCount;
    });
    if (table.uiBucketCount != 0) {
        step("set a", [&] { return CHashTable_Set(&table, "a", 1); });
        step("set b", [&] { return CHashTable_Set(&table, "b", 2); });
        unsigned long value = 0;
        step("get a", [&] { return CHashTable_Get(&table, "a", &value); });
        step("count", [&] { return CHashTable_Count(&table); });
        CList values = {};
        step("to list", [&] { return CHashTable_ToList(&table, &values); });
        step("values", [&] { return CList_CurrentSize(&values); });
        CList_Destruct(&values);
        step("set c", [&] { return CHashTable_Set(&table, "c", 3); });
        step("unset c", [&] { return CHashTable_Unset(&table, "c", &value); });
    }
    CHashTable_Destruct(&table);
}

void stack()
{
    CStack entries = {};
    step("construct", [&] {
        CStack_Construct(&entries, 2);
        return entries.uiCapacity;
    });
    step("push", [&] { return CStack_Push(&entries, &entries); });
    void* entry = nullptr;
    step("pop", [&] { return CStack_Pop(&entries, &entry); });
    CStack_Destruct(&entries);
}

void pool()
{
    CMemoryPool blocks = {};
    step("construct", [&] {
        CMemoryPool_Construct(&blocks, 10, 2);
        return blocks.uiNrOfBlocks;
    });
    void* block = nullptr;
    const bool taken = step("malloc", [&] { return CMemoryPool_Malloc(&blocks, 10, &block); }) == 0;
    if (taken) {
        step("free", [&] { return CMemoryPool_Free(&blocks, block); });
    }
    uint32_t size = 0;
    uint32_t count = 0;
    uint32_t free = 0;
    step("statistics", [&] { return CMemoryPool_Statistics(&blocks, &size, &count, &free); });
    step("free blocks", [&] { return free; });
    CMemoryPool_Destruct(&blocks);
}

// A call that would wait for ever, after a semaphore could not be posted, is not made.
bool wouldWait(CFifoBuffer& fifo, sem_t& counted)
{
    if (fifo.bInitialized == 0 || fifo.eMode == eTaskingModeNone) {
        return false;
    }
    if (fifo.eMode == eTaskingModeMutex) {
        return pthread_mutex_trylock(&fifo.fifoMutex) != 0 ||
               pthread_mutex_unlock(&fifo.fifoMutex) != 0;
    }
    int items = 0;
    int lock = 0;
    sem_getvalue(&counted, &items);
    sem_getvalue(&fifo.cpyMutex, &lock);
    return items == 0 || lock == 0;
}

void fifo(ETaskingMode mode)
{
    CFifoBuffer queue = {};
    step("construct", [&] {
        CFifoBuffer_Construct(&queue, 4, 2, mode);
        return queue.bInitialized;
    });
    uint32_t element = 7;
    for (const char* const put : {"put 1", "put 2"}) {
        step(put, [&] {
            return wouldWait(queue, queue.putSemaphore)
                       ? std::string("would wait")
                       : sweep::hex(CFifoBuffer_Put(&queue, &element));
        });
    }
    const std::string empty = "empty";
    for (const char* const get : {"get 1", "get 2"}) {
        step(get, [&] {
            if (wouldWait(queue, queue.getSemaphore)) {
                return std::string("would wait");
            }
            if (mode == eTaskingModeMutex && CFifoBuffer_IsEmpty(&queue) == 1) {
                return empty;
            }
            return sweep::hex(CFifoBuffer_Get(&queue, &element));
        });
    }
    step("held", [&] { return queue.uiCurrentSize; });
    CFifoBuffer_Destruct(&queue);
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
        step("close", [&] { return CTcpSocket_Close(object); });
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
    step("wait for connection", [&] { return CTcpSocket_WaitForConnection(&object, port, 100); });
    over = true;
    client.join();
    end(object);
}

void client()
{
    const Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
    const int port = listenOn(listener);
    CTcpSocket* object = nullptr;
    if (step("create", [&] { return CTcpSocket_Create(&object, "127.0.0.1", port, 100); }) != 0 ||
        object == nullptr) {
        return;
    }
    {
        const Descriptor peer(accept(listener.fd, nullptr, nullptr));
        for (const uint32_t timeout : {0u, 2u}) {
            step("set timeout", [&] { return CTcpSocket_SetTimeout(object, timeout); });
            int32_t length = 5;
            // By contract a write whose wait has failed goes on waiting: none with a time-out here.
            if (timeout == 0) {
                step("write", [&] { return CTcpSocket_Write(object, "hello", &length); });
                step("written", [&] { return length; });
            }
            if (write(peer.fd, "ABCDEFGHIJ", 10) != 10) {
                std::abort();
            }
            char buffer[10] = "";
            length = 5;
            step("read", [&] { return CTcpSocket_Read(object, buffer, &length); });
            length = 5;
            step("read text", [&] { return CTcpSocket_ReadZT(object, buffer, &length); });
            char rest[100];
            static_cast<void>(!recv(peer.fd, rest, sizeof rest, MSG_DONTWAIT));
            while (recv(object->iSocketHandle, rest, sizeof rest, MSG_DONTWAIT) > 0) {
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
    step("close", [&] { return CTcpSocket_Close(&object); });
}

void framedClient()
{
    gcltest::PeerNode node{gcltest::PeerNode::Options()};
    const uint16_t port = node.start();
    VorTrace trace("KIV.SWEEP", VorTraceLevel4);
    Util::HijackApi client(trace, port, 100000, 0x434C4E54, 0x4E4F4445);
    step("connect", [&] { return client.connectToServer("127.0.0.1"); });
    if (client.socketFd < 0) {
        return;
    }
    // A frame that failed is tried once more.
    for (int attempt = 0; attempt < 2; ++attempt) {
        unsigned char payload[] = "payload";
        if (!step("write", [&] { return client.writeToNet(payload, sizeof payload, nullptr); })) {
            continue;
        }
        unsigned char buffer[100] = "";
        unsigned length = 0;
        if (step("read", [&] { return client.readFromNet(buffer, sizeof buffer, &length); })) {
            step("content", [&] {
                return length == sizeof payload && std::memcmp(buffer, payload, length) == 0;
            });
            break;
        }
    }
    close(client.socketFd);
}

void timer()
{
    gcltest::setTraceLevel("KIV.CTimer", 4);
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        std::atomic<int> calls{0};
        const int wanted = type == CTimer::Cyclic ? 2 : 1;
        step("timer", [&] {
            CTimer timed([&](void*) { ++calls; }, nullptr, "sweep", CTimer::Other, 0, type);
            step("start", [&] { return timed.start(Milliseconds(1)); });
            const auto done = [&] {
                return calls >= wanted && (type == CTimer::Cyclic || !timed.isRunning());
            };
            for (int i = 0; i < 100 && !done(); ++i) {
                std::this_thread::sleep_for(Milliseconds(5));
            }
            step("called", [&] { return calls >= wanted; });
            timed.stop();
            step("runs", [&] { return timed.isRunning(); });
            return std::string("ended");
        });
    }
}

void sleep()
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point begin = Clock::now();
    Util::SleepApi sleeper;
    sleeper.sleepMs(20);
    step("slept to the end", [&] { return Clock::now() - begin >= Milliseconds(20); });
}

void sysLog()
{
    CSysLogHandler_Log("sweep", "a/file", 1, GCL_FAILURE, "%s", "text");
    step("level", [&] {
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
        {"timer", timer},
    };
    return table;
}

} // namespace

int main(int argc, char** argv)
{
    const auto scenario = argc == 3 ? scenarios().find(argv[1]) : scenarios().end();
    if (scenario == scenarios().end()) {
        fprintf(stderr, "usage: %s <scenario> <rounds>\n", argc > 0 ? argv[0] : "SweepProbe");
        return 2;
    }
    // The failures, and those of a drain where it is certain what it meets.
    GCL_trace.threshold = scenario->first == "drain" ? 4 : 3;
    return sweep::runRounds([&](int) { scenario->second(); }, std::atoi(argv[2]));
}
