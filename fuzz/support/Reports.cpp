#include "fuzz/support/Reports.h"

#include <cstring>
#include <ostream>
#include <utility>

#include "Framework/VT/VT.h"
#include "Framework/VT/VorTrace.h"

namespace {

unsigned reports = 0;
char lastText[1024] = "";
std::vector<int> levels;

} // namespace

int32_t VT_beginImpl(TraceChannel*, int32_t, const VorTraceHeader*)
{
    ++reports;
    lastText[0] = '\0';
    return 0;
}

int32_t VT_rawprintf(TraceChannel*, const char* format, ...)
{
    const size_t used = std::strlen(lastText); // what the message has so far
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(lastText + used, sizeof lastText - used, format, arguments);
    va_end(arguments);
    REQUIRE(length >= 0 && used + static_cast<size_t>(length) < sizeof lastText);
    return length;
}

int32_t VT_endImpl(TraceChannel*)
{
    return 0;
}

VorTrace::VorTrace(const char*, VorTraceLevel) : impl(nullptr) {}
VorTrace::~VorTrace() = default;
void VorTrace::beginLogMsg(VorTraceLevel level, const VorTraceHeader&)
{
    levels.push_back(level);
}
void VorTrace::logMsgData(const char*, unsigned) {}
void VorTrace::endLogMsg() {}
bool VorTrace::hasImpl() const
{
    return true;
}
int VorTrace::level() const
{
    return VorTraceLevel7;
}
std::ostream& VorTrace::stream()
{
    thread_local std::ostream nowhere(nullptr);
    nowhere.clear();
    return nowhere;
}
std::ostream& VorTrace::discardStream()
{
    return stream();
}

namespace fuzz {

void requireSilence()
{
    REQUIRE(reports == 0);
}

void requireReport(uint32_t code)
{
    char end[32];
    std::snprintf(end, sizeof end, "code: 0x%x\n", static_cast<unsigned>(code));
    REQUIRE(reports == 1);
    reports = 0;
    const char* const found = std::strstr(lastText, end);
    REQUIRE(found != nullptr && std::strlen(found) == std::strlen(end));
}

std::vector<int> takeLevels()
{
    return std::exchange(levels, {});
}

} // namespace fuzz
