// Console: answers a few text commands on a TCP port, one client after the other. Talk to it with
// `nc 127.0.0.1 PORT`.
#ifndef EXAMPLES_UNITMONITOR_CONSOLE_H
#define EXAMPLES_UNITMONITOR_CONSOLE_H

#include <atomic>
#include <chrono>
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

    // Whether it serves nobody any more, because the port was not to be had.
    bool hasFailed() const { return ended; }

    // Asks itself the last questions, within `limit`, and returns the answers, as askConsole does.
    // The client that it serves meanwhile has to go after its next command, or a second of silence.
    std::vector<std::string> askLast(const std::vector<std::string>& commands,
                                     std::chrono::seconds limit);

private:
    void serve();
    void talk(CTcpSocket& socket);
    // The answer to a command; empty for "quit".
    std::string answer(const std::string& command);

    int port;
    Store& store;
    SamplePool& pool;
    std::atomic<bool> waiting{false};  // for a client, or about to
    std::atomic<bool> hurrying{false}; // the last questions are asked
    std::atomic<bool> ending{false};
    std::atomic<bool> ended{false};
    std::thread thread;
};

// Asks the console on `port` of this machine and returns its answers, one for each command; fewer
// if the connection fails.
std::vector<std::string> askConsole(int port, const std::vector<std::string>& commands);

// A TCP port that nobody uses at the moment. Throws std::runtime_error if there is none.
int freePort();

} // namespace unitmonitor

#endif // EXAMPLES_UNITMONITOR_CONSOLE_H
