// Memory helpers of the box library.
#pragma once

#include <cstddef>

namespace mp4stbl {

// Bounded fill in the manner of C11's memset_s, which glibc lacks: fills
// min(count, destMax) bytes of dest with value and returns 0 when count fits
// destMax, non-zero when dest is null, destMax is absurd or count exceeds it.
int memset_s(void* dest, size_t destMax, int value, size_t count);

}  // namespace mp4stbl
