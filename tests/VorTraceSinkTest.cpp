// The stand-alone trace sink, seen from outside: SinkProbe reports in a process of its own, with an
// environment of its own, and what comes out is read back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/Limit.h"
#include "tests/support/Sanitizers.h"

namespace {

using Environment = std::map<std::string, std::string>;

struct Outcome {
    int exitCode; // 1000 + the signal that ended the process
    pid_t pid;
    std::string out;
    std::string err;
};

// A folder that ends with the test.
class Folder {
public:
    Folder()
    {
        char name[] = "/tmp/VorTraceSinkTest.XXXXXX";
        if (mkdtemp(name) == nullptr) {
            std::abort();
        }
        path = name;
    }
    ~Folder()
    {
        for (const char* file : {"out", "err", "log", "pipe"}) {
            static_cast<void>(unlink((path + "/" + file).c_str()));
        }
        static_cast<void>(rmdir(path.c_str()));
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    std::string operator/(const char* file) const { return path + "/" + file; }

private:
    std::string path;
};

std::string contentOf(const std::string& path)
{
    std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::vector<std::string> linesOf(const std::string& text)
{
    EXPECT_TRUE(text.empty() || text.back() == '\n') << "the last line has no end";
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

void openAs(int descriptor, const std::string& path)
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (file < 0 || dup2(file, descriptor) < 0) {
        _exit(99);
    }
    close(file);
}

// The command of the probe, behind the emulator where one is needed.
std::vector<std::string> probeCommand(const std::string& scenario)
{
    std::vector<std::string> command;
    std::istringstream emulator(SINKPROBE_EMULATOR);
    for (std::string part; std::getline(emulator, part, ' ');) {
        command.push_back(part);
    }
    command.emplace_back(SINKPROBE_PATH);
    command.push_back(scenario);
    return command;
}

[[noreturn]] void become(const std::string& scenario, const Environment& environment)
{
    unsetenv("VT_OUTPUT");
    unsetenv("VT_LEVELS");
    for (const auto& [name, value] : environment) {
        setenv(name.c_str(), value.c_str(), 1);
    }
    std::vector<std::string> command = probeCommand(scenario);
    std::vector<char*> arguments;
    for (std::string& part : command) {
        arguments.push_back(part.data());
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(98);
}

Outcome run(const std::string& scenario, const Environment& environment = {},
            const std::string& errPath = {})
{
    const Folder folder;
    const pid_t pid = fork();
    if (pid == 0) {
        openAs(STDOUT_FILENO, folder / "out");
        openAs(STDERR_FILENO, errPath.empty() ? folder / "err" : errPath);
        become(scenario, environment);
    }
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    return {exitCode, pid, contentOf(folder / "out"), contentOf(folder / "err")};
}

// The same, with the lines of standard error; the process must have ended well.
std::vector<std::string> errLinesOf(const std::string& scenario,
                                    const Environment& environment = {})
{
    const Outcome outcome = run(scenario, environment);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "");
    return linesOf(outcome.err);
}

struct Parsed {
    std::string time;
    long pid = 0;
    long tid = 0;
    std::string rest; // channel, level, file:line, function: text
};

// The groups of an extended regular expression that the text begins with; empty if it does not.
std::vector<std::string> groupsOf(const std::string& text, const char* expression)
{
    regex_t compiled;
    EXPECT_EQ(regcomp(&compiled, expression, REG_EXTENDED), 0);
    regmatch_t matches[5] = {};
    std::vector<std::string> groups;
    if (regexec(&compiled, text.c_str(), 5, matches, 0) == 0) {
        for (const regmatch_t& match : matches) {
            groups.push_back(match.rm_so < 0 ? ""
                                             : text.substr(static_cast<size_t>(match.rm_so),
                                                           static_cast<size_t>(match.rm_eo) -
                                                               static_cast<size_t>(match.rm_so)));
        }
    }
    regfree(&compiled);
    return groups;
}

Parsed parse(const std::string& line)
{
    const std::vector<std::string> groups =
        groupsOf(line.substr(0, 60), "^([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}"
                                     "\\.[0-9]{6}Z) ([0-9]+)/([0-9]+) ");
    if (groups.empty()) {
        ADD_FAILURE() << "not a line of the sink: " << line.substr(0, 200);
        return {};
    }
    return {groups[1], std::stol(groups[2]), std::stol(groups[3]), line.substr(groups[0].size())};
}

// What follows time, process and thread.
std::vector<std::string> restsOf(const std::vector<std::string>& lines)
{
    std::vector<std::string> rests;
    for (const std::string& line : lines) {
        rests.push_back(parse(line).rest);
    }
    return rests;
}

std::vector<std::string> restsOf(const std::string& scenario, const Environment& environment = {})
{
    return restsOf(errLinesOf(scenario, environment));
}

std::string onChannel(const std::string& text, int level = 1)
{
    return "KIV.TEST " + std::to_string(level) + " dir/File:12 function: " + text;
}

std::string onClass(const std::string& text, int level = 1)
{
    return "KIV.CLASS " + std::to_string(level) + " dir/File:12 function: " + text;
}

using Lines = std::vector<std::string>;

// As in the probe's scenario.
constexpr size_t kLengths[] = {0, 1, 900, 940, 1022, 1023, 1024, 1025, 2048, 5000, 100000};

void expectAlive(const std::string& scenario, const Environment& environment = {})
{
    const Outcome outcome = run(scenario, environment);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "alive\n");
}

// Whether the platform heeds a limit of the address space.
[[maybe_unused]] bool addressSpaceIsLimited()
{
    constexpr size_t kSize = 1u << 24;
    const gcltest::Limit limit(RLIMIT_AS, gcltest::addressSpace());
    void* const memory = mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return true;
    }
    munmap(memory, kSize);
    return false;
}

void expectThreadsKeptApart(const Lines& lines)
{
    EXPECT_EQ(lines.size(), 16000u);
    int next[8] = {};
    std::map<long, char> threadOfTid;
    for (const std::string& line : lines) {
        const Parsed parsed = parse(line);
        const size_t at = parsed.rest.find("function: t");
        ASSERT_NE(at, std::string::npos) << line.substr(0, 200);
        const std::string text = parsed.rest.substr(at + 11);
        const int thread = text[0] - '0';
        ASSERT_TRUE(thread >= 0 && thread < 8) << line.substr(0, 200);
        const int number = next[thread]++;
        const std::string filling(number % 100 == 0 ? 9000u : 40u, static_cast<char>('A' + thread));
        ASSERT_EQ(text, std::to_string(thread) + " i" + std::to_string(number) + " " + filling);
        ASSERT_EQ(threadOfTid.emplace(parsed.tid, text[0]).first->second, text[0]);
    }
    EXPECT_EQ(threadOfTid.size(), 8u);
}

} // namespace

TEST(VorTraceSinkLine, CarriesAReportOfTheLibrary)
{
    const Lines rests = restsOf("fromLibrary");
    ASSERT_EQ(rests.size(), 1u);
    EXPECT_FALSE(groupsOf(rests[0], "^KIV\\.GCL 1 Framework/GCL/private/CList:[1-9][0-9]* "
                                    "CList_GetNext: pThis is NULL!      code: 0x8008$")
                     .empty())
        << rests[0];
}

TEST(VorTraceSinkLine, CarriesTimeProcessAndThread)
{
    const time_t before = time(nullptr);
    const Outcome outcome = run("oneMessage");
    const time_t after = time(nullptr);
    ASSERT_EQ(linesOf(outcome.err).size(), 1u);
    const Parsed parsed = parse(linesOf(outcome.err)[0]);
    EXPECT_EQ(parsed.pid, outcome.pid);
    EXPECT_EQ(parsed.tid, outcome.pid);
    EXPECT_EQ(parsed.rest, onChannel("text"));
    tm utc{};
    ASSERT_NE(strptime(parsed.time.c_str(), "%Y-%m-%dT%H:%M:%S", &utc), nullptr);
    EXPECT_GE(timegm(&utc), before);
    EXPECT_LE(timegm(&utc), after);
}

TEST(VorTraceSinkLine, CarriesTheIdOfTheReportingThread)
{
    const Outcome outcome = run("tidOfThread");
    const Parsed parsed = parse(outcome.err);
    EXPECT_EQ(parsed.pid, outcome.pid);
    EXPECT_NE(parsed.tid, outcome.pid);
    EXPECT_EQ(parsed.rest, onChannel("tid " + std::to_string(parsed.tid)) + "\n");
}

TEST(VorTraceSinkLine, CarriesTheTimeToTheMicrosecondInEveryCentury)
{
    Lines times;
    for (const std::string& line : errLinesOf("timeStamp", {{"TZ", "Asia/Tokyo"}})) {
        times.push_back(parse(line).time);
    }
    EXPECT_EQ(times, (Lines{"1970-01-01T00:00:00.000000Z", "2038-01-19T03:14:07.999999Z",
                            "2038-01-19T03:14:08.000001Z", "2100-01-01T00:00:00.123456Z",
                            "2026-11-21T01:20:33.123456Z"}));
}

TEST(VorTraceSinkLine, CarriesTheDateOfEachMonthsEnds)
{
    const Outcome outcome = run("calendar");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
}

TEST(VorTraceSinkLine, FunctionsReturnZero)
{
    EXPECT_EQ(restsOf("results"), Lines{onChannel("x1")});
}

TEST(VorTraceSinkLine, TurnsNewlinesIntoBlanks)
{
    EXPECT_EQ(
        restsOf("newlines"),
        (Lines{onChannel("a b"), onChannel("a"), onChannel("a "), onChannel(""), onChannel(""),
               onChannel("one       code: 0x8010"), "two lines 1 fi le:1 fun ction: x"}));
}

TEST(VorTraceSinkLine, TakesNullPointers)
{
    EXPECT_EQ(restsOf("nullPointers"),
              (Lines{"? 1 ?:0 ?: no channel", "? 1 ?:7 ?: no names", onChannel("?"),
                     " 1 dir/File:12 function: empty name", "? 3 ?:7 ?: nameless"}));
}

TEST(VorTraceSinkLine, KeepsNeitherHeaderNorName)
{
    EXPECT_EQ(restsOf("headerIsNotKept"),
              (Lines{"KIV.COPY 1 file:3 file: kept", "KIV.CLASS 1 dir/File:12 function: copied"}));
}

TEST(VorTraceSinkLine, HasAnyLength)
{
    Lines expected;
    for (const size_t length : kLengths) {
        std::string text;
        for (size_t i = 0; i < length; ++i) {
            text += static_cast<char>('a' + i % 26);
        }
        expected.push_back(onChannel(text));
        expected.push_back(onClass(text));
    }
    EXPECT_EQ(restsOf("lengths"), expected);
}

TEST(VorTraceSinkLine, HasAnyLengthAroundTheThreadsOwnBuffer)
{
    Lines expected;
    for (size_t length = 880; length < 1030; ++length) {
        expected.push_back(onChannel(std::string(length, 'f')));
        expected.push_back(onClass(std::string(length, 'd')));
        expected.push_back(onChannel(std::string(length, 'n') + "!"));
    }
    EXPECT_EQ(restsOf("lengthSweep"), expected);
}

TEST(VorTraceSinkMemory, UsualMessagesAllocateNothing)
{
    EXPECT_EQ(
        restsOf("usualMessagesAllocateNothing"),
        (Lines{onChannel("first use"), onChannel("second"), onClass("third"), onClass("fourth")}));
}

TEST(VorTraceSinkMemory, IsAskedForWhenALineIsFull)
{
    const Outcome outcome = run("roomOfALine");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
}

TEST(VorTraceSinkMemory, CutsAMessageThatCannotGrow)
{
    const Lines rests = restsOf("growthFails");
    ASSERT_EQ(rests.size(), 4u);
    // About 1 KiB a line with its front.
    const auto expectCut = [](const std::string& rest, const std::string& start, char filling,
                              size_t least, size_t most) {
        const std::string front = onChannel(start);
        ASSERT_EQ(rest.substr(0, front.size()), front);
        const std::string tail = rest.substr(front.size());
        EXPECT_EQ(tail.find_first_not_of(filling), std::string::npos);
        EXPECT_GT(tail.size(), least);
        EXPECT_LT(tail.size(), most);
    };
    expectCut(rests[0], "", 'x', 850, 1000);
    expectCut(rests[1], "head ", 'x', 850, 1000);
    expectCut(rests[2], std::string(1500, 'y'), 'z', 300, 99999);
    EXPECT_EQ(rests[3], onChannel("whole again " + std::string(3000, 'x')));
}

TEST(VorTraceSinkMemory, AnObjectWithoutImplWritesNothing)
{
    EXPECT_EQ(restsOf("noImpl"), Lines{onChannel("end")});
}

TEST(VorTraceSinkMemory, SetLevelWithoutMemoryChangesNothing)
{
    EXPECT_EQ(errLinesOf("setLevelWithoutMemory"), Lines{});
}

TEST(VorTraceSinkMemory, AnEntryOfTheVariableIsSkippedInSilence)
{
    EXPECT_EQ(errLinesOf("levelsWithoutMemory", {{"VT_LEVELS", "A=5,B=6"}}), Lines{});
}

TEST(VorTraceSinkMemory, AComplaintThatCannotBeMadeIsLeftOut)
{
    EXPECT_EQ(restsOf("complaintWithoutMemory", {{"VT_LEVELS", "bad"}}), Lines{onChannel("text")});
}

TEST(VorTraceSinkMessage, IsOneAThread)
{
    EXPECT_EQ(restsOf("oneMessageAThread"),
              (Lines{onChannel("first"), onClass("second", 2), onChannel("third")}));
}

TEST(VorTraceSinkMessage, ShowsTheFormatThatCannotBeFormatted)
{
    EXPECT_EQ(restsOf("unformattable"), Lines{onChannel("<%d and %lc>")});
}

TEST(VorTraceSinkMessage, IsEmittedWhenItsThreadEnds)
{
    EXPECT_EQ(restsOf("leftOpen"), Lines{onChannel("left open")});
    EXPECT_EQ(restsOf("endingThreads").size(), 50u);
}

TEST(VorTraceSinkMessage, WorksUntilTheVeryEndOfAThread)
{
    EXPECT_EQ(restsOf("veryEndOfAThread"),
              (Lines{onChannel("in the thread"), onChannel("from a thread_local destructor"),
                     onClass("from a key's destructor 1"), onClass("from a key's destructor 2"),
                     onClass("from a key's destructor 3")}));
}

TEST(VorTraceSinkMessage, WorksWithoutThreadKeys)
{
    EXPECT_EQ(restsOf("manyKeys"), Lines{onClass("without keys")});
}

TEST(VorTraceSinkMessage, AsksOnceForTheEndOfItsThread)
{
    EXPECT_EQ(restsOf("threadEndIsAskedForOnce"), (Lines{onChannel("first"), onChannel("second")}));
}

TEST(VorTraceSinkMessage, MayBeTheFirstOfTwoThreadsAtOnce)
{
    EXPECT_EQ(restsOf("keyInBetween"), (Lines{onChannel("between"), onChannel("behind")}));
}

TEST(VorTraceSinkMessage, WorksBeforeAndAfterStaticObjects)
{
    EXPECT_EQ(restsOf("atExit", {{"PROBE_EARLY", "1"}}),
              (Lines{onChannel("from a constructor function"),
                     "KIV.EARLY 1 dir/File:12 function: by an early stream",
                     onChannel("from atexit"), onChannel("from a destructor function"),
                     "KIV.LATE 1 dir/File:12 function: by a late stream"}));
}

TEST(VorTraceSinkMessage, KeepsErrno)
{
    EXPECT_EQ(restsOf("errnoIsKept"), (Lines{onChannel("error No such file or directory%lc"),
                                             onClass("x"), onClass("text")}));
}

TEST(VorTraceSinkMessage, IsNotCancelledHalfWay)
{
    EXPECT_EQ(restsOf("cancellation"), Lines(10, onChannel("not cancelled")));
}

TEST(VorTraceSinkStream, CompletesAMessageOnFlush)
{
    Lines rests = restsOf("streams");
    ASSERT_FALSE(rests.empty());
    const std::string cut = rests.back();
    rests.pop_back();
    EXPECT_EQ(rests, (Lines{onClass("number 42 -7.ff"), onClass("ff!", 2), onClass("good part "),
                            onClass("good again"), onClass("empty")}));
    // What the line has room for of a text without end.
    const std::string front = onClass("");
    EXPECT_EQ(cut.substr(0, front.size()), front);
    EXPECT_EQ(cut.find_first_not_of('z', front.size()), std::string::npos);
    EXPECT_GT(cut.size(), 900u);
    EXPECT_LT(cut.size(), 1024u);
}

TEST(VorTraceSinkThreads, AreKeptApartInAFile)
{
    expectThreadsKeptApart(errLinesOf("manyThreads"));
}

TEST(VorTraceSinkThreads, AreKeptApartInAPipe)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        become("manyThreads", {});
    }
    close(ends[1]);
    std::string text;
    char part[65536];
    for (ssize_t count = 0; (count = read(ends[0], part, sizeof part)) > 0;) {
        text.append(part, static_cast<size_t>(count));
    }
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    expectThreadsKeptApart(linesOf(text));
}

TEST(VorTraceSinkThreads, WriteOneAtATime)
{
    EXPECT_EQ(errLinesOf("oneWriteAtATime"), Lines{});
}

TEST(VorTraceSinkThreads, MaySetLevels)
{
    EXPECT_EQ(errLinesOf("setLevelByThreads"), Lines{});
    EXPECT_EQ(errLinesOf("setLevelInBetween"), Lines{});
}

TEST(VorTraceSinkThreads, MayForkWhileOthersReport)
{
    const Outcome outcome = run("forkWhileReporting");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    const Lines lines = linesOf(outcome.err);
    ASSERT_EQ(lines.size(), 5u);
    Lines rests = restsOf(lines);
    const Parsed child = parse(lines[1]);
    EXPECT_NE(child.pid, outcome.pid);
    EXPECT_EQ(child.tid, child.pid);
    EXPECT_EQ(rests, (Lines{onChannel("warm"), onChannel("child"),
                            "KIV.CHILD 3 dir/File:12 function: child's stream", onChannel("slow"),
                            onChannel("parent, child " + std::to_string(child.pid))}));
}

TEST(VorTraceSinkThreads, MayForkWhileABadVariableIsNamed)
{
#ifdef GCLTEST_THREAD_SANITIZER
    GTEST_SKIP() << "ThreadSanitizer's pthread_once does not begin anew in a child process";
#endif
    const Outcome outcome = run("forkWhileComplaining", {{"VT_LEVELS", "bad"}});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    // The child names the entry for itself.
    const std::string complaint = "VorTrace: VT_LEVELS: \"bad\" is not name=level and is ignored";
    const Lines lines = linesOf(outcome.err);
    ASSERT_EQ(lines.size(), 4u) << outcome.err;
    EXPECT_EQ(lines[0], complaint);
    EXPECT_EQ(parse(lines[1]).rest, onChannel("child"));
    EXPECT_EQ(lines[2], complaint);
    EXPECT_EQ(parse(lines[3]).rest, onChannel("slow"));
}

TEST(VorTraceSinkThreads, KeepTheirOpenMessageOverAFork)
{
    EXPECT_EQ(restsOf("forkWithAnOpenMessage"),
              (Lines{onChannel("child"), onChannel("begun before the fork, ended after it")}));
}

TEST(VorTraceSinkLevels, LookAtNoThreshold)
{
    EXPECT_EQ(restsOf("silencedChannel"), (Lines{"KIV.SILENCED 1 dir/File:12 function: written"}));
}

TEST(VorTraceSinkLevels, PassEveryChannelMessageWithoutASetting)
{
    for (const Environment& environment : {Environment{}, Environment{{"VT_LEVELS", ""}}}) {
        EXPECT_EQ(errLinesOf("levelsOfChannels", environment).size(), 18u);
    }
}

TEST(VorTraceSinkLevels, DropWhatIsAboveTheLevelOfTheName)
{
    Lines expected;
    for (int level = 0; level <= 8; ++level) {
        if (level <= 3) {
            expected.push_back(onChannel("t" + std::to_string(level), level));
        }
        if (level <= 1) {
            expected.push_back("KIV.OTHER " + std::to_string(level) + " dir/File:12 function: o" +
                               std::to_string(level));
        }
    }
    EXPECT_EQ(restsOf("levelsOfChannels", {{"VT_LEVELS", "KIV.TEST=3,*=1"}}), expected);
    EXPECT_EQ(restsOf("levelsOfChannels", {{"VT_LEVELS", "*=1,KIV.TEST=3"}}), expected);
}

TEST(VorTraceSinkLevels, LeaveOthersAlone)
{
    EXPECT_EQ(errLinesOf("levelsOfChannels", {{"VT_LEVELS", "KIV.TEST=-1"}}).size(), 9u);
}

TEST(VorTraceSinkLevels, OfAnObjectAreItsOwnWithoutASetting)
{
    const auto trace = [](int level) {
        return "KIV.A " + std::to_string(level) + " dir/File:12 function: a" +
               std::to_string(level);
    };
    EXPECT_EQ(restsOf("levelsOfObjects"), (Lines{trace(1), trace(2), trace(3)}));
}

TEST(VorTraceSinkLevels, OfObjectsComeFromTheVariable)
{
    const std::map<std::string, std::string> levels = {
        {"", "3 3 5\n"},
        {"A=6", "6 3 5\n"},
        {"*=2", "2 2 2\n"},
        {"*=2,A=6", "6 2 2\n"},
        {"A=1,B=2,C D=7", "1 2 7\n"},
        {" A = 1 ,\tB\t=\t2\t, C D =7 ", "1 2 7\n"},
        {"A=1,A=4", "4 3 5\n"}, // the last holds
        {"A=2147483647,B=-2147483648", "2147483647 -2147483648 5\n"},
        {"A=0,B=-1", "0 -1 5\n"},
        {"a=7,AA=7,=7x", "3 3 5\n"},
    };
    for (const auto& [variable, expected] : levels) {
        EXPECT_EQ(run("printLevels", {{"VT_LEVELS", variable}}).out, expected) << variable;
    }
}

TEST(VorTraceSinkLevels, NameABadEntryOnceAndKeepTheGoodOnes)
{
    for (const std::string bad :
         {"nonsense", "=5", "B=", "B=x", "B=5x", "B=2147483648", "B=-2147483649", "B=4.5", "B= 5 6",
          "B=0x5", "B=99999999999999", "~B~"}) {
        const Outcome outcome = run("printLevels", {{"VT_LEVELS", "A=6," + bad + ", C D=7"}});
        EXPECT_EQ(outcome.out, "6 3 7\n") << bad;
        EXPECT_EQ(outcome.err,
                  "VorTrace: VT_LEVELS: \"" + bad + "\" is not name=level and is ignored\n");
    }
    const Outcome outcome = run("printLevels", {{"VT_LEVELS", "x,,A=2,y\nz"}});
    EXPECT_EQ(outcome.out, "2 3 5\n");
    EXPECT_EQ(outcome.err, "VorTrace: VT_LEVELS: \"x\" is not name=level and is ignored\n"
                           "VorTrace: VT_LEVELS: \"\" is not name=level and is ignored\n"
                           "VorTrace: VT_LEVELS: \"y z\" is not name=level and is ignored\n");
}

TEST(VorTraceSinkLevels, NameALongBadEntryInPart)
{
    const Outcome outcome = run("printLevels", {{"VT_LEVELS", std::string(5000, 'x')}});
    EXPECT_EQ(outcome.out, "3 3 5\n");
    EXPECT_EQ(outcome.err, "VorTrace: VT_LEVELS: \"" + std::string(300, 'x') +
                               "\" is not name=level and is ignored\n");
}

TEST(VorTraceSinkSetLevel, HoldsAtOnce)
{
    EXPECT_EQ(restsOf("setLevel"), (Lines{onChannel("passes", 3), onChannel("is completed", 3),
                                          onChannel("passes now", 4)}));
}

TEST(VorTraceSinkSetLevel, TakesPrecedenceOverTheVariable)
{
    EXPECT_EQ(run("setLevelFirst", {{"VT_LEVELS", "A=7,B=6"}}).out, "1 6 5\n");
}

TEST(VorTraceSinkOutput, IsStandardErrorByDefault)
{
    for (const Environment& environment :
         {Environment{}, Environment{{"VT_OUTPUT", ""}}, Environment{{"VT_OUTPUT", "stderr"}}}) {
        EXPECT_EQ(restsOf("oneMessage", environment), Lines{onChannel("text")});
    }
}

TEST(VorTraceSinkOutput, MayBeStandardOutput)
{
    const Outcome outcome = run("oneMessage", {{"VT_OUTPUT", "stdout"}});
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(restsOf(linesOf(outcome.out)), Lines{onChannel("text")});
}

TEST(VorTraceSinkOutput, MayBeAFileThatIsAppendedTo)
{
    const Folder folder;
    const std::string log = folder / "log";
    const mode_t mask = umask(027);
    for (int i = 0; i < 2; ++i) {
        const Outcome outcome = run("fileIsClosedOnExec", {{"VT_OUTPUT", log}});
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
        EXPECT_EQ(outcome.out + outcome.err, "");
    }
    umask(mask);
    EXPECT_EQ(restsOf(linesOf(contentOf(log))), Lines(2, onChannel("opens the file")));
    struct stat status {};
    ASSERT_EQ(stat(log.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
}

TEST(VorTraceSinkOutput, MakesAFileThatAllMayReadAndWrite)
{
    const Folder folder;
    const std::string log = folder / "log";
    const mode_t mask = umask(0);
    EXPECT_EQ(run("oneMessage", {{"VT_OUTPUT", log}}).exitCode, 0);
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(log.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0666u);
}

TEST(VorTraceSinkOutput, MakesNoFileWithoutAMessage)
{
    const Folder folder;
    EXPECT_EQ(run("nothing", {{"VT_OUTPUT", folder / "log"}}).exitCode, 0);
    EXPECT_NE(access((folder / "log").c_str(), F_OK), 0);
}

TEST(VorTraceSinkOutput, KeepsItsFileOffClosedStandardStreams)
{
    const Folder folder;
    EXPECT_EQ(run("fileKeepsOffStandardStreams", {{"VT_OUTPUT", folder / "log"}}).exitCode, 0);
    EXPECT_EQ(restsOf(linesOf(contentOf(folder / "log"))),
              (Lines{onChannel("first"), onChannel("second")}));
}

TEST(VorTraceSinkOutput, KeepsItsFileOffClosedStandardError)
{
    const Folder folder;
    EXPECT_EQ(run("fileKeepsOffStandardError", {{"VT_OUTPUT", folder / "log"}}).exitCode, 0);
    EXPECT_EQ(restsOf(linesOf(contentOf(folder / "log"))),
              (Lines{onChannel("first"), onChannel("second")}));
}

TEST(VorTraceSinkOutput, SaysWhyItsFileCannotBeKeptOffAStandardStream)
{
    const Folder folder;
    const std::string log = folder / "log";
    const Lines lines = errLinesOf("fileCannotBeMoved", {{"VT_OUTPUT", log}});
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "VorTrace: VT_OUTPUT: \"" + log + "\" cannot be opened (errno: " +
                            std::to_string(EMFILE) + "), standard error is used");
    EXPECT_EQ(parse(lines[1]).rest, onChannel("text"));
}

TEST(VorTraceSinkOutput, FallsBackToStandardErrorAndSaysSoOnce)
{
    const Folder folder;
    const std::string pipe = folder / "pipe"; // a pipe that nobody reads
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::map<std::string, int> paths = {
        {"/nowhere/at/all", ENOENT}, {"/tmp", EISDIR}, {pipe, ENXIO}};
    for (const auto& [path, error] : paths) {
        const Lines lines = errLinesOf("newlines", {{"VT_OUTPUT", path}});
        ASSERT_EQ(lines.size(), 8u);
        EXPECT_EQ(lines[0], "VorTrace: VT_OUTPUT: \"" + path + "\" cannot be opened (errno: " +
                                std::to_string(error) + "), standard error is used");
        EXPECT_EQ(restsOf(Lines(lines.begin() + 1, lines.end()))[0], onChannel("a b"));
    }
}

TEST(VorTraceSinkOutput, MayBeTheSystemsLog)
{
    const Outcome outcome = run("toSyslog", {{"VT_OUTPUT", "syslog"}});
    EXPECT_EQ(outcome.err, "");
    const int priorities[] = {3, 3, 4, 5, 6, 6, 7, 7, 7}; // LOG_ERR to LOG_DEBUG
    const Lines lines = linesOf(outcome.out);
    ASSERT_EQ(lines.size(), 10u);
    for (int level = 0; level <= 8; ++level) {
        const std::string& line = lines[static_cast<size_t>(level)];
        EXPECT_EQ(line.substr(0, 2), std::to_string(priorities[level]) + " ");
        EXPECT_EQ(parse(line.substr(2)).rest,
                  onChannel("level %s%n " + std::to_string(level), level));
    }
    EXPECT_EQ(parse(lines[9].substr(2)).rest, onChannel("two lines"));
}

TEST(VorTraceSinkFailingOutput, ClosedStandardError)
{
    const Folder folder;
    const Outcome outcome = run("closedStderr", {{"PROBE_FILE", folder / "log"}});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(restsOf(linesOf(contentOf(folder / "log"))), Lines{onChannel("found")});
}

TEST(VorTraceSinkFailingOutput, FullDisk)
{
    EXPECT_EQ(run("oneMessage", {}, "/dev/full").exitCode, 0);
    EXPECT_EQ(run("oneMessage", {{"VT_OUTPUT", "/dev/full"}}).exitCode, 0);
    EXPECT_EQ(run("oneMessage", {{"VT_LEVELS", "bad"}}, "/dev/full").exitCode, 0);
}

TEST(VorTraceSinkFailingOutput, FileAtItsSizeLimit)
{
    const Folder folder;
    expectAlive("fileAtItsLimit", {{"VT_OUTPUT", folder / "log"}});
    EXPECT_EQ(contentOf(folder / "log").size(), 150u);
}

TEST(VorTraceSinkFailingOutput, OfComplaintsIsNoMatterOfTheMessages)
{
    const Folder folder;
    const std::string before(4096 - 9, 'x');
    std::ofstream(folder / "err") << before;
    const Outcome outcome =
        run("complaintAtTheLimit", {{"VT_LEVELS", "bad"}, {"VT_OUTPUT", folder / "log"}},
            folder / "err");
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, "alive\n");
    EXPECT_EQ(contentOf(folder / "err"), before + "VorTrace:");
    EXPECT_EQ(restsOf(linesOf(contentOf(folder / "log"))),
              (Lines{onChannel("one"), onChannel("two")}));
}

TEST(VorTraceSinkFailingOutput, PipeWithoutAReader)
{
    expectAlive("brokenPipe");
    expectAlive("brokenPipeKeepsAPendingSignal");
}

TEST(VorTraceSinkFailingOutput, LeavesOtherSignalsAlone)
{
    const Outcome outcome = run("failedWriteKeepsAPendingSignal");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(errLinesOf("writeHoldsBackItsSignals"), Lines{});
}

TEST(VorTraceSinkFailingOutput, IsWaitedForATenthOfASecond)
{
    const Outcome outcome = run("patienceWithAFullPipe");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
}

TEST(VorTraceSinkFailingOutput, IsWaitedForAlsoWhereAPipeIsChosen)
{
    const Folder folder;
    const std::string path = folder / "pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int pipe = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(pipe, 0);
    const std::string filling(4096, 'x');
    while (write(pipe, filling.data(), filling.size()) > 0) {
    }
    const auto before = std::chrono::steady_clock::now();
    const Outcome outcome = run("oneMessage", {{"VT_OUTPUT", path}});
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(100));
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.err, "");
    close(pipe);
}

TEST(VorTraceSinkFailingOutput, FullPipeInNonBlockingMode)
{
    expectAlive("fullPipe");
}

TEST(VorTraceSinkFailingOutput, SlowReaderOfANonBlockingPipe)
{
    expectAlive("slowReader");
}

TEST(VorTraceSinkFailingOutput, EveryResultOfWrite)
{
    const Outcome outcome = run("writeResults");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
}

TEST(VorTraceSinkFailingOutput, FileAtItsSizeLimitKeepsAPendingSignal)
{
    const Folder folder;
    expectAlive("fileAtItsLimitKeepsAPendingSignal", {{"VT_OUTPUT", folder / "log"}});
    EXPECT_EQ(contentOf(folder / "log").size(), 10u);
}

TEST(VorTraceSinkLimits, WithoutMemoryCutLongMessagesUntilThereIsSomeAgain)
{
#if defined(GCLTEST_ADDRESS_SANITIZER) || defined(GCLTEST_THREAD_SANITIZER)
    GTEST_SKIP() << "the sanitizer takes most of the address space for itself";
#endif
    if (!addressSpaceIsLimited()) {
        GTEST_SKIP() << "the emulator does not limit the address space";
    }
    const Lines rests = restsOf("memoryExhausted");
    ASSERT_EQ(rests.size(), 4u);
    EXPECT_EQ(rests[0], onChannel("warm"));
    EXPECT_EQ(rests[1], onChannel("short"));
    EXPECT_EQ(rests[2].substr(0, 900), onChannel(std::string(3000, 'x')).substr(0, 900));
    EXPECT_LT(rests[2].size(), 1100u);
    EXPECT_EQ(rests[3], onChannel("whole again " + std::string(3000, 'x')));
}

TEST(VorTraceSinkLimits, WithoutDescriptorsStandardErrorIsUsedInsteadOfAFile)
{
#ifdef GCLTEST_ADDRESS_SANITIZER
    GTEST_SKIP() << "the undefined-behaviour sanitizer needs descriptors for its own checks";
#endif
    const Folder folder;
    const std::string path = folder / "log";
    const Outcome outcome = run("descriptorsExhausted", {{"VT_OUTPUT", path}});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    const Lines lines = linesOf(outcome.err);
    ASSERT_EQ(lines.size(), 3u) << outcome.err;
    EXPECT_EQ(lines[0], "VorTrace: VT_OUTPUT: \"" + path +
                            "\" cannot be opened (errno: 24), standard error is used");
    EXPECT_EQ(parse(lines[1]).rest, onChannel("without descriptors"));
    EXPECT_EQ(parse(lines[2]).rest, onChannel("with descriptors"));
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(VorTraceSinkMessage, ShowsTheFormatWhereTheSecondAttemptFails)
{
    EXPECT_EQ(restsOf("unformattableAnew"), Lines{onChannel("%s")});
}
