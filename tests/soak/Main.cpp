// The soak: one process that keeps all of the library busy at the same time, for as long as it is
// told, and accounts for every element, frame, byte, timer and message.
//
// It works in rounds. At the end of each round all loads end, their counts and the sink's file are
// compared, and descriptors, threads and blocks of memory must be exactly as many as after the
// first, short round; resident memory may grow by a small amount once the process is warm.
#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <malloc.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "Framework/VT/VT.h"
#include "tests/soak/Soak.h"

namespace soak {
namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;

struct Options {
    unsigned long seconds = 60;
    unsigned long round = 10;    // seconds
    unsigned long interval = 5;  // seconds between two lines
    unsigned long patience = 60; // seconds that a load may stand still
    unsigned long timers = SOAK_TIMERS;
    unsigned long growth = SOAK_GROWTH_KB; // kB of resident memory once the process is warm
    unsigned long seed = 0;
};

// --- What the process has ------------------------------------------------------------------------

int64_t entriesOf(const char* folder)
{
    DIR* const entries = opendir(folder);
    if (entries == nullptr) {
        return -1;
    }
    int64_t count = 0;
    while (const dirent* const entry = readdir(entries)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    closedir(entries);
    return count;
}

long residentKb()
{
    long pages = 0;
    if (std::FILE* const file = std::fopen("/proc/self/statm", "re")) {
        if (std::fscanf(file, "%*s %ld", &pages) != 1) {
            pages = 0;
        }
        static_cast<void>(std::fclose(file));
    }
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

struct Holdings {
    int64_t descriptors = 0;
    int64_t threads = 0;
    int64_t blocks = 0;

    static Holdings now()
    {
        // The listing has a descriptor of its own.
        return {entriesOf("/proc/self/fd") - 1, entriesOf("/proc/self/task"), liveBlocks()};
    }
    bool operator==(const Holdings& other) const
    {
        return descriptors == other.descriptors && threads == other.threads &&
               blocks == other.blocks;
    }
};

// --- The sink's file -----------------------------------------------------------------------------

class SinkFile {
public:
    // The sink opens the file with the first message; then it needs no name any more.
    SinkFile()
    {
        const char* const folder = std::getenv("TMPDIR");
        path = std::string(folder != nullptr ? folder : "/tmp") + "/kivgcl-soak-XXXXXX";
        fd = mkostemp(path.data(), O_CLOEXEC);
        if (fd == -1 || setenv("VT_OUTPUT", path.c_str(), 1) != 0 || unsetenv("VT_LEVELS") != 0) {
            std::perror(path.c_str());
            std::exit(2);
        }
        TraceChannel channel = {7, "SOAK"};
        const VorTraceHeader header = {"Soak", __LINE__, __func__};
        VT_beginImpl(&channel, 1, &header);
        VT_rawprintf(&channel, "begins");
        VT_endImpl(&channel);
        unlink(path.c_str());
        if (ftruncate(fd, 0) != 0) {
            std::perror("ftruncate");
        }
    }
    ~SinkFile() { close(fd); }
    SinkFile(const SinkFile&) = delete;
    SinkFile& operator=(const SinkFile&) = delete;

    // Takes all lines and empties the file, which the sink goes on appending to.
    void read(Expectations& expectations)
    {
        std::string rest;
        std::array<char, 65536> chunk{};
        off_t offset = 0;
        ssize_t count = 0;
        while ((count = pread(fd, chunk.data(), chunk.size(), offset)) > 0) {
            offset += count;
            rest.append(chunk.data(), static_cast<size_t>(count));
            size_t begin = 0;
            for (size_t end = 0; (end = rest.find('\n', begin)) != std::string::npos;
                 begin = end + 1) {
                expectations.take(std::string_view(rest).substr(begin, end - begin));
            }
            rest.erase(0, begin);
        }
        if (!rest.empty()) {
            complain("the sink's last line is not whole: '%s'", rest.substr(0, 200).c_str());
        }
        if (ftruncate(fd, 0) != 0) {
            complain("the sink's file cannot be emptied: %s", std::strerror(errno));
        }
    }

private:
    std::string path;
    int fd;
};

// --- The watchdog
// ----------------------------------------------------------------------------------

// Ends the process where a step takes too long: what hangs cannot be joined.
class Watchdog {
public:
    explicit Watchdog(unsigned long patienceSeconds) : patience(patienceSeconds)
    {
        thread = std::thread([this] {
            while (!over) {
                pauseUs(100'000);
                const std::lock_guard<std::mutex> lock(mutex);
                if (deadlineNs != 0 && monotonicNs() > deadlineNs) {
                    complain("stuck: %s", step.c_str());
                    static_cast<void>(std::fflush(nullptr));
                    std::puts("\nFAILED");
                    static_cast<void>(std::fflush(nullptr));
                    _exit(1);
                }
            }
        });
    }
    ~Watchdog()
    {
        over = true;
        thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // The next step begins; an empty one may take as long as it likes.
    void watch(const std::string& nextStep)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        step = nextStep;
        deadlineNs =
            nextStep.empty() ? 0 : monotonicNs() + static_cast<int64_t>(patience) * kNsPerSecond;
    }

private:
    const unsigned long patience;
    std::mutex mutex;
    std::string step;
    int64_t deadlineNs = 0;
    std::atomic<bool> over{false};
    std::thread thread;
};

// --- The run
// ---------------------------------------------------------------------------------------

class Soak {
public:
    explicit Soak(const Options& given) : options(given), watchdog(given.patience)
    {
        addTimers(loads, expectations, static_cast<unsigned>(options.timers));
        addFifos(loads, expectations);
        addLinks(loads, expectations);
        addSockets(loads, expectations);
        addContainers(loads, expectations);
        addReporters(loads, expectations);
        addSignals(loads); // the last to end
        lastSteps.resize(loads.size());
        movedNs.resize(loads.size());
    }

    bool run()
    {
        begunNs = monotonicNs();
        const int64_t endNs = begunNs + seconds(options.seconds);
        // What the platform makes once and keeps is made in a short first round of either kind.
        for (int i = 0; i < 2; ++i) {
            runRound(std::min(endNs, monotonicNs() + kNsPerSecond));
        }
        watchdog.watch("");
        settle();
        const Holdings first = Holdings::now();
        for (const auto& load : loads) {
            lastTotals[static_cast<size_t>(load->kind)] += load->steps;
        }
        lineNs = monotonicNs();
        std::printf("%6s %9s %10s %8s %9s %10s %9s %9s  %6s %7s %8s %9s\n", "s", "timers/s",
                    "elements/s", "frames/s", "TCP kB/s", "cont.ops/s", "reports/s", "signals/s",
                    "descr.", "threads", "blocks", "resident");
        // Whole rounds of the same length, as many as the time has room for.
        const int64_t left = std::max<int64_t>(endNs - monotonicNs(), 1);
        const int64_t lengthNs = left / std::max<int64_t>(2, left / seconds(options.round));
        const int64_t warmNs = monotonicNs() + left / 4;
        for (int i = 0; complaints() == 0 && (i < 2 || monotonicNs() < endNs); ++i) {
            runRound(monotonicNs() + lengthNs);
            compareWith(first);
            const long resident = residentKb();
            if (i == 0 || monotonicNs() < warmNs) {
                warmKb = std::max(warmKb, resident);
            } else if (resident > warmKb + static_cast<long>(options.growth)) {
                complain("resident memory has grown from %ld kB to %ld kB", warmKb, resident);
            }
            printLine("=");
        }
        const Holdings last = Holdings::now();
        Table table;
        account(table);
        table.print();
        std::printf("\nDescriptors %lld, at first %lld; threads %lld, %lld; blocks %lld, %lld; "
                    "resident %ld kB, when warm %ld kB (allowed: %lu kB more)\n",
                    static_cast<long long>(last.descriptors),
                    static_cast<long long>(first.descriptors), static_cast<long long>(last.threads),
                    static_cast<long long>(first.threads), static_cast<long long>(last.blocks),
                    static_cast<long long>(first.blocks), residentKb(), warmKb, options.growth);
        return complaints() == 0;
    }

private:
    static int64_t seconds(unsigned long count)
    {
        return static_cast<int64_t>(count) * kNsPerSecond;
    }

    void runRound(int64_t endNs)
    {
        ++roundNumber;
        const Round round{static_cast<uint32_t>(options.seed + roundNumber * 7919),
                          roundNumber % 2 == 0};
        loads.back()->begin(round); // the signals' handlers
        for (const auto& load : loads) {
            if (load != loads.back()) {
                watchdog.watch(load->name + " does not begin");
                load->begin(round);
            }
        }
        watchdog.watch("");
        for (size_t i = 0; i < loads.size(); ++i) {
            movedNs[i] = monotonicNs();
        }
        while (monotonicNs() < endNs && complaints() == 0) {
            pauseUs(static_cast<unsigned>(
                std::clamp<int64_t>((endNs - monotonicNs()) / 1000, 1000, 200'000)));
            expectMovement();
            if (lineNs != 0 && monotonicNs() > lineNs + seconds(options.interval)) {
                printLine(round.restarting ? "r" : " ");
            }
        }
        for (const auto& load : loads) {
            watchdog.watch(load->name + " does not end");
            load->end();
        }
        watchdog.watch("");
        sink.read(expectations);
        Table table;
        account(table);
    }

    void expectMovement()
    {
        for (size_t i = 0; i < loads.size(); ++i) {
            const uint64_t steps = loads[i]->steps;
            if (steps != lastSteps[i]) {
                lastSteps[i] = steps;
                movedNs[i] = monotonicNs();
            } else if (monotonicNs() > movedNs[i] + seconds(options.patience)) {
                complain("stuck: %s does not get on", loads[i]->name.c_str());
                movedNs[i] = monotonicNs();
            }
        }
    }

    void account(Table& table)
    {
        // The peer nodes may still take what was sent last.
        settle();
        for (const auto& load : loads) {
            load->account(table);
        }
        expectations.account(table);
    }

    // Waits until nothing changes any more: threads that were joined vanish a moment later, and so
    // do the connections of the peer nodes.
    static void settle()
    {
        Holdings before = Holdings::now();
        for (int still = 0, i = 0; still < 4 && i < 500; ++i) {
            pauseUs(20'000);
            const Holdings now = Holdings::now();
            still = now == before ? still + 1 : 0;
            before = now;
        }
    }

    void compareWith(const Holdings& first)
    {
        Holdings now = Holdings::now();
        for (int i = 0; i < 500 && !(now == first); ++i) {
            pauseUs(20'000);
            now = Holdings::now();
        }
        const auto compare = [](const char* what, int64_t is, int64_t was) {
            if (is != was) {
                complain("%s: %lld at the end of a round, %lld at first", what,
                         static_cast<long long>(is), static_cast<long long>(was));
            }
        };
        compare("descriptors", now.descriptors, first.descriptors);
        compare("threads", now.threads, first.threads);
        compare("blocks of memory", now.blocks, first.blocks);
#if defined(__GLIBC__)
        malloc_trim(0); // what is left is in use
#endif
    }

    // `mark`: "=" at the end of a round, "r" while interrupted calls are restarted.
    void printLine(const char* mark)
    {
        const int64_t now = monotonicNs();
        std::array<uint64_t, 7> totals{};
        for (const auto& load : loads) {
            totals[static_cast<size_t>(load->kind)] += load->steps;
        }
        const double since = static_cast<double>(now - lineNs) / 1e9;
        std::printf("%6.0f", static_cast<double>(now - begunNs) / 1e9);
        constexpr int kWidths[] = {9, 10, 8, 9, 10, 9, 9};
        for (size_t i = 0; i < totals.size(); ++i) {
            const double unit = i == static_cast<size_t>(Kind::bytes) ? 1000 : 1;
            std::printf(" %*.0f", kWidths[i],
                        static_cast<double>(totals[i] - lastTotals[i]) / unit / since);
        }
        const Holdings holdings = Holdings::now();
        std::printf("  %6lld %7lld %8lld %6ld kB %s\n",
                    static_cast<long long>(holdings.descriptors),
                    static_cast<long long>(holdings.threads),
                    static_cast<long long>(holdings.blocks), residentKb(), mark);
        static_cast<void>(std::fflush(stdout));
        lastTotals = totals;
        lineNs = now;
    }

    const Options options;
    Watchdog watchdog;
    SinkFile sink;
    Expectations expectations;
    Loads loads;
    uint32_t roundNumber = 0;
    int64_t begunNs = 0;
    int64_t lineNs = 0;
    std::array<uint64_t, 7> lastTotals{};
    std::vector<uint64_t> lastSteps;
    std::vector<int64_t> movedNs;
    long warmKb = 0;
};

// --- The command line
// --------------------------------------------------------------------------------

#define TEXT_OF(number) TEXT_OF_EXPANDED(number)
#define TEXT_OF_EXPANDED(number) #number

constexpr char kUsage[] =
    "usage: soak [OPTION]...\n"
    "Keeps all of the library busy and accounts for everything that it did.\n"
    "\n"
    "  --seconds=N   how long, at least 6 (default: 60)\n"
    "  --round=N     seconds from one account to the next (default: 10)\n"
    "  --interval=N  seconds between two lines (default: 5)\n"
    "  --timers=N    how many timers live at the same time (default: " TEXT_OF(
        SOAK_TIMERS) ")\n"
                     "  --growth=N    kB that resident memory may grow once warm "
                     "(default: " TEXT_OF(
                         SOAK_GROWTH_KB) ")\n"
                                         "  --patience=N  seconds that anything may stand still "
                                         "(default: 60)\n"
                                         "  --seed=N      of what is done at random (default: the "
                                         "time)\n"
                                         "  --help        prints this\n"
                                         "\n"
                                         "A line tells the rates since the last one and what the "
                                         "process holds; it ends in '=' where all\n"
                                         "loads have ended and were accounted for, in 'r' where "
                                         "signals restart what they interrupt.\n"
                                         "The status is 1 if anything was lost, doubled, leaked, "
                                         "late or stuck.\n";

unsigned long numberOf(const char* option, const char* text, unsigned long least)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || number < least ||
        number > INT_MAX) {
        std::fprintf(stderr, "soak: --%s=%s: a number from %lu on is needed\n", option, text,
                     least);
        std::exit(2);
    }
    return number;
}

Options optionsOf(int argc, char** argv)
{
    static const option kNames[] = {{"seconds", required_argument, nullptr, 0},
                                    {"round", required_argument, nullptr, 0},
                                    {"interval", required_argument, nullptr, 0},
                                    {"timers", required_argument, nullptr, 0},
                                    {"growth", required_argument, nullptr, 0},
                                    {"patience", required_argument, nullptr, 0},
                                    {"seed", required_argument, nullptr, 0},
                                    {"help", no_argument, nullptr, 'h'},
                                    {nullptr, 0, nullptr, 0}};
    constexpr unsigned long kLeast[] = {6, 1, 1, 1, 0, 1, 0};
    Options options;
    options.seed = static_cast<unsigned long>(std::time(nullptr)) & INT_MAX;
    unsigned long* const values[] = {&options.seconds, &options.round,  &options.interval,
                                     &options.timers,  &options.growth, &options.patience,
                                     &options.seed};
    int index = 0;
    int found = 0;
    while ((found = getopt_long(argc, argv, "h", kNames, &index)) != -1) {
        if (found == 'h') {
            std::fputs(kUsage, stdout);
            std::exit(0);
        }
        if (found != 0) {
            std::fputs("Try: soak --help\n", stderr);
            std::exit(2);
        }
        *values[index] = numberOf(kNames[index].name, optarg, kLeast[index]);
    }
    if (optind != argc) {
        std::fprintf(stderr, "soak: '%s' is no option\nTry: soak --help\n", argv[optind]);
        std::exit(2);
    }
    return options;
}

} // namespace
} // namespace soak

int main(int argc, char** argv)
{
    const soak::Options options = soak::optionsOf(argc, argv);
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN; // what a process with sockets does
    sigaction(SIGPIPE, &ignore, nullptr);
    static_cast<void>(std::setvbuf(stdout, nullptr, _IOLBF, 0));
    std::printf("%lu s, seed %lu\n", options.seconds, options.seed);
    bool passed = false;
    {
        soak::Soak run(options);
        passed = run.run();
    }
    std::puts(passed ? "\nPASSED: everything is accounted for" : "\nFAILED");
    return passed ? 0 : 1;
}
