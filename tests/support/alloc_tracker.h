// Counts the bytes this test program holds on the heap: every operator new
// and every malloc, including the library's. Linked with
// -Wl,--wrap=malloc,--wrap=free (see tests/CMakeLists.txt).
#pragma once

#include <cstddef>

namespace alloc_tracker {

// Starts a new peak from what is held now.
void reset();
// The most held at once since reset(), beyond what was held then.
size_t peak();

}  // namespace alloc_tracker
