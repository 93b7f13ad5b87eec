// Reports that no level admits and messages of the stand-alone sink, beside spdlog and syslog.
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/TraceChannels.h"
#include "bench/floor/ReportFloor.h"
#include "bench/support/Bench.h"

namespace {

std::shared_ptr<spdlog::logger> logger;

// The calls that fail stand in functions of their own, as ours do.
[[gnu::noinline]] uint32_t refuseWithSpdlog(const void* object, unsigned long* item)
{
    if (object == nullptr) {
        logger->error("{}: pThis is NULL! code: {:#x}", __func__, GCL_INVALID_ARGUMENT);
        return GCL_INVALID_ARGUMENT;
    }
    *item = 0;
    return GCL_OK;
}

[[gnu::noinline]] uint32_t refuseWithSyslog(const void* object, unsigned long* item)
{
    if (object == nullptr) {
        syslog(LOG_DEBUG, "%s: pThis is NULL! code: %#x", __func__, GCL_INVALID_ARGUMENT);
        return GCL_INVALID_ARGUMENT;
    }
    *item = 0;
    return GCL_OK;
}

template <typename Call>
bench::Side failing(const Call& call)
{
    return [call](benchmark::State& state) {
        uint32_t codes = 0;
        for (auto _ : state) {
            const void* object = nullptr;
            benchmark::DoNotOptimize(object);
            codes |= call(object) ^ GCL_INVALID_ARGUMENT;
        }
        bench::require(state, codes == 0, "the call did not fail as it should");
        bench::setOperations(state, 1);
    };
}

bench::Side withSpdlog(spdlog::level::level_enum level)
{
    return [level](benchmark::State& state) {
        logger->set_level(level);
        failing([](const void* object) {
            unsigned long item = 0;
            return refuseWithSpdlog(object, &item);
        })(state);
    };
}

uint32_t refuse(const void* object)
{
    unsigned long item = 0;
    return CList_GetNext(static_cast<const CList*>(object), &item, nullptr);
}

void addSuppressed()
{
    bench::Case("Report, suppressed", {1.05, 0})
        .ours(failing(refuse))
        .floor(failing([](const void* object) {
            unsigned long item = 0;
            return floorRefuse(object, &item, nullptr);
        }))
        .peer("spdlog, disabled level", 0.5, withSpdlog(spdlog::level::off))
        .peer("syslog, masked", 0.5, failing([](const void* object) {
                  unsigned long item = 0;
                  return refuseWithSyslog(object, &item);
              }));
}

void addSink()
{
    bench::Case("Sink, message", {0, 0})
        .ours([](benchmark::State& state) {
            const int32_t before = GCL_trace.threshold;
            GCL_trace.threshold = 1;
            failing(refuse)(state);
            GCL_trace.threshold = before;
        })
        .floor([](benchmark::State& state) {
            const int descriptor = open("/dev/null", O_WRONLY | O_CLOEXEC);
            failing([descriptor](const void*) {
                floorWriteLine(descriptor, "KIV.GCL", 1, "Framework/GCL/private/CList", 161,
                               "CList_GetNext", "pThis is NULL!", GCL_INVALID_ARGUMENT);
                return GCL_INVALID_ARGUMENT;
            })(state);
            close(descriptor);
        })
        .peer("spdlog, flushed", withSpdlog(spdlog::level::trace));
}

} // namespace

void bench::addCases()
{
    // The sink looks when it writes its first line.
    setenv("VT_OUTPUT", "/dev/null", 1);
    logger = spdlog::basic_logger_mt("bench", "/dev/null");
    logger->set_pattern("%Y-%m-%dT%H:%M:%S.%fZ %P/%t %n %l %v", spdlog::pattern_time_type::utc);
    logger->flush_on(spdlog::level::trace);
    setlogmask(LOG_UPTO(LOG_ERR));
    addSuppressed();
    addSink();
}
