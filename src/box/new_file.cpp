#include "box/new_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#if defined(__linux__)
#include <fcntl.h>
#include <unistd.h>
#endif

namespace mp4stbl {

namespace {

namespace fs = std::filesystem;

constexpr int kNames = 1000;

// "PATH.part", then "PATH.part1" and on.
std::string partName(const std::string& path, int n) {
  return path + ".part" + (n == 0 ? "" : std::to_string(n));
}

Status systemFailure(const char* what, int error) {
  return Status::failure(std::string(what) + ": " + systemReason(error, "no reason given"));
}

}  // namespace

std::string systemReason(int error, const std::string& otherwise) {
  return error == 0 ? otherwise : std::strerror(error);
}

NewFile::NewFile(std::string path) : path_(std::move(path)) {}

NewFile::NewFile(std::string path, bool beside) : path_(std::move(path)), beside_(beside) {}

NewFile::~NewFile() {
  if (!kept_ && unnamed_ < 0 && !written_.empty()) {
    std::error_code ignored;
    fs::remove(written_, ignored);
  }
#if defined(__linux__)
  if (unnamed_ >= 0) ::close(unnamed_);  // an unnamed file goes with its last descriptor
#endif
}

Status NewFile::open(FileStream& stream) {
  if (beside_) return openNamed(stream);
#if defined(__linux__)
  const fs::path parent = fs::path(path_).parent_path();
  const std::string directory = parent.empty() ? "." : parent.string();
  unnamed_ = ::open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
  if (unnamed_ < 0) {
    // File systems without unnamed files, and kernels before 3.11, say so
    // in one of these ways.
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
      return systemFailure("cannot be created", errno);
    }
    return openNamed(stream);
  }
  // The stream reaches the unnamed file through its descriptor's name.
  written_ = "/proc/self/fd/" + std::to_string(unnamed_);
  if (stream.open(written_, FileStream::Mode::Write) == 0) return Status();
  ::close(unnamed_);  // no /proc
  unnamed_ = -1;
  written_.clear();
#endif
  return openNamed(stream);
}

Status NewFile::openNamed(FileStream& stream) {
  // A name no file has yet: the temporary never replaces anything, a file
  // being read included.
  std::error_code ignored;
  int n = 0;
  while (n < kNames && fs::exists(partName(path_, n), ignored)) ++n;
  if (n == kNames) return Status::failure("has no free name beside it for a temporary");
  if (stream.open(partName(path_, n), FileStream::Mode::Write) != 0) {
    return systemFailure("cannot be created", stream.error());
  }
  written_ = partName(path_, n);
  return Status();
}

Status NewFile::keep() {
  if (written_.empty()) return Status::failure("was never opened");
  if (unnamed_ >= 0) {
    Status linked = linkUnnamed();
    kept_ = linked.ok();
    return linked;
  }
  std::error_code error;
  fs::rename(written_, path_, error);
  if (error) return Status::failure("cannot be put in place: " + error.message());
  kept_ = true;
  return Status();
}

// linkat() of the descriptor itself (AT_EMPTY_PATH) needs a capability
// (CAP_DAC_READ_SEARCH); its name in /proc, followed, needs none.
Status NewFile::linkUnnamed() {
#if defined(__linux__)
  auto linkAs = [this](const std::string& name) {
    return ::linkat(AT_FDCWD, written_.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
  };
  if (linkAs(path_)) return Status();
  if (errno != EEXIST) return systemFailure("cannot be put in place", errno);
  // A file is there: the new one is linked beside it and renamed over it,
  // so the path names one whole file or the other at every moment.
  for (int n = 0; n < kNames; ++n) {
    const std::string beside = partName(path_, n);
    if (!linkAs(beside)) {
      if (errno == EEXIST) continue;
      return systemFailure("cannot be put in place", errno);
    }
    if (std::rename(beside.c_str(), path_.c_str()) == 0) return Status();
    const int error = errno;
    std::remove(beside.c_str());
    return systemFailure("cannot be put in place", error);
  }
  return Status::failure("has no free name beside it for a temporary");
#else
  return Status::failure("cannot be put in place: no unnamed files here");
#endif
}

}  // namespace mp4stbl
