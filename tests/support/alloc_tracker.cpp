#include "support/alloc_tracker.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace {

size_t held = 0;
size_t highest = 0;
size_t base = 0;

}  // namespace

extern "C" {
void* __real_malloc(size_t size);
void __real_free(void* pointer);

void* __wrap_malloc(size_t size) {
  void* pointer = __real_malloc(size);
  if (pointer != nullptr) {
    held += malloc_usable_size(pointer);
    highest = std::max(highest, held);
  }
  return pointer;
}

void __wrap_free(void* pointer) {
  if (pointer != nullptr) held -= malloc_usable_size(pointer);
  __real_free(pointer);
}
}

// operator new goes through malloc here, so that the library's boxes and
// vectors are counted too.
void* operator new(size_t size) {
  void* pointer = malloc(size == 0 ? 1 : size);
  if (pointer == nullptr) throw std::bad_alloc();
  return pointer;
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return malloc(size == 0 ? 1 : size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return malloc(size == 0 ? 1 : size); }
void operator delete(void* pointer) noexcept { free(pointer); }
void operator delete[](void* pointer) noexcept { free(pointer); }
void operator delete(void* pointer, size_t) noexcept { free(pointer); }
void operator delete[](void* pointer, size_t) noexcept { free(pointer); }

namespace alloc_tracker {

void reset() {
  base = held;
  highest = held;
}

size_t peak() { return highest - base; }

}  // namespace alloc_tracker
