#include "bench/support/Bench.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <utility>

#include "Framework/GCL/TraceChannels.h"

namespace bench {
namespace {

std::string textOf(double value)
{
    char text[32];
    static_cast<void>(std::snprintf(text, sizeof text, "%g", value));
    return text;
}

// All cases of an operation say the same.
void addToContext(const std::string& key, const std::string& value)
{
    static std::set<std::string> known;
    if (known.insert(key).second) {
        benchmark::AddCustomContext(key, value);
    }
}

} // namespace

// The report reads the targets from the run's context, under the operation's name.
Case::Case(std::string operationName, Targets targets)
    : operation(std::move(operationName)), setting(operation)
{
    addToContext("targets:" + operation, textOf(targets.ofFloor) + " " + textOf(targets.ofPeer));
}

Case& Case::at(const std::string& axis, double value)
{
    setting += "/" + axis + ":" + textOf(value);
    return *this;
}

Case& Case::manualTime()
{
    timedBySide = true;
    return *this;
}

Case& Case::realTime()
{
    timedByClock = true;
    return *this;
}

Case& Case::rounds(int64_t count)
{
    fixedRounds = count;
    return *this;
}

Case& Case::ours(const Side& side)
{
    return add("ours", "", side);
}

Case& Case::floor(const Side& side)
{
    return add("floor", "", side);
}

Case& Case::peer(const std::string& name, const Side& side)
{
    return add(name, "", side);
}

Case& Case::peer(const std::string& name, double ofPeer, const Side& side)
{
    addToContext("target:" + operation + "@" + name, textOf(ofPeer));
    return add(name, "", side);
}

Case& Case::shown(const std::string& name, const std::string& why, const Side& side)
{
    return add(name, why, side);
}

Case& Case::add(const std::string& name, const std::string& label, const Side& side)
{
#ifdef KIVGCL_BENCH_STATIC
    // This program holds the archive; all other sides are measured beside the shared library.
    static_cast<void>(label);
    if (name != "ours") {
        return *this;
    }
    return addSide("static", "ours, from the archive, linked with -flto", side);
#else
    return addSide(name, label, side);
#endif
}

Case& Case::addSide(const std::string& name, const std::string& label, const Side& side)
{
    auto* const registered = benchmark::RegisterBenchmark((setting + "@" + name).c_str(),
                                                          [side, label](benchmark::State& state) {
                                                              side(state);
                                                              state.SetLabel(label);
                                                          });
    if (timedBySide) {
        registered->UseManualTime();
    } else if (timedByClock) {
        registered->UseRealTime();
    }
    if (fixedRounds > 0) {
        registered->Iterations(fixedRounds);
    }
    return *this;
}

void Rounds::finish(benchmark::State& state, double perRound)
{
    if (times.empty()) {
        return; // the side ended with an error
    }
    const auto middle = times.begin() + static_cast<ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    state.counters["operation"] = *middle / perRound;
}

} // namespace bench

int main(int argc, char** argv)
{
    GCL_trace.threshold = 0; // no report is admitted
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    bench::addCases();
    // A pattern that selects nothing is the caller's mistake.
    const bool ran = benchmark::RunSpecifiedBenchmarks() > 0;
    benchmark::Shutdown();
    return ran ? 0 : 1;
}
