// Monitor: the unit monitor at work. A cyclic timer takes samples, a consumer thread stores them
// and exchanges them with a peer node, a console answers questions, until a one-shot timer ends it.
#ifndef EXAMPLES_UNITMONITOR_MONITOR_H
#define EXAMPLES_UNITMONITOR_MONITOR_H

#include <chrono>

namespace unitmonitor {

struct MonitorOptions {
    std::chrono::milliseconds duration{3000}; // how long the monitor runs
    std::chrono::milliseconds period{250};    // from one round of samples to the next
    int consolePort = 4680;                   // TCP port of the console; 0: any free one
};

// Runs the monitor and prints what it has seen. Returns false if something did not work.
bool runMonitor(const MonitorOptions& options);

} // namespace unitmonitor

#endif // EXAMPLES_UNITMONITOR_MONITOR_H
