// Console: answers a few text commands on a TCP port, one client after the other. Talk to it with
// `nc 127.0.0.1 PORT`.
#ifndef EXAMPLES_UNITMONITOR_CONSOLE_H
#define EXAMPLES_UNITMONITOR_CONSOLE_H

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/CTcpSocket.h"
#include "examples/unitmonitor/SamplePool.h"
#include "examples/unitmonitor/Store.h"

namespace unitmonitor {

class Console {
public:
    // Serves on a thread of its own until it is destroyed, on every address of this machine. If the
    // port is in use it says so on the trace channel and serves nobody.
    Console(int port, Store& sampleStore, SamplePool& samplePool);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

private:
    void serve();
    void talk(CTcpSocket& socket);
    // The answer to a command; empty for "quit".
    std::string answer(const std::string& command);

    int port;
    Store& store;
    SamplePool& pool;
    std::atomic<bool> ending{false};
    std::atomic<bool> ended{false};
    std::thread thread;
};

// Asks the console on `port` of this machine and returns its answers, one for each command; fewer
// if the connection fails.
std::vector<std::string> askConsole(int port, const std::vector<std::string>& commands);

} // namespace unitmonitor

#endif // EXAMPLES_UNITMONITOR_CONSOLE_H
