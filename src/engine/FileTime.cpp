#include "FileTime.h"

namespace kx {

std::uint64_t fileTime(const QDateTime &date)
{
    if (!date.isValid())
        return 0;
    constexpr std::int64_t secondsFrom1601To1970 = 11644473600;
    const std::int64_t ms = date.toMSecsSinceEpoch();
    // Whole seconds, counted from 1601: the fraction is dropped on that count, so a date
    // before 1970 rounds down just as one after it does.
    const std::int64_t seconds = ms >= 0 ? ms / 1000 : -((-ms + 999) / 1000);
    const std::int64_t since1601 = seconds + secondsFrom1601To1970;
    if (since1601 < 0)
        return 0;
    return std::uint64_t(since1601) * 10000000ull;
}

} // namespace kx
