// The program kivgcl-peernode, as its users run it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/testing/PeerNode.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "Framework/VT/VorTrace.h"

using gcltest::PeerNode;
using gcltest::takeReports;
using Util::HijackApi;

extern char** environ;

namespace {

using Arguments = std::vector<std::string>;

// A run of the program with its standard output and standard error in pipes.
class Program {
public:
    // The standard output can be a file instead.
    explicit Program(Arguments arguments, const char* outputFile = nullptr)
    {
        arguments.insert(arguments.begin(), PEERNODE_PROGRAM);
        std::vector<char*> words;
        for (std::string& argument : arguments) {
            words.push_back(&argument[0]);
        }
        words.push_back(nullptr);
        int outEnds[2];
        int errorEnds[2];
        EXPECT_EQ(pipe(outEnds), 0);
        EXPECT_EQ(pipe(errorEnds), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (outputFile != nullptr) {
            posix_spawn_file_actions_addopen(&actions, 1, outputFile, O_WRONLY, 0);
        } else {
            posix_spawn_file_actions_adddup2(&actions, outEnds[1], 1);
        }
        posix_spawn_file_actions_adddup2(&actions, errorEnds[1], 2);
        for (const int end : {outEnds[0], outEnds[1], errorEnds[0], errorEnds[1]}) {
            posix_spawn_file_actions_addclose(&actions, end);
        }
        EXPECT_EQ(posix_spawn(&process, words[0], &actions, nullptr, words.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(outEnds[1]);
        close(errorEnds[1]);
        out = outEnds[0];
        error = errorEnds[0];
    }
    ~Program()
    {
        if (process > 0) {
            kill(process, SIGKILL);
            waitpid(process, nullptr, 0);
        }
        hideOutput();
        close(error);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    std::string outputLine() const
    {
        std::string line;
        for (char byte = 0; byte != '\n' && read(out, &byte, 1) == 1;) {
            line += byte;
        }
        return line;
    }
    // From now on nobody can read what the program writes.
    void hideOutput()
    {
        if (out >= 0) {
            close(out);
        }
        out = -1;
    }
    // Bytes written that nobody has read yet.
    int unreadOutput() const
    {
        int count = 0;
        EXPECT_EQ(ioctl(out, FIONREAD, &count), 0);
        return count;
    }
    std::string restOfOutput() const { return rest(out); }
    std::string restOfErrors() const { return rest(error); }

    // The port that the program says it listens on.
    uint16_t port() const
    {
        const std::string start = "listening on 127.0.0.1:";
        const std::string line = outputLine();
        EXPECT_EQ(line.substr(0, start.size()), start) << line;
        return line.size() < start.size()
                   ? uint16_t{0}
                   : static_cast<uint16_t>(std::atoi(line.c_str() + start.size()));
    }

    void signal(int number) const { EXPECT_EQ(kill(process, number), 0); }

    // Whether it ends within `limit`; its status can be asked for afterwards.
    bool ends(std::chrono::milliseconds limit) const
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        siginfo_t info{};
        do {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            EXPECT_EQ(waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT),
                      0);
        } while (info.si_pid == 0 && std::chrono::steady_clock::now() < end);
        return info.si_pid != 0;
    }

    // The exit status, -1 if a signal ended it.
    int status()
    {
        int status = 0;
        EXPECT_EQ(waitpid(process, &status, 0), process);
        process = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    static std::string rest(int fd)
    {
        std::string text;
        char chunk[512];
        for (ssize_t count; (count = read(fd, chunk, sizeof chunk)) > 0;) {
            text.append(chunk, static_cast<size_t>(count));
        }
        return text;
    }

    pid_t process = -1;
    int out = -1;
    int error = -1;
};

// A connected client of a program.
class Client {
public:
    explicit Client(uint16_t port, unsigned txSyncId = PeerNode::Options().rxSyncId,
                    unsigned rxSyncId = PeerNode::Options().txSyncId)
        : trace("KIV.NODE", VorTraceLevel2), api(trace, port, 600'000, txSyncId, rxSyncId)
    {
        EXPECT_TRUE(api.connectToServer("127.0.0.1"));
    }
    ~Client() { hangUp(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void hangUp()
    {
        if (api.socketFd > 0) {
            close(api.socketFd);
        }
        api.socketFd = -1;
    }
    void send(const std::string& text)
    {
        std::string bytes = text;
        EXPECT_TRUE(api.writeToNet(reinterpret_cast<unsigned char*>(&bytes[0]),
                                   static_cast<unsigned>(bytes.size()), nullptr));
    }
    // The answer, or "failed".
    std::string exchange(const std::string& text)
    {
        send(text);
        std::string buffer(100, '-');
        unsigned length = 0;
        if (!api.readFromNet(reinterpret_cast<unsigned char*>(&buffer[0]), 100, &length)) {
            return "failed";
        }
        return buffer.substr(0, length);
    }

    VorTrace trace;
    HijackApi api;
};

} // namespace

TEST(PeerNodeProgram, PrintsItsHelp)
{
    Program program({"--help"});
    const std::string help = program.restOfOutput();
    for (const char* const name :
         {"listen", "port", "tx-sync", "rx-sync", "mode", "first-sequence", "once", "max-payload",
          "idle-timeout", "help", "version", "garbage-every", "skip-every", "repeat-every",
          "oversize-every", "stall-every", "stall-ms", "byte-by-byte", "reset-after"}) {
        EXPECT_NE(help.find(std::string("\n  --") + name), std::string::npos) << name;
    }
    EXPECT_EQ(program.restOfErrors(), "");
    EXPECT_EQ(program.status(), 0);
}

TEST(PeerNodeProgram, PrintsItsVersion)
{
    Program program({"--version"});
    EXPECT_EQ(program.restOfOutput(), "kivgcl-peernode " PEERNODE_VERSION "\n");
    EXPECT_EQ(program.status(), 0);
}

TEST(PeerNodeProgram, RefusesBadUsage)
{
    struct Row {
        Arguments arguments;
        std::string complaint;
    };
    const std::string decimal = " is not a number from 0 to 4294967295";
    const std::string hexadecimal = " is not a hexadecimal word of up to 8 digits";
    const Row rows[] = {
        {{"--nonsense"}, "unrecognized option '--nonsense'"},
        {{"--port"}, "option '--port' requires an argument"},
        {{"--once=yes"}, "option '--once' doesn't allow an argument"},
        {{"extra"}, "unexpected argument 'extra'"},
        {{"--port=65536"}, "--port: '65536' is not a number from 0 to 65535"},
        {{"--port", "http"}, "--port: 'http' is not a number"},
        {{"--port="}, "--port: '' is not a number"},
        {{"--port=1x"}, "--port: '1x' is not a number"},
        {{"--port=-1"}, "--port: '-1' is not a number"},
        {{"--port= 1"}, "--port: ' 1' is not a number"},
        {{"--tx-sync=xyz"}, "--tx-sync: 'xyz'" + hexadecimal},
        {{"--rx-sync=0x"}, "--rx-sync: '0x'" + hexadecimal},
        {{"--rx-sync=123456789"}, "--rx-sync: '123456789'" + hexadecimal},
        {{"--mode=loud"}, "--mode: 'loud' is neither 'echo' nor 'print'"},
        {{"--first-sequence=4294967296"}, "--first-sequence: '4294967296'" + decimal},
        {{"--garbage-every=99999999999999999999"},
         "--garbage-every: '99999999999999999999'" + decimal},
        {{"--skip-every=a"}, "--skip-every: 'a'" + decimal},
        {{"--repeat-every=a"}, "--repeat-every: 'a'" + decimal},
        {{"--oversize-every=a"}, "--oversize-every: 'a'" + decimal},
        {{"--stall-every=a"}, "--stall-every: 'a'" + decimal},
        {{"--stall-ms=2147483648"},
         "--stall-ms: '2147483648' is not a number from 0 to 2147483647"},
        {{"--reset-after=a"}, "--reset-after: 'a'" + decimal},
        {{"--max-payload=67108865"},
         "--max-payload: '67108865' is not a number from 0 to 67108864"},
        {{"--idle-timeout=2147483648"},
         "--idle-timeout: '2147483648' is not a number from 0 to 2147483647"},
        {{"--listen=localhost"}, "--listen: 'localhost' is not an IPv4 address"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.complaint);
        Program program(row.arguments);
        const std::string errors = program.restOfErrors();
        EXPECT_NE(errors.find("kivgcl-peernode: " + row.complaint), std::string::npos) << errors;
        EXPECT_EQ(program.restOfOutput(), "");
        EXPECT_EQ(program.status(), 2);
    }
}

TEST(PeerNodeProgram, FailsWhereThePortIsTaken)
{
    PeerNode first{PeerNode::Options()};
    const std::string port = std::to_string(first.start());
    Program program({"--port", port});
    EXPECT_EQ(
        program.restOfErrors().rfind("kivgcl-peernode: cannot listen on 127.0.0.1:" + port, 0), 0u);
    EXPECT_EQ(program.status(), 1);
}

TEST(PeerNodeProgram, ServesClientsUntilASignalEndsIt)
{
    for (const int number : {SIGINT, SIGTERM}) {
        Program program({"--port", "0"});
        const uint16_t port = program.port();
        ASSERT_NE(port, 0);
        {
            Client client(port);
            EXPECT_EQ(client.exchange("hello"), "hello");
            client.hangUp();
            Client second(port);
            EXPECT_EQ(second.exchange("again"), "again");
            program.signal(number);
            EXPECT_EQ(program.restOfOutput(), "2 frames received, 2 sent\n");
        }
        EXPECT_EQ(program.restOfErrors(), "");
        EXPECT_EQ(program.status(), 0);
    }
    takeReports();
}

TEST(PeerNodeProgram, EndsAfterTheFirstClientIfTold)
{
    Program program({"--once", "--mode=print"});
    Client client(program.port());
    client.send("hi");
    client.hangUp();
    EXPECT_EQ(program.restOfOutput(), "frame 0, 2 bytes: 68 69\n1 frames received, 0 sent\n");
    EXPECT_EQ(program.status(), 0);
}

TEST(PeerNodeProgram, TellsThatItsOutputIsLost)
{
    const std::string complaint = "kivgcl-peernode: cannot write to standard output\n";
    for (const char* const option : {"--help", "--version", "--port=0"}) {
        Program program({option}, "/dev/full");
        EXPECT_EQ(program.restOfErrors(), complaint) << option;
        EXPECT_EQ(program.status(), 1) << option;
    }
    // In the middle, too; the broken-pipe signal must not end it without a word.
    Program program({"--mode=print"});
    Client client(program.port());
    program.hideOutput();
    client.send("lost");
    EXPECT_EQ(program.restOfErrors(), complaint);
    EXPECT_EQ(program.status(), 1);
}

TEST(PeerNodeProgram, EndsBySecondSignalWhileItsOutputIsBlocked)
{
    Program program({"--mode=print"});
    Client client(program.port());
    for (int i = 0; i < 2000; ++i) {
        client.send(std::string(33, 'x'));
    }
    // Nobody reads the lines. A pipe holds 64 kB, of the 250 kB of them.
    for (int i = 0; i < 2000 && program.unreadOutput() < 60'000; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    program.signal(SIGTERM);
    EXPECT_FALSE(program.ends(std::chrono::milliseconds(300)));
    program.signal(SIGTERM);
    EXPECT_TRUE(program.ends(std::chrono::seconds(20)));
    EXPECT_EQ(program.status(), -1);
    takeReports();
}

TEST(PeerNodeProgram, ServesTheNextClientWhereTheFirstOneIsSilent)
{
    Program program({"--idle-timeout=200", "--max-payload=4"});
    const uint16_t port = program.port();
    Client silent(port);
    Client busy(port);
    busy.send("fives"); // is hunted through
    EXPECT_EQ(busy.exchange("four"), "four");
    takeReports();
}

TEST(PeerNodeProgram, ListensWhereItIsTold)
{
    Program program({"--listen=127.0.0.2"});
    EXPECT_EQ(program.outputLine().rfind("listening on 127.0.0.2:", 0), 0u);
}

TEST(PeerNodeProgram, HandsItsOptionsToTheNode)
{
    gcltest::setTraceLevel("KIV.NODE", 2);
    const auto sequenceNumbers = [](const Arguments& arguments, unsigned txSyncId,
                                    unsigned rxSyncId) {
        Program program(arguments);
        Client client(program.port(), txSyncId, rxSyncId);
        std::vector<uint32_t> numbers;
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(client.exchange("x"), "x");
            numbers.push_back(client.api.rxSequenceNumber);
        }
        return numbers;
    };
    EXPECT_EQ(sequenceNumbers({"--first-sequence=7", "--tx-sync=0xAABBCCDD", "--rx-sync=11223344",
                               "--skip-every=2", "--garbage-every=1", "--byte-by-byte"},
                              0x11223344, 0xAABBCCDD),
              (std::vector<uint32_t>{7, 9, 10, 12}));
    EXPECT_EQ(sequenceNumbers({"--repeat-every=2", "--stall-every=1", "--stall-ms=1"},
                              PeerNode::Options().rxSyncId, PeerNode::Options().txSyncId),
              (std::vector<uint32_t>{1, 1, 2, 2}));
    takeReports();

    Program program({"--oversize-every=2", "--reset-after=3"});
    Client client(program.port());
    EXPECT_EQ(client.exchange("1"), "1");
    EXPECT_EQ(client.exchange("2"), "failed");
    EXPECT_EQ(client.exchange("3"), "3");
    takeReports();
    EXPECT_EQ(client.exchange("4"), "failed");
    const auto reports = takeReports();
    ASSERT_FALSE(reports.empty());
    EXPECT_NE(reports[0].text.find(std::strerror(ECONNRESET)), std::string::npos);
}
