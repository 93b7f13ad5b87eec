// unit-monitor: a program of the kind that a unit's software module is, on real input: the
// processes and the load of the machine that it runs on.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/ResultCodes.h"
#include "examples/unitmonitor/ProcessList.h"

namespace {

// The processes of this machine, in a list that is searched, added to and removed from.
bool showProcesses()
{
    unitmonitor::ProcessList processes;
    if (!processes.read()) {
        std::perror("unit-monitor: /proc");
        return false;
    }
    std::printf("%u processes: ", processes.size());
    std::fflush(stdout);
    processes.printIds();
    if (const unitmonitor::Process* const self = processes.find(getpid())) {
        std::printf("this one: %d %s, started by %d\n", self->pid, self->name.c_str(),
                    self->parent);
    }

    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    if (child < 0 || !processes.addBehindParent(child)) {
        std::fprintf(stderr, "unit-monitor: no child process could be started\n");
        return false;
    }
    std::printf("%u with a child: ", processes.size());
    std::fflush(stdout);
    processes.printIds();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const uint32_t removed = processes.removeChildrenOf(getpid());
    std::printf("%u child removed again\n", removed);
    return true;
}

// Two misuses that a list reports on the trace channel before it refuses them.
void showReports()
{
    std::printf("two reports provoked on purpose, on standard error:\n");
    std::fflush(stdout);
    unsigned long item = 0;
    CListNode* position = nullptr;
    static_cast<void>(CList_GetNext(nullptr, &item, &position));

    CList list;
    CList_Construct(&list);
    CList_PushTail(&list, 1);
    CList_PushTail(&list, 2);
    CListNode* const second = list.pTail;
    CList_InsertAt(&list, 0, 3); // closes a ring behind the head
    const uint32_t result = CList_Remove(&list, 2);
    std::printf("a circular list is refused with the code 0x%X\n", result);
    list.pHead->pNext->pNext = second; // opens the ring again
    CList_Destruct(&list);
}

} // namespace

int main()
{
    if (!showProcesses()) {
        return EXIT_FAILURE;
    }
    showReports();
    return EXIT_SUCCESS;
}
