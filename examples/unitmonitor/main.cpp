// unit-monitor: a program of the kind that a unit's software module is, on real input: the
// processes and the load of the machine that it runs on.
#include <getopt.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/TraceChannels.h"
#include "examples/unitmonitor/Monitor.h"
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

constexpr char kUsage[] =
    "Usage: unit-monitor [OPTION...]\n"
    "Watches the machine that it runs on, with every module of the library.\n"
    "\n"
    "  -s, --seconds=N    run for N seconds (default 3)\n"
    "  -p, --period=MS    take samples every MS milliseconds (default 250)\n"
    "  -c, --console=PORT answer questions on TCP port PORT (default 4680), on every address;\n"
    "                     0 takes any free port; try: nc 127.0.0.1 4680\n"
    "  -h, --help         show this text\n"
    "\n"
    "VT_OUTPUT and VT_LEVELS say where its traces go and which are written (see VT.h).\n";

constexpr int kBadUsage = 2;

// The number from `least` to `most` that an option was given; it ends the program if that is none.
int numberOf(const char* option, const char* text, long least, long most)
{
    char* rest = nullptr;
    const long number = std::strtol(text, &rest, 10);
    if (*text == '\0' || *rest != '\0' || number < least || number > most) {
        std::fprintf(stderr, "unit-monitor: %s takes a number from %ld to %ld, not '%s'\n", option,
                     least, most, text);
        std::exit(kBadUsage);
    }
    return static_cast<int>(number);
}

unitmonitor::MonitorOptions parseOptions(int argc, char** argv)
{
    const option longOptions[] = {{"seconds", required_argument, nullptr, 's'},
                                  {"period", required_argument, nullptr, 'p'},
                                  {"console", required_argument, nullptr, 'c'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {nullptr, 0, nullptr, 0}};
    unitmonitor::MonitorOptions options;
    for (int letter = 0; letter != -1;) {
        letter = getopt_long(argc, argv, "s:p:c:h", longOptions, nullptr);
        switch (letter) {
        case -1:
            break;
        case 's':
            options.duration = std::chrono::seconds(numberOf("--seconds", optarg, 1, 1000000));
            break;
        case 'p':
            options.period = std::chrono::milliseconds(numberOf("--period", optarg, 1, 1000000));
            break;
        case 'c':
            options.consolePort = numberOf("--console", optarg, 0, 65535);
            break;
        case 'h':
            std::fputs(kUsage, stdout);
            std::exit(EXIT_SUCCESS);
        default:
            std::exit(kBadUsage); // getopt_long has said what is wrong
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "unit-monitor: '%s' is not an option; see --help\n", argv[optind]);
        std::exit(kBadUsage);
    }
    return options;
}

} // namespace

int main(int argc, char** argv)
{
    // A console client that goes before it has its answer ends its connection, not the program.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const unitmonitor::MonitorOptions options = parseOptions(argc, argv);
        if (!showProcesses()) {
            return EXIT_FAILURE;
        }
        showReports();
        // From here on failures and warnings only: a connection that closes tells how it went, too.
        GCL_trace.threshold = 2;
        return unitmonitor::runMonitor(options) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "unit-monitor: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
