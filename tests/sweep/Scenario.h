// A scenario of the failure sweep: steps of one module, each with its outcome on a line. The sweep
// runs the program with libKivGCLFaults.so, fails one call and compares the lines.
#ifndef TESTS_SWEEP_SCENARIO_H
#define TESTS_SWEEP_SCENARIO_H

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
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

// What a scenario says. Its memory is there from the start, so that it counts for nothing.
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

    void write(int descriptor) const
    {
        if (::write(descriptor, all, used) != static_cast<ssize_t>(used)) {
            std::abort();
        }
    }

private:
    char all[1 << 16];
    size_t used = 0;
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

// Runs a step and says what came of it.
template <typename Body>
auto step(const char* name, Body body) -> decltype(body())
{
    decltype(body()) result{};
    std::string outcome;
    try {
        result = body();
        outcome = asText(result);
    } catch (const std::bad_alloc&) {
        outcome = "std::bad_alloc";
    } catch (const std::exception& exception) {
        outcome = std::string("exception: ") + exception.what();
    }
    Output::get().line(std::string(name) + ": " + outcome);
    takeMessages();
    return result;
}

// Runs the scenario so many times, then says what is left over: descriptors, threads.
template <typename Scenario>
int runRounds(Scenario scenario, int rounds)
{
    Output& output = Output::get();
    const int lines = dup(STDOUT_FILENO);
    static char buffer[4096];
    if (freopen("/dev/null", "w", stdout) == nullptr || // what the library prints is not a line
        setvbuf(stdout, buffer, _IOFBF, sizeof buffer) != 0) {
        return 2;
    }
    std::thread([] {}).join();
    const long descriptors = entriesOf("/proc/self/fd");
    const long threads = entriesOf("/proc/self/task");
    for (int round = 1; round <= rounds; ++round) {
        output.line("round " + std::to_string(round));
        scenario(round);
    }
    for (int i = 0; i < 200 && entriesOf("/proc/self/task") > threads; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5)); // a joined thread may linger
    }
    output.line("descriptors left: " + std::to_string(entriesOf("/proc/self/fd") - descriptors));
    output.line("threads left: " + std::to_string(entriesOf("/proc/self/task") - threads));
    output.write(lines);
    return 0;
}

} // namespace sweep

#endif // TESTS_SWEEP_SCENARIO_H
