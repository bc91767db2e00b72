#include "ProcessMemory.h"

#include <fstream>
#include <string>

namespace kx {

namespace {

// One "Name:   1234 kB" line of /proc/self/status.
std::int64_t statusField(const std::string &name)
{
    std::ifstream status("/proc/self/status");
    const std::string prefix = name + ':';
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(prefix, 0) == 0)
            return std::stoll(line.substr(prefix.size()));
    }
    return {};
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
    std::ofstream("/proc/self/clear_refs") << '5';
}

} // namespace kx
