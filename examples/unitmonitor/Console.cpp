#include "examples/unitmonitor/Console.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

#include "Framework/GCL/DefaultSleepApi.h"
#include "Framework/GCL/ISleepApi.h"
#include "Framework/GCL/ResultCodes.h"

namespace unitmonitor {
namespace {

constexpr uint32_t kMaxMessageSize = 1024;
constexpr unsigned kRetryMs = 20;
constexpr int kPatience = 3; // seconds that a client may be silent near the end
constexpr char kHelp[] = "commands: get NAME, last, stats, help, quit\n";

// Closes and frees the socket object that CTcpSocket_Create or CTcpSocket_WaitForConnection made.
class SocketOwner {
public:
    explicit SocketOwner(CTcpSocket* ownedSocket) : socket(ownedSocket) {}
    ~SocketOwner()
    {
        CTcpSocket_Destruct(socket);
        delete[] socket;
    }
    SocketOwner(const SocketOwner&) = delete;
    SocketOwner& operator=(const SocketOwner&) = delete;

private:
    CTcpSocket* socket;
};

bool send(CTcpSocket& socket, const std::string& text)
{
    auto length = static_cast<int32_t>(text.size());
    return CTcpSocket_Write(&socket, text.data(), &length) == GCL_OK;
}

// What one read yields; `code` tells how it went.
std::string receive(CTcpSocket& socket, uint32_t& code)
{
    char text[kMaxMessageSize] = "";
    // One byte less than the buffer holds, which is zeroed: so the text is always terminated.
    int32_t length = sizeof text - 1;
    code = CTcpSocket_ReadZT(&socket, text, &length);
    return text;
}

} // namespace

Console::Console(int servedPort, Store& sampleStore, SamplePool& samplePool)
    : port(servedPort), store(sampleStore), pool(samplePool), thread([this] { serve(); })
{
}

Console::~Console()
{
    ending = true;
    // The thread may be waiting for a client, or be about to: it gets one until it has ended. Asked
    // at other times, the port refuses, or is somebody else's.
    while (!ended) {
        Util::DefaultSleepApi::get().sleepMs(kRetryMs);
        if (waiting) {
            static_cast<void>(askConsole(port, {"quit"}));
        }
    }
    thread.join();
}

std::vector<std::string> Console::askLast(const std::vector<std::string>& commands,
                                          std::chrono::seconds limit)
{
    hurrying = true;
    const auto end = std::chrono::steady_clock::now() + limit;
    std::vector<std::string> answers;
    while (answers.size() < commands.size() && !ended && std::chrono::steady_clock::now() < end) {
        // Whoever is served at the moment comes first.
        Util::DefaultSleepApi::get().sleepMs(kRetryMs);
        if (waiting) {
            answers = askConsole(port, commands);
        }
    }
    return answers;
}

void Console::serve()
{
    while (!ending) {
        CTcpSocket* socket = nullptr;
        waiting = true;
        const uint32_t code = CTcpSocket_WaitForConnection(&socket, port, kMaxMessageSize);
        waiting = false;
        if (code != GCL_OK) {
            break; // reported; the port is not to be had
        }
        const SocketOwner owner(socket);
        talk(*socket);
    }
    ended = true;
}

void Console::talk(CTcpSocket& socket)
{
    static_cast<void>(CTcpSocket_SetTimeout(&socket, 1));
    const bool late = hurrying;
    int silentSeconds = 0;
    std::string pending;
    // Near the end, those who came before have to go; those who came later may not be silent.
    while (!ending && (late || !hurrying)) {
        uint32_t code = GCL_OK;
        pending += receive(socket, code);
        if (code == GCL_TIMED_OUT) {
            ++silentSeconds;
            if (late && silentSeconds >= kPatience) {
                return;
            }
            continue;
        }
        if (code != GCL_OK) {
            return;
        }
        silentSeconds = 0;
        for (size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            const std::string text = answer(pending.substr(0, end));
            pending.erase(0, end + 1);
            if (text.empty() || !send(socket, text)) {
                return;
            }
        }
        if (pending.size() > kMaxMessageSize) {
            return; // no command is that long
        }
    }
}

std::string Console::answer(const std::string& command)
{
    std::istringstream words(command);
    std::string verb;
    std::string name;
    words >> verb >> name;
    if (verb == "quit") {
        return "";
    }
    std::ostringstream text;
    uint32_t value = 0;
    if (verb == "get" && store.find(name, value)) {
        text << name << " = " << value << '\n';
    } else if (verb == "get") {
        text << "no figure is called '" << name << "'\n";
    } else if (verb == "last") {
        for (const Sample& sample : store.takeLast()) {
            text << '#' << sample.number << ' ' << sample.name << " = " << sample.value << '\n';
        }
    } else if (verb == "stats") {
        text << store.size() << " figures, " << pool.free() << " free blocks\n";
    } else {
        text << kHelp;
    }
    return text.str().empty() ? "nothing yet\n" : text.str();
}

int freePort()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool found = bind(fd, generic, length) == 0 && getsockname(fd, generic, &length) == 0;
    close(fd);
    if (!found) {
        throw std::runtime_error("no TCP port is free");
    }
    return ntohs(address.sin_port);
}

std::vector<std::string> askConsole(int port, const std::vector<std::string>& commands)
{
    std::vector<std::string> answers;
    CTcpSocket* socket = nullptr;
    if (CTcpSocket_Create(&socket, "127.0.0.1", port, kMaxMessageSize) != GCL_OK) {
        return answers;
    }
    const SocketOwner owner(socket);
    static_cast<void>(CTcpSocket_SetTimeout(socket, 2));
    for (const std::string& command : commands) {
        uint32_t code = GCL_OK;
        if (!send(*socket, command + "\n")) {
            break;
        }
        const std::string text = receive(*socket, code);
        if (code != GCL_OK) {
            break;
        }
        answers.push_back(text);
    }
    return answers;
}

} // namespace unitmonitor
