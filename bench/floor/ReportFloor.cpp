#include "bench/floor/ReportFloor.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

uint32_t floorRefuse(const void* object, unsigned long* item, void** position)
{
    *item = 0;
    if (object == nullptr) {
        return 0x8008;
    }
    *position = nullptr;
    return 0;
}

void floorWriteLine(int descriptor, const char* channel, int level, const char* file, int line,
                    const char* function, const char* text, unsigned long code)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char buffer[512];
    const int length = snprintf(
        buffer, sizeof buffer,
        "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ %ld/%ld %s %d %s:%d %s: %s      code: %#lx\n",
        utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
        now.tv_nsec / 1000, static_cast<long>(getpid()), syscall(SYS_gettid), channel, level, file,
        line, function, text, code);
    // Where to is the caller's affair; there is nobody to tell.
    if (write(descriptor, buffer, static_cast<size_t>(length)) < 0) {
        return;
    }
}
