#include "FrameAllocator.h"

#include <cstdlib> // defines __GLIBC__ where glibc is the C library

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace kx {

// Every range answer passes through several buffers of a few hundred KiB (socket read,
// frame, message, decoded bytes). With glibc's defaults each of them is mapped fresh and
// handed back to the kernel when freed, so every range paid for page faults, zeroing and
// a heap trim; profiles of a 1 GiB paste showed that as most of the time. Keeping up to
// 8 MiB of free heap and serving blocks below 4 MiB from the heap bounds the extra
// resident memory while making each buffer a reuse.
void keepFrameBuffersMapped()
{
#if defined(__GLIBC__)
    mallopt(M_MMAP_THRESHOLD, 4 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 8 * 1024 * 1024);
#endif
}

} // namespace kx
