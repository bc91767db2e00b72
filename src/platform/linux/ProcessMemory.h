#pragma once

#include <cstdint>

namespace kx {

// This process's resident memory as the kernel counts it, in KiB: now (VmRSS), or at its
// peak (VmHWM) since start or since the last reset; 0 where it cannot be read. The
// benchmarks, the soak and the tests measure what a transfer or an attack costs with it.
std::int64_t residentKiB();
std::int64_t peakResidentKiB();
// Starts the peak over from what is resident now.
void resetPeakResident();

} // namespace kx
