// FaultsProbe <step>...: a program that knows nothing of libKivGCLFaults.so. Each step makes calls
// through the library, or by itself, and prints what came of it.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <new>
#include <string>
#include <thread>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/CSysLogHandler.h"
#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/SleepApi.h"

namespace {

void say(const std::string& text)
{
    const std::string line = text + "\n";
    static_cast<void>(!write(STDOUT_FILENO, line.data(), line.size()));
}

// Three items onto a list, one allocation each.
void list()
{
    CList items;
    CList_Construct(&items);
    unsigned long pushed = 0;
    try {
        while (pushed < 3) {
            CList_PushTail(&items, pushed);
            ++pushed;
        }
        say("list: 3 items");
    } catch (const std::bad_alloc&) {
        say("list: bad_alloc after " + std::to_string(pushed));
    }
    CList_Destruct(&items);
}

// A list that is never destructed: its nodes, one of them given back, are left over.
void keep()
{
    CList items;
    CList_Construct(&items);
    for (unsigned long i = 0; i < 1000; ++i) {
        CList_PushTail(&items, i);
    }
    unsigned long item = 0;
    CList_PopHead(&items, &item);
}

void print()
{
    CList items;
    CList_Construct(&items);
    CList_PushTail(&items, 7);
    const int result = CList_PrintScalar(&items, 0);
    say("print: " + std::string(result < 0 ? "failed" : "done"));
    CList_Destruct(&items);
}

void fifo(const char* name, ETaskingMode mode)
{
    CFifoBuffer buffer{};
    CFifoBuffer_Construct(&buffer, 4, 2, mode);
    const uint32_t element = 5;
    const uint32_t result = CFifoBuffer_Put(&buffer, &element);
    char code[20];
    static_cast<void>(snprintf(code, sizeof code, "%#x", static_cast<unsigned>(result)));
    say(std::string(name) + ": " + code);
    CFifoBuffer_Destruct(&buffer);
}

// Nobody listens on this port of the loopback device.
void connectStep()
{
    CTcpSocket* socket = nullptr;
    const uint32_t result = CTcpSocket_Create(&socket, "127.0.0.1", 1, 100);
    say("connect: " + std::to_string(result));
}

void timer()
{
    std::promise<void> called;
    const std::function<void(void*)> callback = [](void* promise) {
        static_cast<std::promise<void>*>(promise)->set_value();
    };
    CTimer once(callback, &called, "probe", CTimer::NonCyclic);
    once.start(std::chrono::milliseconds(1));
    const bool done =
        called.get_future().wait_for(std::chrono::seconds(1)) == std::future_status::ready;
    say(std::string("timer: ") + (done ? "called" : "not called"));
}

void sleepStep()
{
    const auto begun = std::chrono::steady_clock::now();
    Util::SleepApi().sleepMs(100);
    const bool whole = std::chrono::steady_clock::now() - begun >= std::chrono::milliseconds(100);
    say(std::string("sleep: ") + (whole ? "whole" : "ended early"));
}

// The program's own calls.
void own()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    say(fd < 0 ? std::string("own: ") + strerror(errno) : "own: made");
    if (fd >= 0) {
        close(fd);
    }
    free(malloc(10));
}

void run(const std::string& step)
{
    if (step == "list") {
        list();
    } else if (step == "keep") {
        keep();
    } else if (step == "print") {
        print();
    } else if (step == "fifo") {
        fifo("fifo", eTaskingModeMutex);
    } else if (step == "semaphores") {
        fifo("semaphores", eTaskingModeSemaphore);
    } else if (step == "connect") {
        connectStep();
    } else if (step == "timer") {
        timer();
    } else if (step == "sleep") {
        sleepStep();
    } else if (step == "own") {
        own();
    } else if (step == "log") {
        CSysLogHandler_Log("probe", "file", 1, 0x8000, "%s", "text");
    } else if (step == "fork") {
        const pid_t child = fork();
        if (child == 0) {
            list();
            _exit(0);
        }
        waitpid(child, nullptr, 0);
    } else if (step == "abort") {
        abort();
    } else if (step == "exit") {
        _exit(3);
    } else {
        exit(9);
    }
}

} // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        run(argv[i]);
    }
    return 0;
}
