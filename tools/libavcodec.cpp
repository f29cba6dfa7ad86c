#include "libavcodec.h"

#ifdef MP4STBL_HAVE_LIBAVCODEC

#include <dlfcn.h>

#include <string>
#include <type_traits>

namespace mp4stbl::cli {

namespace {

// The soname of the major version the headers describe.
void* openLibrary(const char* name, int major) {
  return dlopen((std::string(name) + ".so." + std::to_string(major)).c_str(), RTLD_NOW | RTLD_LOCAL);
}

bool load(Libavcodec& calls) {
  void* codec = openLibrary("libavcodec", LIBAVCODEC_VERSION_MAJOR);
  void* util = openLibrary("libavutil", LIBAVUTIL_VERSION_MAJOR);
  if (codec == nullptr || util == nullptr) return false;
  bool found = true;
  auto find = [&found](void* library, auto& pointer, const char* name) {
    pointer = reinterpret_cast<std::remove_reference_t<decltype(pointer)>>(dlsym(library, name));
    found = found && pointer != nullptr;
  };
#define MP4STBL_FIND_CODEC(name) find(codec, calls.name, #name);
#define MP4STBL_FIND_UTIL(name) find(util, calls.name, #name);
  MP4STBL_LIBAVCODEC_CALLS(MP4STBL_FIND_CODEC)
  MP4STBL_LIBAVUTIL_CALLS(MP4STBL_FIND_UTIL)
#undef MP4STBL_FIND_CODEC
#undef MP4STBL_FIND_UTIL
  return found;
}

}  // namespace

const Libavcodec* libavcodec() {
  static Libavcodec calls;
  static const bool loaded = load(calls);
  return loaded ? &calls : nullptr;
}

}  // namespace mp4stbl::cli

#endif
