#include "box/bounded_fill.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace mp4stbl {

int memset_s(void* dest, size_t destMax, int value, size_t count) {
  const size_t maxObject = SIZE_MAX >> 1;  // the RSIZE_MAX of Annex K
  if (dest == nullptr || destMax > maxObject) return EINVAL;
  if (count > destMax) {
    std::memset(dest, value, destMax);
    return ERANGE;
  }
  std::memset(dest, value, count);
  return 0;
}

}  // namespace mp4stbl
