// SinkProbe <scenario>: a process of its own that reports through libVorTrace, for the tests that
// read back what comes out. The sink takes its configuration from the environment once a process,
// hence a process for each scenario. It exits with 0 if the checks that it makes itself have held.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <new>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/VT/VT.h"
#include "Framework/VT/VorTrace.h"
#include "tests/support/Limit.h"

using gcltest::Count;
using gcltest::Failure;
using gcltest::Fault;
using gcltest::Hook;
using gcltest::Threads;
namespace calls = gcltest::calls;

namespace {

TraceChannel channel = {0x1003, "KIV.TEST"};
const VorTraceHeader kHeader = {"dir/File", 12, "function"};

[[noreturn]] void fail(const char* what, int line)
{
    // Not through stdio, whose streams a scenario may have spoilt; the code tells the line.
    static_cast<void>(!write(STDERR_FILENO, what, strlen(what)));
    static_cast<void>(!write(STDERR_FILENO, "\n", 1));
    _exit(line % 100 + 100);
}
#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fail("check failed: " #condition, __LINE__);                                           \
        }                                                                                          \
    } while (false)

// One message on the channel.
void say(const std::string& text, int level = 1)
{
    VT_beginImpl(&channel, level, &kHeader);
    VT_rawprintf(&channel, "%s", text.c_str());
    VT_endImpl(&channel);
}

void sayThrough(VorTrace& trace, VorTraceLevel level, const std::string& text)
{
    trace.beginLogMsg(level, kHeader);
    trace.logMsgData(text.data(), static_cast<unsigned>(text.size()));
    trace.endLogMsg();
}

int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A pipe in the place of standard error, whose reading end stays with the scenario.
class StderrPipe {
public:
    explicit StderrPipe(bool nonBlocking)
    {
        int ends[2];
        CHECK(pipe(ends) == 0);
        reader = ends[0];
        CHECK(dup2(ends[1], STDERR_FILENO) == STDERR_FILENO);
        close(ends[1]);
        if (nonBlocking) {
            CHECK(fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK) == 0);
            CHECK(fcntl(reader, F_SETFL, O_NONBLOCK) == 0);
        }
    }
    ~StderrPipe() { closeReader(); }
    StderrPipe(const StderrPipe&) = delete;
    StderrPipe& operator=(const StderrPipe&) = delete;

    // What is in the pipe now.
    std::string drain() const
    {
        std::string all;
        char part[4096];
        for (ssize_t count = 0; (count = read(reader, part, sizeof part)) > 0;) {
            all.append(part, static_cast<size_t>(count));
        }
        return all;
    }
    void closeReader()
    {
        if (reader >= 0) {
            close(reader);
        }
        reader = -1;
    }

private:
    int reader;
};

size_t countOf(const std::string& text, const std::string& piece)
{
    size_t count = 0;
    for (size_t at = 0; (at = text.find(piece, at)) != std::string::npos; at += piece.size()) {
        ++count;
    }
    return count;
}

void fromLibrary()
{
    CListNode* position = nullptr;
    unsigned long item = 0;
    CHECK(CList_GetNext(nullptr, &item, &position) == 0x8008);
}

void oneMessage()
{
    say("text");
}

void tidOfThread()
{
    std::thread([] { say("tid " + std::to_string(syscall(SYS_gettid))); }).join();
}

void results()
{
    CHECK(VT_beginImpl(&channel, 1, &kHeader) == 0);
    CHECK(VT_rawprintf(&channel, "x%d", 1) == 0);
    CHECK(VT_endImpl(&channel) == 0);
}

void newlines()
{
    say("a\nb");
    say("a\n");
    say("a\n\n");
    say("\n");
    say("");
    VT_beginImpl(&channel, 1, &kHeader);
    VT_rawprintf(&channel, "one\n");
    VT_rawprintf(&channel, "      code: %#lx\n", 0x8010ul);
    VT_endImpl(&channel);
    TraceChannel odd = {1, "two\nlines"};
    const VorTraceHeader header = {"fi\nle", 1, "fun\nction"};
    VT_beginImpl(&odd, 1, &header);
    VT_rawprintf(&odd, "x");
    VT_endImpl(&odd);
}

void nullPointers()
{
    TraceChannel nameless = {1, nullptr};
    const VorTraceHeader empty = {nullptr, 7, nullptr};
    VT_beginImpl(nullptr, 1, nullptr);
    VT_rawprintf(nullptr, "no channel");
    VT_endImpl(nullptr);
    VT_beginImpl(&nameless, 1, &empty);
    VT_rawprintf(&nameless, "no names");
    VT_endImpl(&nameless);
    VT_beginImpl(&channel, 1, &kHeader);
    const char* const volatile noFormat = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    VT_rawprintf(&channel, noFormat);
#pragma GCC diagnostic pop
    VT_endImpl(&channel);
    VT_setLevel(nullptr, 0);
    VT_setLevel("", 0); // sets nothing for this one:
    TraceChannel unnamed = {1, ""};
    VT_beginImpl(&unnamed, 1, &kHeader);
    VT_rawprintf(&unnamed, "empty name");
    VT_endImpl(&unnamed);
    VorTrace trace(nullptr, VorTraceLevel3);
    trace.beginLogMsg(VorTraceLevel3, empty);
    trace.logMsgData(nullptr, 5);
    trace.logMsgData("nameless", 8);
    trace.endLogMsg();
}

void headerIsNotKept()
{
    {
        char file[] = "file";
        char name[] = "KIV.COPY";
        TraceChannel ownChannel = {1, name};
        VorTraceHeader header = {file, 3, file};
        VT_beginImpl(&ownChannel, 1, &header);
        memset(file, 'X', 4);
        memset(name, 'X', 8);
        header = {nullptr, 0, nullptr};
        VT_rawprintf(&ownChannel, "kept");
        VT_endImpl(&ownChannel);
    }
    char name[] = "KIV.CLASS";
    VorTrace trace(name, VorTraceLevel3);
    memset(name, 'X', 9);
    sayThrough(trace, VorTraceLevel1, "copied");
}

constexpr size_t kLengths[] = {0, 1, 900, 940, 1022, 1023, 1024, 1025, 2048, 5000, 100000};

void lengths()
{
    for (const size_t length : kLengths) {
        std::string text;
        for (size_t i = 0; i < length; ++i) {
            text += static_cast<char>('a' + i % 26);
        }
        say(text);
        // The same in many pieces, some formatted, through both interfaces.
        VorTrace trace("KIV.CLASS", VorTraceLevel7);
        trace.beginLogMsg(VorTraceLevel1, kHeader);
        for (size_t i = 0; i < length; i += 100) {
            const std::string piece = text.substr(i, 100);
            if (i % 200 == 0) {
                VT_rawprintf(&channel, "%s", piece.c_str());
            } else {
                trace.logMsgData(piece.data(), static_cast<unsigned>(piece.size()));
            }
        }
        trace.endLogMsg();
    }
}

// Every length around the end of the thread's own buffer, formatted and as data, and a single
// character behind it.
void lengthSweep()
{
    VorTrace trace("KIV.CLASS", VorTraceLevel7);
    for (size_t length = 880; length < 1030; ++length) {
        say(std::string(length, 'f'));
        sayThrough(trace, VorTraceLevel1, std::string(length, 'd'));
        VT_beginImpl(&channel, 1, &kHeader);
        VT_rawprintf(&channel, "%s", std::string(length, 'n').c_str());
        VT_rawprintf(&channel, "!");
        VT_rawprintf(&channel, "\n");
        VT_endImpl(&channel);
    }
}

void usualMessagesAllocateNothing()
{
    say("first use");
    VorTrace trace("KIV.CLASS", VorTraceLevel7);
    const Count arrays(calls::newArray);
    const Count scalars(calls::newScalar);
    say("second");
    sayThrough(trace, VorTraceLevel1, "third");
    trace.beginLogMsg(VorTraceLevel1, kHeader);
    trace.stream() << "fourth" << std::flush;
    CHECK(arrays.calls() == 0 && scalars.calls() == 0);
}

void growthFails()
{
    const std::string text(3000, 'x');
    {
        const Fault fault(calls::newArray, {0, 0, 1, Failure::kForGood});
        say(text);
        VT_beginImpl(&channel, 1, &kHeader);
        VT_rawprintf(&channel, "%s", "head ");
        VT_rawprintf(&channel, "%s", text.c_str());
        VT_rawprintf(&channel, "%s", "lost");
        VT_endImpl(&channel);
        CHECK(fault.failures() >= 2);
    }
    {
        // The first growth passes, the second fails.
        const Fault fault(calls::newArray, {0, 0, 2, Failure::kForGood});
        VT_beginImpl(&channel, 1, &kHeader);
        VT_rawprintf(&channel, "%s", std::string(1500, 'y').c_str());
        VT_rawprintf(&channel, "%s", std::string(100000, 'z').c_str());
        VT_endImpl(&channel);
    }
    say("whole again " + text);
}

// By the system's own limits, what other scenarios do by faults.
void memoryExhausted()
{
    const std::string filling(3000, 'x');
    say("warm");
    {
        const gcltest::NoMemory noMemory;
        say("short");
        say(filling);
        const VorTrace trace("KIV.NONE", VorTraceLevel3);
        CHECK(!trace.hasImpl());
    }
    say("whole again " + filling);
    const VorTrace trace("KIV.NONE", VorTraceLevel3);
    CHECK(trace.hasImpl());
}

// The file cannot be opened, and is not tried again.
void descriptorsExhausted()
{
    const int next = dup(STDIN_FILENO);
    CHECK(next >= 0 && close(next) == 0);
    {
        const gcltest::Limit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next));
        say("without descriptors");
    }
    say("with descriptors");
}

// The C++ library's operator new[] may be made of its operator new, which counts as well. While it
// lives, only the calls of operator new by itself are failed.
class WholeArrays {
public:
    explicit WholeArrays(bool wanted)
    {
        if (wanted) {
            inside.emplace(calls::newArray); // what is called inside of it is left alone
        }
    }

private:
    std::optional<Count<void*(size_t)>> inside;
};

void noImpl()
{
    for (gcltest::Call<void*(size_t)>* call : {&calls::newScalar, &calls::newArray}) {
        alignas(VorTrace) unsigned char place[sizeof(VorTrace)];
        VorTrace* object = nullptr;
        {
            const WholeArrays wholeArrays(call == &calls::newScalar);
            const Fault fault(*call, {0, 0, 1, Failure::kForGood});
            object = new (place) VorTrace("KIV.NONE", VorTraceLevel7);
            CHECK(fault.failures() == 1);
        }
        CHECK(!object->hasImpl());
        CHECK(object->level() == 0);
        sayThrough(*object, VorTraceLevel1, "never written");
        object->stream() << "nor this" << std::flush;
        object->discardStream() << "nor that" << std::flush;
        object->~VorTrace();
    }
    VorTrace trace("KIV.SOME", VorTraceLevel7);
    CHECK(trace.hasImpl());
    say("end");
}

// Without memory VT_setLevel changes nothing.
void setLevelWithoutMemory()
{
    VorTrace trace("KIV.A", VorTraceLevel3);
    for (gcltest::Call<void*(size_t)>* call : {&calls::newScalar, &calls::newArray}) {
        const WholeArrays wholeArrays(call == &calls::newScalar);
        const Fault fault(*call, {0, 0, 1, Failure::kForGood});
        VT_setLevel("KIV.A", 5);
        CHECK(fault.failures() == 1);
        CHECK(trace.level() == 3);
    }
    VT_setLevel("KIV.A", 5);
    CHECK(trace.level() == 5);
    const Count arrays(calls::newArray);
    VT_setLevel("KIV.A", 6); // known by now
    CHECK(arrays.calls() == 0);
    CHECK(trace.level() == 6);
}

// An entry of VT_LEVELS for which there is no memory is skipped, and nothing is said.
void levelsWithoutMemory()
{
    const VorTrace a("A", VorTraceLevel3);
    const VorTrace b("B", VorTraceLevel3);
    {
        const Fault fault(calls::newArray, {0, 0, 1});
        CHECK(a.level() == 3);
        CHECK(fault.failures() == 1);
    }
    CHECK(b.level() == 6);
}

// A complaint that cannot be formatted is not made.
void complaintWithoutMemory()
{
    const Fault fault(calls::vsnprintf, {-1, ENOMEM, 1});
    say("text");
    CHECK(fault.failures() == 1);
}

void oneMessageAThread()
{
    VT_rawprintf(&channel, "before any message");
    VT_endImpl(&channel);
    VT_beginImpl(&channel, 1, &kHeader);
    VT_rawprintf(&channel, "first");
    VorTrace trace("KIV.CLASS", VorTraceLevel3);
    trace.beginLogMsg(VorTraceLevel2, kHeader);
    trace.logMsgData("second", 6);
    trace.beginLogMsg(VorTraceLevel7, kHeader); // dropped, but it completes the second
    trace.logMsgData("dropped", 7);
    trace.endLogMsg();
    trace.logMsgData("between", 7);
    say("third");
    trace.endLogMsg();
}

void unformattable()
{
    // A character that the C locale cannot convert.
    VT_beginImpl(&channel, 1, &kHeader);
    VT_rawprintf(&channel, "<");
    VT_rawprintf(&channel, "%d and %lc", 5, static_cast<wint_t>(0x20AC));
    VT_rawprintf(&channel, ">");
    VT_endImpl(&channel);
}

// The second attempt, with more memory for the text, fails.
void unformattableAnew()
{
    const Fault fault(calls::vsnprintf, {-1, ENOMEM, 2});
    VT_beginImpl(&channel, 1, &kHeader);
    VT_rawprintf(&channel, "%s", std::string(2000, 'x').c_str());
    VT_endImpl(&channel);
    CHECK(fault.failures() == 1);
}

// Messages of all levels on KIV.TEST and KIV.OTHER.
void levelsOfChannels()
{
    TraceChannel other = {0x1003, "KIV.OTHER"};
    for (int level = 0; level <= 8; ++level) {
        say("t" + std::to_string(level), level);
        VT_beginImpl(&other, level, &kHeader);
        VT_rawprintf(&other, "o%d", level);
        VT_endImpl(&other);
    }
}

void printLevels()
{
    const VorTrace a("A", VorTraceLevel3);
    const VorTrace b("B", VorTraceLevel3);
    const VorTrace c("C D", VorTraceLevel5);
    printf("%d %d %d\n", a.level(), b.level(), c.level());
}

void levelsOfObjects()
{
    VorTrace trace("KIV.A", VorTraceLevel3);
    CHECK(trace.level() == 3);
    for (int level = 1; level <= 7; ++level) {
        sayThrough(trace, static_cast<VorTraceLevel>(level), "a" + std::to_string(level));
    }
}

void setLevel()
{
    VorTrace before("KIV.A", VorTraceLevel3);
    VorTrace other("KIV.B", VorTraceLevel4);
    VT_setLevel("KIV.A", 6);
    CHECK(before.level() == 6 && other.level() == 4);
    VorTrace after("KIV.A", VorTraceLevel1);
    CHECK(after.level() == 6);
    VT_setLevel("*", 2);
    CHECK(before.level() == 6 && after.level() == 6 && other.level() == 2);
    VT_setLevel("KIV.A", 5);
    CHECK(before.level() == 5 && after.level() == 5);
    VT_setLevel("*", 7);
    CHECK(before.level() == 5 && other.level() == 7);
    VT_setLevel("KIV.A", -1);
    CHECK(before.level() == -1);
    sayThrough(before, VorTraceLevel1, "never");
    VT_setLevel("KIV.TEST", 3);
    say("passes", 3);
    VT_beginImpl(&channel, 3, &kHeader);
    VT_rawprintf(&channel, "is completed");
    say("is dropped", 4);
    VT_setLevel("KIV.TEST", 4);
    say("passes now", 4);
}

void setLevelFirst()
{
    // Before anything else has read VT_LEVELS, which must not take it back.
    VT_setLevel("A", 1);
    printLevels();
}

void setLevelByThreads()
{
    std::vector<std::thread> threads;
    VorTrace trace("KIV.T0", VorTraceLevel3);
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&trace] {
            for (int i = 0; i < 200; ++i) {
                VT_setLevel(("KIV.T" + std::to_string(i % 20)).c_str(), 4);
                CHECK(trace.level() == 4 || trace.level() == 3);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // Names that are new to the sink, by all threads at once.
    threads.clear();
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                VT_setLevel(("KIV.NEW" + std::to_string(i * 8 + t)).c_str(), 4);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const Count arrays(calls::newArray);
    for (int i = 0; i < 8 * 200; ++i) {
        VT_setLevel(("KIV.NEW" + std::to_string(i)).c_str(), 5);
    }
    for (int i = 0; i < 20; ++i) {
        const std::string name = "KIV.T" + std::to_string(i);
        VT_setLevel(name.c_str(), 7);
    }
    CHECK(arrays.calls() == 0);
    CHECK(trace.level() == 7);
}

// Another thread sets the level of a name while this one makes room for its own: both mean one
// setting, and the one that is not used is freed.
void setLevelInBetween()
{
    VorTrace trace("KIV.RACE", VorTraceLevel3);
    bool between = false;
    {
        const Hook hook(calls::newScalar, [&between](size_t size) -> void* {
            if (!between) {
                between = true;
                std::thread([] { VT_setLevel("KIV.RACE", 5); }).join();
            }
            return calls::newScalar.real(size);
        });
        VT_setLevel("KIV.RACE", 6);
    }
    CHECK(between);
    CHECK(trace.level() == 6);
    VT_setLevel("KIV.RACE", 7);
    CHECK(trace.level() == 7);
}

void manyThreads()
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t] {
            VorTrace trace("KIV.CLASS", VorTraceLevel7);
            for (int i = 0; i < 2000; ++i) {
                // Some lines are longer than what a pipe takes in one piece.
                const std::string filling(i % 100 == 0 ? 9000u : 40u, static_cast<char>('A' + t));
                if (i % 3 == 0) {
                    trace.beginLogMsg(VorTraceLevel1, kHeader);
                    trace.stream() << 't' << t << " i" << i << ' ' << filling << std::endl;
                } else {
                    VT_beginImpl(&channel, 1, &kHeader);
                    VT_rawprintf(&channel, "t%d ", t);
                    VT_rawprintf(&channel, "i%d %s", i, filling.c_str());
                    VT_endImpl(&channel);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// Many short-lived threads, each leaving something behind.
void endingThreads()
{
    for (int t = 0; t < 50; ++t) {
        std::thread([t] {
            VorTrace trace("KIV.CLASS", VorTraceLevel7);
            trace.beginLogMsg(VorTraceLevel1, kHeader);
            trace.stream() << "open " << t << std::string(2000, 'x');
            trace.discardStream().iword(50) = 1; // memory of the stream
            trace.stream().iword(50) = 1;
        }).join();
    }
}

struct LateReporter {
    ~LateReporter() { say("from a thread_local destructor"); }
};

pthread_key_t lateKey;

void onLateKey(void*)
{
    static thread_local int rounds;
    if (++rounds < 3) { // after the sink's own clean-up in the later rounds
        pthread_setspecific(lateKey, &lateKey);
    }
    VorTrace trace("KIV.CLASS", VorTraceLevel7);
    trace.beginLogMsg(VorTraceLevel1, kHeader);
    trace.stream() << "from a key's destructor " << rounds << std::flush;
}

void veryEndOfAThread()
{
    CHECK(pthread_key_create(&lateKey, onLateKey) == 0);
    std::thread([] {
        static thread_local LateReporter reporter;
        static_cast<void>(&reporter);
        pthread_setspecific(lateKey, &lateKey);
        say("in the thread");
    }).join();
}

// Another thread is the first one with an open message, while this one makes the key for its own.
void keyInBetween()
{
    bool between = false;
    const Hook hook(calls::pthread_key_create,
                    [&between](pthread_key_t* key, void (*atEnd)(void*)) {
                        if (!between) {
                            between = true;
                            std::thread([] { say("between"); }).join();
                        }
                        return calls::pthread_key_create.real(key, atEnd);
                    });
    const Count deletions(calls::pthread_key_delete);
    say("behind");
    CHECK(between);
    CHECK(deletions.calls() == 1); // of the key that is not used
}

void leftOpen()
{
    std::thread([] {
        VT_beginImpl(&channel, 1, &kHeader);
        VT_rawprintf(&channel, "left open");
    }).join();
}

void closedStderr()
{
    close(STDERR_FILENO);
    errno = 77;
    say("lost");
    CHECK(errno == 77);
    // The next one is tried again.
    const int file = open(getenv("PROBE_FILE"), O_WRONLY | O_CREAT, 0600);
    CHECK(file == STDERR_FILENO);
    say("found");
}

void fileKeepsOffStandardStreams()
{
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    say("first");
    CHECK(fcntl(STDIN_FILENO, F_GETFD) < 0);
    CHECK(fcntl(STDOUT_FILENO, F_GETFD) < 0);
    CHECK(fcntl(STDERR_FILENO, F_GETFD) < 0);
    say("second");
}

// The first descriptor behind the standard streams is as good as any.
void fileKeepsOffStandardError()
{
    const int lowest = fcntl(STDOUT_FILENO, F_DUPFD, STDERR_FILENO + 1);
    CHECK(lowest > STDERR_FILENO && close(lowest) == 0);
    close(STDERR_FILENO);
    say("first");
    CHECK(fcntl(STDERR_FILENO, F_GETFD) < 0);
    const int flags = fcntl(lowest, F_GETFL);
    CHECK(flags != -1 && (flags & O_APPEND) != 0);
    say("second");
}

// Its file comes in the place of a standard stream and cannot be moved.
void fileCannotBeMoved()
{
    close(STDIN_FILENO);
    {
        const Fault fault(calls::fcntl, {-1, EMFILE, 1});
        const Hook hook(calls::close, [](int descriptor) {
            CHECK(calls::close.real(descriptor) == 0);
            errno = EIO;
            return -1;
        });
        say("text");
        CHECK(fault.failures() == 1 && hook.calls() == 1);
    }
    CHECK(fcntl(STDIN_FILENO, F_GETFD) < 0);
}

void fileIsClosedOnExec()
{
    say("opens the file");
    int found = 0;
    for (int descriptor = 3; descriptor < 20; ++descriptor) {
        const int flags = fcntl(descriptor, F_GETFL);
        if (flags >= 0 && (flags & O_APPEND) != 0) {
            ++found;
            CHECK(fcntl(descriptor, F_GETFD) == FD_CLOEXEC);
        }
    }
    CHECK(found == 1);
}

void brokenPipe()
{
    StderrPipe pipe(false);
    pipe.closeReader();
    say("no one listens");
    {
        // The signal is fetched although the first attempt is interrupted.
        const Fault fault(calls::sigtimedwait, {-1, EINTR, 1});
        say("nor now");
        CHECK(fault.failures() == 1);
    }
    VorTrace trace("KIV.CLASS", VorTraceLevel7);
    sayThrough(trace, VorTraceLevel1, "nor to this");
    // Nothing is left pending, and the mask is as it was.
    sigset_t set;
    CHECK(sigpending(&set) == 0 && sigismember(&set, SIGPIPE) == 0);
    CHECK(pthread_sigmask(SIG_BLOCK, nullptr, &set) == 0 && sigismember(&set, SIGPIPE) == 0);
    printf("alive\n");
}

void brokenPipeKeepsAPendingSignal()
{
    sigset_t pipeOnly;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    CHECK(pthread_sigmask(SIG_BLOCK, &pipeOnly, nullptr) == 0);
    CHECK(raise(SIGPIPE) == 0);
    StderrPipe pipe(false);
    pipe.closeReader();
    say("no one listens");
    sigset_t set;
    CHECK(sigpending(&set) == 0 && sigismember(&set, SIGPIPE) == 1);
    CHECK(pthread_sigmask(SIG_BLOCK, nullptr, &set) == 0 && sigismember(&set, SIGPIPE) == 1);
    printf("alive\n");
}

void fileAtItsLimit()
{
    say("fits");
    rlimit before = {};
    CHECK(getrlimit(RLIMIT_FSIZE, &before) == 0);
    const rlimit limit = {150, before.rlim_max};
    CHECK(setrlimit(RLIMIT_FSIZE, &limit) == 0);
    say(std::string(200, 'x')); // in part
    say("lost");
    CHECK(setrlimit(RLIMIT_FSIZE, &before) == 0); // the process may have files of its own to write
    printf("alive\n");
}

// Standard error is at its limit but for 9 bytes, the output is another file.
void complaintAtTheLimit()
{
    rlimit before = {};
    CHECK(getrlimit(RLIMIT_FSIZE, &before) == 0);
    const rlimit limit = {4096, before.rlim_max};
    CHECK(setrlimit(RLIMIT_FSIZE, &limit) == 0);
    say("one");
    say("two");
    CHECK(setrlimit(RLIMIT_FSIZE, &before) == 0);
    printf("alive\n");
}

// As brokenPipeKeepsAPendingSignal, with the signal of the file at its limit.
void fileAtItsLimitKeepsAPendingSignal()
{
    sigset_t limitOnly;
    sigemptyset(&limitOnly);
    sigaddset(&limitOnly, SIGXFSZ);
    CHECK(pthread_sigmask(SIG_BLOCK, &limitOnly, nullptr) == 0);
    CHECK(raise(SIGXFSZ) == 0);
    rlimit before = {};
    CHECK(getrlimit(RLIMIT_FSIZE, &before) == 0);
    const rlimit limit = {10, before.rlim_max};
    CHECK(setrlimit(RLIMIT_FSIZE, &limit) == 0);
    say("in part"); // the second write of the line raises the signal
    say("lost");
    CHECK(setrlimit(RLIMIT_FSIZE, &before) == 0);
    sigset_t set;
    CHECK(sigpending(&set) == 0 && sigismember(&set, SIGXFSZ) == 1);
    CHECK(pthread_sigmask(SIG_BLOCK, nullptr, &set) == 0 && sigismember(&set, SIGXFSZ) == 1);
    printf("alive\n");
}

void fullPipe()
{
    StderrPipe pipe(true);
    std::string filling(70000, 'x');
    const int64_t before = nowMs();
    say(filling); // more than the pipe takes: its head is written, the rest dropped after the wait
    const int64_t waited = nowMs() - before;
    CHECK(waited >= 95);
    CHECK(waited < 5000);
    const int64_t again = nowMs();
    for (int i = 0; i < 100; ++i) {
        say("dropped"); // without a wait: 100 of them would take 10 s
    }
    CHECK(nowMs() - again < 5000);
    std::string text = pipe.drain();
    CHECK(text.size() > 4000 && text.size() < filling.size());
    CHECK(countOf(text, "\n") == 0);
    say("next");
    say("last");
    text = pipe.drain();
    CHECK(text.front() == '\n'); // ends the torn line
    CHECK(countOf(text, "\n") == 3);
    CHECK(text.find(": next\n") != std::string::npos);
    CHECK(text.find(": last\n") != std::string::npos);
    // The patience is back.
    const int64_t third = nowMs();
    say(filling);
    CHECK(nowMs() - third >= 95);
    printf("alive\n");
}

// A reader that is only slow loses nothing.
void slowReader()
{
    StderrPipe pipe(true);
    const std::string filling(200000, 'y');
    std::string text;
    std::thread reader([&] {
        while (text.empty() || text.back() != '\n') {
            text += pipe.drain();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    say(filling);
    reader.join();
    CHECK(text.size() > filling.size());
    CHECK(countOf(text, "y") == filling.size());
    CHECK(countOf(text, "\n") == 1);
    printf("alive\n");
}

// The sequence of results that write gives; what passes is collected.
class ScriptedWrite {
public:
    struct Step {
        ssize_t most; // bytes taken at most, kAllButOne, or -1
        int error;    // what it leaves in errno; 0 leaves errno alone
    };
    static constexpr ssize_t kAllButOne = -2;
    explicit ScriptedWrite(std::vector<Step> script)
        : steps(std::move(script)),
          hook(calls::write, [this](int fd, const void* data, size_t size) -> ssize_t {
              descriptor = fd;
              const Step step =
                  index < steps.size() ? steps[index] : Step{static_cast<ssize_t>(size), 0};
              ++index;
              if (step.error != 0) {
                  errno = step.error;
              }
              if (step.most == -1) {
                  return -1;
              }
              const size_t taken = step.most == kAllButOne
                                       ? size - 1
                                       : std::min(size, static_cast<size_t>(step.most));
              text.append(static_cast<const char*>(data), taken);
              return static_cast<ssize_t>(taken);
          })
    {
    }
    std::string text;
    size_t index = 0;
    int descriptor = -1;

private:
    std::vector<Step> steps;
    Hook<ssize_t(int, const void*, size_t)> hook;
};

void writeResults()
{
    {
        ScriptedWrite script({});
        say("whole");
        CHECK(script.index == 1 && script.descriptor == STDERR_FILENO);
        CHECK(countOf(script.text, ": whole\n") == 1 && script.text.front() != '\n');
    }
    {
        ScriptedWrite script({{-1, EINTR}, {5, 0}, {-1, EINTR}, {7, 0}});
        say("in pieces");
        CHECK(script.index == 5);
        CHECK(countOf(script.text, ": in pieces\n") == 1 && countOf(script.text, "\n") == 1);
    }
    for (const int error : {ENOSPC, EBADF, EIO, EPIPE, EFBIG}) {
        ScriptedWrite script({{-1, error}});
        say("dropped");
        CHECK(script.index == 1 && script.text.empty());
        say("next");
        CHECK(script.index == 2 && countOf(script.text, "\n") == 1);
        CHECK(script.text.front() != '\n');
    }
    {
        ScriptedWrite script({{10, 0}, {-1, ENOSPC}, {-1, ENOSPC}, {1, 0}, {-1, ENOSPC}});
        say("torn");                      // 10 bytes of it
        say("lost");                      // nothing
        say("only the newline in front"); // ends the torn line
        const size_t torn = script.text.size();
        CHECK(torn == 11 && script.text.back() == '\n');
        say("next");
        CHECK(countOf(script.text, "\n") == 2 && script.text[torn] != '\n');
    }
    {
        ScriptedWrite script({{10, 0}, {-1, ENOSPC}, {5, 0}, {-1, ENOSPC}});
        say("torn");
        say("torn again"); // a newline and 4 bytes
        say("next");
        CHECK(script.text[10] == '\n' && script.text[15] == '\n');
        CHECK(countOf(script.text, "\n") == 3);
    }
    {
        ScriptedWrite script({{ScriptedWrite::kAllButOne, 0}});
        say("last byte by itself");
        CHECK(script.index == 2);
        CHECK(countOf(script.text, "\n") == 1 && script.text.back() == '\n');
    }
    {
        ScriptedWrite script({{ScriptedWrite::kAllButOne, 0}, {-1, ENOSPC}});
        say("lacks its newline");
        const size_t torn = script.text.size();
        say("next");
        CHECK(script.text[torn] == '\n' && countOf(script.text, "\n") == 2);
    }
    for (const int error : {0, EINTR, EAGAIN}) { // of an earlier call
        ScriptedWrite script({{0, error}});
        say("nothing taken");
        CHECK(script.index == 1);
    }
}

// The patience, to the millisecond: the clock moves only while poll waits.
void patienceWithAFullPipe()
{
    int64_t now = 5950; // a second ends within the wait
    const Hook clock(calls::clock_gettime64, [&now](clockid_t, gcltest::Timespec64* time) {
        time->tv_sec = now / 1000;
        time->tv_nsec = static_cast<decltype(time->tv_nsec)>(now % 1000 * 1'000'000);
        return 0;
    });
    std::vector<int> waits;
    const Hook wait(calls::poll, [&](pollfd* entries, nfds_t count, int limit) {
        CHECK(count == 1 && entries->fd == STDERR_FILENO);
        CHECK(entries->events == POLLOUT && entries->revents == 0);
        waits.push_back(limit);
        now += limit == 100 ? 99 : limit;
        return 0;
    });
    const ScriptedWrite::Step full = {-1, EAGAIN};
    const ScriptedWrite::Step whole = {99999, 0};
    ScriptedWrite script({full, full, full, full, whole, full, whole});
    say("waited for");
    CHECK(waits == (std::vector<int>{100, 1}));
    CHECK(script.index == 3 && script.text.empty());
    say("not waited for");
    CHECK(script.index == 4 && waits.size() == 2);
    say("taken at once");
    CHECK(script.index == 5 && waits.size() == 2);
    say("waited for again");
    CHECK(script.index == 7 && waits == (std::vector<int>{100, 1, 100}));
    CHECK(countOf(script.text, "\n") == 2);
}

// A line has 1024 bytes with the newlines around it, then twice as many or what its text needs.
void roomOfALine()
{
    ScriptedWrite script({});
    say("");
    const size_t fitting = 1024 - 1 - script.text.size();
    VorTrace trace("KIV.CLASS", VorTraceLevel7);
    std::vector<size_t> asked;
    const auto expectAsked = [&](size_t length, const std::vector<size_t>& expected) {
        const std::string text(length, 'x');
        {
            const Hook hook(calls::newArray, [&asked](size_t size) {
                asked.push_back(size);
                return calls::newArray.real(size);
            });
            const Count formatted(calls::vsnprintf);
            say(text);
            CHECK(asked == expected);
            CHECK(formatted.calls() == 1 + expected.size());
            asked.clear();
            VT_beginImpl(&channel, 1, &kHeader);
            trace.logMsgData(text.data(), static_cast<unsigned>(text.size()));
            VT_endImpl(&channel);
            CHECK(asked == expected);
            asked.clear();
        }
    };
    expectAsked(fitting, {});
    expectAsked(fitting + 1, {2048});
    expectAsked(fitting + 1024, {2048});
    expectAsked(fitting + 1025, {2049});

    // Without memory, text and front are cut at the 1024th byte, whatever it is.
    const Fault fault(calls::newArray, {0, 0, 1, Failure::kForGood});
    const std::string newlines(3000, '\n');
    TraceChannel odd = {1, newlines.c_str()};
    for (const bool inFront : {false, true}) {
        script.text.clear();
        VT_beginImpl(inFront ? &odd : &channel, 1, &kHeader);
        VT_rawprintf(&channel, "%s", std::string(3000, 'x').c_str());
        VT_endImpl(&channel);
        CHECK(script.text.size() == 1023);
        CHECK(countOf(script.text, "\n") == 1 && script.text.back() == '\n');
    }

    // A length beyond all memory is not even asked for.
    const std::string filling(2000, 'z');
    const unsigned before = fault.calls();
    for (const size_t length : {SIZE_MAX / 4, SIZE_MAX / 4 + 1}) {
        trace.beginLogMsg(VorTraceLevel1, kHeader);
        trace.stream().rdbuf()->sputn(filling.data(), static_cast<std::streamsize>(length));
        trace.endLogMsg();
        CHECK(fault.calls() == before + 1);
    }
}

bool isAsleep(pid_t thread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    const size_t name = text.rfind(") ");
    return name != std::string::npos && text[name + 2] == 'S';
}

// While one thread is inside write, another one that reports sleeps outside of it.
void oneWriteAtATime()
{
    std::atomic<int> entered{0};
    std::atomic<pid_t> other{0};
    bool alone = false;
    {
        const Hook hook(
            calls::write,
            [&](int, const void*, size_t size) {
                if (++entered == 1) {
                    while (entered == 1 && (other == 0 || !isAsleep(other))) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    }
                    alone = entered == 1;
                }
                return static_cast<ssize_t>(size);
            },
            Threads::all);
        std::thread first([] { say("first"); });
        while (entered == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::thread second([&other] {
            other = static_cast<pid_t>(syscall(SYS_gettid));
            say("second");
        });
        first.join();
        second.join();
    }
    CHECK(alone && entered == 2);
}

// Which signals a write is kept from raising: those two, and those only.
void writeHoldsBackItsSignals()
{
    sigset_t before;
    sigset_t inside;
    CHECK(pthread_sigmask(SIG_BLOCK, nullptr, &before) == 0);
    const Count cleared(calls::sigemptyset);
    const Count fetched(calls::sigtimedwait);
    {
        const Hook hook(calls::write, [&inside](int, const void*, size_t size) {
            CHECK(pthread_sigmask(SIG_BLOCK, nullptr, &inside) == 0);
            return static_cast<ssize_t>(size);
        });
        say("text");
    }
    for (int number = 1; number < 32; ++number) {
        const bool held = number == SIGPIPE || number == SIGXFSZ;
        CHECK((sigismember(&inside, number) == 1) == (held || sigismember(&before, number) == 1));
    }
    CHECK(cleared.calls() == 1);
    CHECK(fetched.calls() == 0); // none to be taken away: the write has passed
}

// A signal that was pending before stays, and the other one, which the write raises, does not.
void failedWriteKeepsAPendingSignal()
{
    for (const int own : {SIGPIPE, SIGXFSZ}) {
        const int other = own == SIGPIPE ? SIGXFSZ : SIGPIPE;
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, own);
        CHECK(pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0);
        CHECK(raise(own) == 0);
        {
            const Hook hook(calls::write, [other](int, const void*, size_t) -> ssize_t {
                CHECK(raise(other) == 0);
                errno = EPIPE;
                return -1;
            });
            say("lost");
        }
        sigset_t pending;
        CHECK(sigpending(&pending) == 0);
        CHECK(sigismember(&pending, own) == 1 && sigismember(&pending, other) == 0);
        // Where the pending ones are not to be known, none is left behind.
        const Fault unknown(calls::sigpending, {-1, EFAULT, 1});
        const Fault failing(calls::write, {-1, EPIPE, 1});
        say("lost");
        CHECK(unknown.failures() == 1);
        CHECK(sigpending(&pending) == 0 && sigismember(&pending, own) == 0);
        CHECK(pthread_sigmask(SIG_UNBLOCK, &set, nullptr) == 0);
    }
}

// The clean-up is asked for once a thread.
void threadEndIsAskedForOnce()
{
    const Count asked(calls::pthread_setspecific);
    say("first");
    CHECK(asked.calls() == 1);
    say("second");
    CHECK(asked.calls() == 1);
}

void errnoIsKept()
{
    // %m is not ISO C, but what reporters may use on this platform.
    static const char* volatile errorFormat = "error %m";
    const std::vector<std::function<void(VorTrace&)>> steps = {
        [](VorTrace&) { VT_setLevel("KIV.X", 3); },
        [](VorTrace&) { VT_beginImpl(&channel, 1, &kHeader); },
        [](VorTrace&) { VT_rawprintf(&channel, errorFormat, 0); },
        [](VorTrace&) { VT_rawprintf(&channel, "%lc", static_cast<wint_t>(0x20AC)); },
        [](VorTrace&) { VT_endImpl(&channel); },
        [](VorTrace& trace) { trace.beginLogMsg(VorTraceLevel1, kHeader); },
        [](VorTrace& trace) { trace.logMsgData("x", 1); },
        [](VorTrace& trace) { trace.endLogMsg(); },
        [](VorTrace& trace) { trace.beginLogMsg(VorTraceLevel1, kHeader); },
        [](VorTrace& trace) { trace.stream() << "text" << std::endl; },
        [](VorTrace& trace) { trace.discardStream() << "text" << std::endl; },
        [](VorTrace& trace) { CHECK(trace.hasImpl() && trace.level() == 7); },
        [](VorTrace&) { VorTrace("KIV.SHORT", VorTraceLevel3); },
    };
    errno = ENOENT;
    VorTrace trace("KIV.CLASS", VorTraceLevel7); // the first use of all
    CHECK(errno == ENOENT);
    for (const bool failing : {false, true}) {
        const Fault fault(calls::write, {-1, EIO, 1, failing ? Failure::kForGood : 0});
        for (const auto& step : steps) {
            errno = ENOENT;
            step(trace);
            CHECK(errno == ENOENT);
        }
    }
}

// Calls a buffer's own function, as the streams of the C++ library may.
struct Overflow : std::streambuf {
    static int_type of(std::streambuf& buffer, int_type character)
    {
        return (buffer.*&Overflow::overflow)(character);
    }
};

void streams()
{
    VorTrace trace("KIV.CLASS", VorTraceLevel3);
    trace.stream() << "outside" << std::flush;
    trace.beginLogMsg(VorTraceLevel1, kHeader);
    trace.stream() << "number " << 42u << ' ' << -7 << '.' << std::hex << 255 << std::endl;
    trace.stream() << "after the flush" << std::flush;
    trace.beginLogMsg(VorTraceLevel4, kHeader); // above the level
    trace.stream() << "too low" << std::flush;
    trace.beginLogMsg(VorTraceLevel2, kHeader);
    trace.stream() << 255; // formatting stays
    trace.discardStream() << "discarded" << 'x' << std::endl;
    CHECK(trace.discardStream().good());
    trace.stream().put('!');
    trace.stream() << std::dec << std::endl;
    trace.beginLogMsg(VorTraceLevel1, kHeader);
    trace.stream() << "good part ";
    trace.stream().setstate(std::ios::badbit);
    trace.stream() << "lost part" << std::endl;
    trace.beginLogMsg(VorTraceLevel1, kHeader);
    CHECK(trace.stream().good());
    trace.stream() << "good again" << std::endl;
    // No character to be written is a success, and so is a length beyond all memory: what the line
    // has room for is taken.
    trace.beginLogMsg(VorTraceLevel1, kHeader);
    CHECK(Overflow::of(*trace.stream().rdbuf(), std::char_traits<char>::eof()) !=
          std::char_traits<char>::eof());
    trace.stream() << "empty" << std::flush;
    const std::string filling(2000, 'z');
    trace.beginLogMsg(VorTraceLevel1, kHeader);
    const std::streamsize beyond = std::numeric_limits<std::streamsize>::max();
    CHECK(trace.stream().rdbuf()->sputn(filling.data(), beyond) == beyond);
    trace.endLogMsg();
    std::ostream* const mine = &trace.stream();
    VorTrace second("KIV.SECOND", VorTraceLevel3);
    CHECK(&second.stream() == mine);
    CHECK(&trace.discardStream() != mine);
    CHECK(mine->rdbuf()->pubsync() == 0);
    std::thread([&] { CHECK(&trace.stream() != mine); }).join();
}

// Where the sink counts what is executed, only an orderly end of the process writes the counts.
[[noreturn]] void leaveChild()
{
#ifdef COVERAGE
    exit(0);
#else
    _exit(0);
#endif
}

// Forks while another thread that reports is blocked in its first write, and runs `inChild` in the
// child, which must come to an end. Returns the child's id.
template <typename InChild>
pid_t forkWhileBlockedInWrite(InChild inChild)
{
    static std::atomic<bool> inside{false};
    static std::atomic<bool> release{false};
    const Hook hook(
        calls::write,
        [](int fd, const void* data, size_t size) -> ssize_t {
            if (!inside.exchange(true)) {
                while (!release) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
            }
            return calls::write.real(fd, data, size);
        },
        Threads::all);
    std::thread reporter([] { say("slow"); });
    while (!inside) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const pid_t child = fork();
    if (child == 0) {
        alarm(20); // ends a child that hangs
        inChild();
        leaveChild();
    }
    int status = -1;
    CHECK(waitpid(child, &status, 0) == child);
    release = true;
    reporter.join();
    CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return child;
}

// The blocked thread holds the sink's lock; the child of a fork reports all the same.
void forkWhileReporting()
{
    say("warm");
    const pid_t child = forkWhileBlockedInWrite([] {
        say("child");
        VT_setLevel("KIV.CHILD", 3);
        VorTrace trace("KIV.CHILD", VorTraceLevel7);
        trace.beginLogMsg(VorTraceLevel3, kHeader);
        trace.stream() << "child's stream" << std::flush;
    });
    say("parent, child " + std::to_string(child));
}

// The blocked thread names a bad entry of VT_LEVELS, before the first line of the process; the
// child of a fork reports all the same.
void forkWhileComplaining()
{
    static_cast<void>(forkWhileBlockedInWrite([] { say("child"); }));
}

// A message that is open at a fork is the parent's alone.
void forkWithAnOpenMessage()
{
    VT_beginImpl(&channel, 1, &kHeader);
    VT_rawprintf(&channel, "%s", "begun before the fork");
    const pid_t child = fork();
    if (child == 0) {
        say("child");
        leaveChild();
    }
    int status = -1;
    CHECK(waitpid(child, &status, 0) == child);
    VT_rawprintf(&channel, "%s", ", ended after it");
    VT_endImpl(&channel);
}

// The channel's threshold is the reporter's business.
void silencedChannel()
{
    TraceChannel silenced = {0, "KIV.SILENCED"};
    VT_beginImpl(&silenced, 1, &kHeader);
    VT_rawprintf(&silenced, "%s", "written");
    VT_endImpl(&silenced);
}

void cancellation()
{
    static std::atomic<bool> finished{false};
    pthread_t thread;
    CHECK(pthread_create(
              &thread, nullptr,
              [](void*) -> void* {
                  pthread_cancel(pthread_self());
                  for (int i = 0; i < 10; ++i) { // write is a cancellation point
                      say("not cancelled");
                  }
                  int before = -1;
                  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
                  CHECK(before == PTHREAD_CANCEL_ENABLE);
                  pthread_setcancelstate(before, nullptr);
                  finished = true;
                  pthread_testcancel();
                  fail("the cancellation is lost", __LINE__);
              },
              nullptr) == 0);
    void* result = nullptr;
    CHECK(pthread_join(thread, &result) == 0);
    CHECK(finished && result == PTHREAD_CANCELED);
}

void toSyslog()
{
    std::vector<std::pair<int, std::string>> logged;
    const Hook hook(calls::syslog,
                    [&](int priority, const char* text) { logged.emplace_back(priority, text); });
    for (int level = 0; level <= 8; ++level) {
        say("level %s%n " + std::to_string(level), level);
    }
    say("two\nlines\n", 1);
    for (const auto& [priority, text] : logged) {
        printf("%d %s\n", priority, text.c_str());
    }
}

void timeStamp()
{
    struct Moment {
        long long seconds;
        long nanoseconds;
    };
    for (const Moment& moment :
         {Moment{0, 0}, Moment{2147483647, 999999999}, Moment{2147483648LL, 1000},
          Moment{4102444800LL, 123456789}, Moment{1795224033LL, 123456000}}) {
        const Hook hook(calls::clock_gettime64, [&](clockid_t, gcltest::Timespec64* time) {
            time->tv_sec = moment.seconds;
            time->tv_nsec = static_cast<decltype(time->tv_nsec)>(moment.nanoseconds);
            return 0;
        });
        say("moment");
    }
}

// The first and the last day of every month, found by counting days.
void calendar()
{
    long long day = 0;
    std::string expected;
    std::string written;
    for (int year = 1970; year <= 2262; ++year) {
        const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
        const int lengths[] = {31, leap ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        for (int month = 1; month <= 12; ++month) {
            for (const int date : {1, lengths[month - 1]}) {
                const long long seconds = (day + date - 1) * 86400 + (date == 1 ? 3600 : 86399);
                const Hook clock(calls::clock_gettime64,
                                 [seconds](clockid_t, gcltest::Timespec64* time) {
                                     time->tv_sec = static_cast<decltype(time->tv_sec)>(seconds);
                                     time->tv_nsec = 0;
                                     return 0;
                                 });
                ScriptedWrite script({});
                say("day");
                written += script.text.substr(0, 20) + "\n";
                char text[40];
                std::snprintf(text, sizeof text, "%04d-%02d-%02dT%s.\n", year, month, date,
                              date == 1 ? "01:00:00" : "23:59:59");
                expected += text;
            }
            day += lengths[month - 1];
        }
    }
    CHECK(written == expected);
}

void manyKeys()
{
    // No thread keys left: the sink works, only its clean-up does not come.
    std::vector<pthread_key_t> keys;
    pthread_key_t key;
    while (pthread_key_create(&key, nullptr) == 0) {
        keys.push_back(key);
    }
    std::thread([&keys] {
        VorTrace trace("KIV.CLASS", VorTraceLevel7);
        trace.beginLogMsg(VorTraceLevel1, kHeader);
        trace.stream() << "without keys" << std::flush;
        for (const pthread_key_t other : keys) { // those of others are left alone
            CHECK(pthread_getspecific(other) == nullptr);
        }
    }).join();
}

void nothing() {}

// A report before static objects are built, and after they are destroyed.
__attribute__((constructor(101))) void beforeAnyObject()
{
    if (getenv("PROBE_EARLY") != nullptr) {
        say("from a constructor function");
        static VorTrace* const trace = new VorTrace("KIV.EARLY", VorTraceLevel7);
        trace->beginLogMsg(VorTraceLevel1, kHeader);
        trace->stream() << "by an early stream" << std::flush;
        delete trace;
    }
}

__attribute__((destructor(101))) void afterAllObjects()
{
    if (getenv("PROBE_EARLY") != nullptr) {
        say("from a destructor function");
        VorTrace trace("KIV.LATE", VorTraceLevel7);
        trace.beginLogMsg(VorTraceLevel1, kHeader);
        trace.stream() << "by a late stream" << std::flush;
    }
}

void atExit()
{
    CHECK(atexit([] { say("from atexit"); }) == 0);
}

const std::map<std::string, void (*)()>& scenarios()
{
    static const std::map<std::string, void (*)()> table = {
        {"atExit", atExit},
        {"brokenPipe", brokenPipe},
        {"brokenPipeKeepsAPendingSignal", brokenPipeKeepsAPendingSignal},
        {"cancellation", cancellation},
        {"closedStderr", closedStderr},
        {"complaintWithoutMemory", complaintWithoutMemory},
        {"descriptorsExhausted", descriptorsExhausted},
        {"endingThreads", endingThreads},
        {"errnoIsKept", errnoIsKept},
        {"failedWriteKeepsAPendingSignal", failedWriteKeepsAPendingSignal},
        {"fileAtItsLimit", fileAtItsLimit},
        {"complaintAtTheLimit", complaintAtTheLimit},
        {"fileAtItsLimitKeepsAPendingSignal", fileAtItsLimitKeepsAPendingSignal},
        {"fileCannotBeMoved", fileCannotBeMoved},
        {"fileIsClosedOnExec", fileIsClosedOnExec},
        {"fileKeepsOffStandardError", fileKeepsOffStandardError},
        {"fileKeepsOffStandardStreams", fileKeepsOffStandardStreams},
        {"forkWhileComplaining", forkWhileComplaining},
        {"forkWhileReporting", forkWhileReporting},
        {"forkWithAnOpenMessage", forkWithAnOpenMessage},
        {"fromLibrary", fromLibrary},
        {"fullPipe", fullPipe},
        {"growthFails", growthFails},
        {"headerIsNotKept", headerIsNotKept},
        {"keyInBetween", keyInBetween},
        {"leftOpen", leftOpen},
        {"lengthSweep", lengthSweep},
        {"lengths", lengths},
        {"levelsOfChannels", levelsOfChannels},
        {"levelsOfObjects", levelsOfObjects},
        {"levelsWithoutMemory", levelsWithoutMemory},
        {"manyKeys", manyKeys},
        {"manyThreads", manyThreads},
        {"memoryExhausted", memoryExhausted},
        {"newlines", newlines},
        {"noImpl", noImpl},
        {"nothing", nothing},
        {"nullPointers", nullPointers},
        {"oneMessage", oneMessage},
        {"oneMessageAThread", oneMessageAThread},
        {"oneWriteAtATime", oneWriteAtATime},
        {"patienceWithAFullPipe", patienceWithAFullPipe},
        {"printLevels", printLevels},
        {"results", results},
        {"roomOfALine", roomOfALine},
        {"setLevel", setLevel},
        {"setLevelByThreads", setLevelByThreads},
        {"setLevelInBetween", setLevelInBetween},
        {"setLevelFirst", setLevelFirst},
        {"setLevelWithoutMemory", setLevelWithoutMemory},
        {"silencedChannel", silencedChannel},
        {"slowReader", slowReader},
        {"streams", streams},
        {"threadEndIsAskedForOnce", threadEndIsAskedForOnce},
        {"tidOfThread", tidOfThread},
        {"timeStamp", timeStamp},
        {"calendar", calendar},
        {"toSyslog", toSyslog},
        {"unformattable", unformattable},
        {"unformattableAnew", unformattableAnew},
        {"usualMessagesAllocateNothing", usualMessagesAllocateNothing},
        {"veryEndOfAThread", veryEndOfAThread},
        {"writeHoldsBackItsSignals", writeHoldsBackItsSignals},
        {"writeResults", writeResults},
    };
    return table;
}

} // namespace

int main(int argc, char** argv)
{
    const auto scenario = argc == 2 ? scenarios().find(argv[1]) : scenarios().end();
    if (scenario == scenarios().end()) {
        fprintf(stderr, "usage: %s <scenario>\n", argv[0]);
        return 2;
    }
    scenario->second();
    return 0;
}
