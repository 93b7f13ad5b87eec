// A scenario of the failure sweep: steps of one module, each with its outcome on a line. The sweep
// runs the program with libKivGCLFaults.so, fails one call and looks at the lines.
#ifndef TESTS_SWEEP_SCENARIO_H
#define TESTS_SWEEP_SCENARIO_H

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <thread>

namespace sweep {

inline long entriesOf(const char* folder)
{
    DIR* const stream = opendir(folder);
    long count = 0;
    while (stream != nullptr && readdir(stream) != nullptr) {
        ++count;
    }
    closedir(stream);
    return count;
}

// What a scenario says. Its memory is there from the start.
class Output {
public:
    static Output& get()
    {
        static Output output;
        return output;
    }

    void line(const std::string& text)
    {
        const size_t length = std::min(text.size(), sizeof all - used - 1);
        std::memcpy(all + used, text.data(), length);
        used += length;
        all[used++] = '\n';
    }

    // Whether the text has been said since the last step began.
    bool stepSaid(const char* text) const
    {
        return std::string(all + stepBegin, used - stepBegin).find(text) != std::string::npos;
    }
    void beginStep() { stepBegin = used; }

    void write(int descriptor) const
    {
        if (::write(descriptor, all, used) != static_cast<ssize_t>(used)) {
            std::abort();
        }
    }

private:
    char all[1 << 16];
    size_t used = 0;
    size_t stepBegin = 0;
};

// The preload library's answers, and the function that the sweep fails.
class Strike {
public:
    static Strike& get()
    {
        static Strike strike;
        return strike;
    }

    unsigned calls() const { return callsOf != nullptr ? callsOf(function.c_str()) : 0; }
    unsigned failures() const { return failuresOf != nullptr ? failuresOf() : 0; }
    unsigned nth() const { return number; }

private:
    Strike()
    {
        *reinterpret_cast<void**>(&callsOf) = dlsym(RTLD_DEFAULT, "kivgclFaultsCalls");
        *reinterpret_cast<void**>(&failuresOf) = dlsym(RTLD_DEFAULT, "kivgclFaultsFailures");
        const char* const faults = std::getenv("KIVGCL_FAULTS");
        if (faults != nullptr) {
            const std::string text = faults;
            const size_t colon = text.find(':');
            function = text.substr(0, colon);
            number = static_cast<unsigned>(std::atoi(text.c_str() + colon + 1));
        }
    }

    unsigned (*callsOf)(const char*) = nullptr;
    unsigned (*failuresOf)() = nullptr;
    std::string function;
    unsigned number = 0;
};

// Standard error as lines of the step that wrote them.
class ErrorOutput {
public:
    static ErrorOutput& get()
    {
        static ErrorOutput output;
        return output;
    }

    void take()
    {
        char text[4096];
        const ssize_t length = pread(file, text, sizeof text, position);
        std::string line;
        for (ssize_t i = 0; i < length; ++i) {
            if (text[i] == '\n') {
                Output::get().line("  stderr: " + line);
                line.clear();
            } else {
                line += text[i];
            }
        }
        position += std::max<ssize_t>(length, 0);
    }

private:
    ErrorOutput()
    {
        char name[] = "/tmp/sweep-stderr.XXXXXX";
        file = mkstemp(name);
        unlink(name);
        if (file < 0 || dup2(file, STDERR_FILENO) < 0) {
            std::abort();
        }
    }

    int file = -1;
    off_t position = 0;
};

inline std::string hex(uint32_t code)
{
    char text[16];
    static_cast<void>(snprintf(text, sizeof text, "%#x", code));
    return text;
}

inline std::string asText(uint32_t code)
{
    return hex(code);
}
inline std::string asText(int number)
{
    return std::to_string(number);
}
inline std::string asText(bool answer)
{
    return answer ? "true" : "false";
}
inline std::string asText(const std::string& text)
{
    return text;
}

// What a step left in the trace framework, as lines; the program says how.
void takeMessages();

// The number of the step that is left out, counted over all rounds; 0 for none.
inline int leftOut = 0;
inline int stepNumber = 0;

// Runs a step and says what came of it: the result, what was reported, and the number, among the
// step's calls, of the call that was failed.
template <typename Body>
auto step(const char* name, Body body) -> decltype(body())
{
    decltype(body()) result{};
    std::string outcome;
    Output::get().beginStep();
    const unsigned callsBefore = Strike::get().calls();
    const unsigned failuresBefore = Strike::get().failures();
    if (++stepNumber == leftOut) {
        Output::get().line(std::string(name) + ": left out");
        return result;
    }
    errno = 0; // reports give it where the failed call does not set it
    try {
        result = body();
        outcome = asText(result);
    } catch (const std::bad_alloc&) {
        outcome = "std::bad_alloc";
    } catch (const std::exception& exception) {
        outcome = std::string("exception: ") + exception.what();
    }
    const bool struck = Strike::get().failures() > failuresBefore;
    Output::get().line(std::string(name) + ": " + outcome);
    takeMessages();
    ErrorOutput::get().take();
    if (struck) {
        Output::get().line("  struck: " + std::to_string(Strike::get().nth() - callsBefore));
    }
    return result;
}

// The same for what has no result.
template <typename Body>
void act(const char* name, Body body)
{
    step(name, [&] {
        body();
        return std::string("done");
    });
}

// Runs the scenario so many times, then says what is left over: descriptors, threads.
template <typename Scenario>
int runRounds(Scenario scenario, int rounds, int stepLeftOut)
{
    Output& output = Output::get();
    leftOut = stepLeftOut;
    const int lines = dup(STDOUT_FILENO);
    static char buffer[4096];
    if (freopen("/dev/null", "w", stdout) == nullptr || // what the library prints is not a line
        setvbuf(stdout, buffer, _IOFBF, sizeof buffer) != 0) {
        return 2;
    }
    static_cast<void>(Strike::get());
    static_cast<void>(ErrorOutput::get());
    const long threads = entriesOf("/proc/self/task");
    std::thread([] {}).join();
    const long descriptors = entriesOf("/proc/self/fd");
    for (int round = 1; round <= rounds; ++round) {
        output.line("round " + std::to_string(round));
        scenario(round);
    }
    output.line("end");
    for (int i = 0; i < 1000 && entriesOf("/proc/self/task") > threads; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5)); // a joined thread may linger
    }
    output.line("descriptors left: " + std::to_string(entriesOf("/proc/self/fd") - descriptors));
    output.line("threads left: " + std::to_string(entriesOf("/proc/self/task") - threads));
    output.write(lines);
    return 0;
}

} // namespace sweep

#endif // TESTS_SWEEP_SCENARIO_H
