#include "ProcessMemory.h"

#include <cstdio>
#include <cstring>

namespace kx {

namespace {

// One "Name:   1234 kB" line of /proc/self/status.
std::int64_t statusField(const char *name)
{
    std::FILE *status = std::fopen("/proc/self/status", "re");
    if (!status)
        return 0;
    const std::size_t length = std::strlen(name);
    char line[256];
    long long value = 0;
    while (std::fgets(line, sizeof line, status)) {
        if (std::strncmp(line, name, length) == 0 && line[length] == ':') {
            std::sscanf(line + length + 1, "%lld", &value);
            break;
        }
    }
    std::fclose(status);
    return value;
}

} // namespace

std::int64_t residentKiB()
{
    return statusField("VmRSS");
}

std::int64_t peakResidentKiB()
{
    return statusField("VmHWM");
}

void resetPeakResident()
{
    if (std::FILE *clear = std::fopen("/proc/self/clear_refs", "we")) {
        std::fputs("5", clear);
        std::fclose(clear);
    }
}

} // namespace kx
