#include "Framework/GCL/CSysLogHandler.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kMessageSize = 384;

std::atomic<uint32_t> logLevel{0x1000};

// By contract: the codes from 0x900 to 0xFFF are written whatever the level.
bool admitted(uint32_t code)
{
    return code >= logLevel.load(std::memory_order_relaxed) || (code >= 0x900 && code <= 0xFFF);
}

int priorityOf(uint32_t code)
{
    if (code >= 0x8000) {
        return LOG_ERR;
    }
    return code >= 0x1000 ? LOG_WARNING : LOG_NOTICE;
}

const char* fileNameOf(const char* path)
{
    const char* lastSlash = std::strrchr(path, '/');
    return lastSlash == nullptr ? path : lastSlash + 1;
}

} // namespace

void CSysLogHandler_Log(const char* szLabel, const char* szFile, int32_t iLine, uint32_t uiCode,
                        const char* szFormat, ...)
{
    if (!admitted(uiCode)) {
        return;
    }
    char message[kMessageSize] = "";
    va_list arguments;
    va_start(arguments, szFormat);
    // A longer message is cut; what cannot be formatted leaves what came before it.
    static_cast<void>(std::vsnprintf(message, sizeof message, szFormat, arguments));
    va_end(arguments);
    syslog(priorityOf(uiCode), "%s: %s (%d): %s, code: %lx\n", szLabel, fileNameOf(szFile), iLine,
           message, static_cast<unsigned long>(uiCode));
}

void CSysLogHandler_SetLogLevel(uint32_t uiLevel)
{
    logLevel.store(uiLevel, std::memory_order_relaxed);
}

void CSysLogHandler_GetLogLevel(uint32_t* puiLevel)
{
    *puiLevel = logLevel.load(std::memory_order_relaxed);
}
