#pragma once

#include <QDateTime>

#include <cstdint>
#include <ctime>

namespace kx {

// 1970-01-01 as a FILETIME: a time before it is no time a pasted file is given.
constexpr std::uint64_t unixEpochFileTime = 116444736000000000ull;

// A Windows FILETIME (100 ns units since 1601-01-01 UTC) at whole-second precision.
// Dates before 1601, and dates that cannot be read, give 0.
std::uint64_t fileTime(const QDateTime &date);

// The other way, for the modification time of a pasted file or folder.
timespec timespecFromFileTime(std::uint64_t fileTime);

} // namespace kx
