#include "FileTime.h"

#include <algorithm>

namespace kx {

namespace {

constexpr std::int64_t secondsFrom1601To1970 = 11644473600;
constexpr std::int64_t ticksPerSecond = 10000000;

} // namespace

std::uint64_t fileTime(const QDateTime &date)
{
    if (!date.isValid())
        return 0;
    const std::int64_t ms = date.toMSecsSinceEpoch();
    // Whole seconds, counted from 1601: the fraction is dropped on that count, so a date
    // before 1970 rounds down (towards 1601) just as one after it does.
    const std::int64_t seconds = ms / 1000 - (ms % 1000 < 0 ? 1 : 0);
    return std::uint64_t(std::max<std::int64_t>(seconds + secondsFrom1601To1970, 0)) * ticksPerSecond;
}

timespec timespecFromFileTime(std::uint64_t fileTime)
{
    const auto ticks = std::int64_t(fileTime / ticksPerSecond);
    timespec at{};
    at.tv_sec = time_t(ticks - secondsFrom1601To1970);
    at.tv_nsec = long(fileTime % ticksPerSecond) * 100;
    return at;
}

} // namespace kx
