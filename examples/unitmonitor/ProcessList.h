// ProcessList: the running processes of this machine, kept in a CList.
#ifndef EXAMPLES_UNITMONITOR_PROCESSLIST_H
#define EXAMPLES_UNITMONITOR_PROCESSLIST_H

#include <sys/types.h>

#include <string>

#include "Framework/GCL/CList.h"

namespace unitmonitor {

struct Process {
    pid_t pid;
    pid_t parent;
    std::string name;
};

// The items of the list are pointers to Process objects, which the ProcessList owns: a CList never
// owns what its items point to.
class ProcessList {
public:
    ProcessList();
    ~ProcessList();
    ProcessList(const ProcessList&) = delete;
    ProcessList& operator=(const ProcessList&) = delete;

    // Reads the processes that /proc shows now, in its order, and keeps them in place of those read
    // before. Returns false if /proc cannot be read.
    bool read();

    uint32_t size() const { return CList_CurrentSize(&list); }

    // Adds a running process behind its parent. Returns false if one of them is not there.
    bool addBehindParent(pid_t pid);

    // The process with the id, nullptr if it is not in the list.
    const Process* find(pid_t pid) const;

    // Removes the children of a process and returns how many there were.
    uint32_t removeChildrenOf(pid_t parent);

    // Prints the process ids as one line.
    void printIds() const;

private:
    void clear();

    CList list;
};

} // namespace unitmonitor

#endif // EXAMPLES_UNITMONITOR_PROCESSLIST_H
