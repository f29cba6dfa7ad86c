#include "box/file_stream.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>
#include <vector>

#if defined(__linux__)
#include <fcntl.h>
#include <unistd.h>
#endif

#include "box/log.h"

namespace mp4stbl {

namespace {

// One call moves at most this much, so its int result never wraps.
constexpr unsigned kMaxCall = INT_MAX;

constexpr std::streamsize kWriteBuffer = 1 << 20;
// A read window holds a moov's small boxes in one system call without
// reading far into the media data a walk jumps over.
constexpr unsigned kWindow = 64 << 10;
constexpr uint64_t kPage = 4096;

// std::filebuf reports some system errors (reading a directory, say) by
// throwing; a stream reports them as a failed call.
template <class Call>
auto guarded(Call call, decltype(call()) failure) -> decltype(call()) {
  try {
    return call();
  } catch (const std::exception&) {
    return failure;
  }
}

}  // namespace

FileStream::FileStream() = default;

FileStream::~FileStream() { close(); }

int FileStream::open(const std::string& path, Mode mode) {
  close();
  error_ = 0;
  // The buffer is taken at the first open, so that a stream never opened
  // costs nothing. Reading buffers in the window, so the file itself does
  // not.
  if (buffer_ == nullptr) buffer_.reset(new char[kWriteBuffer]);
  if (mode == Mode::Read) {
    file_.pubsetbuf(nullptr, 0);
  } else {
    file_.pubsetbuf(buffer_.get(), kWriteBuffer);
  }
  std::ios_base::openmode how = std::ios_base::binary;
  how |= mode == Mode::Read ? std::ios_base::in : std::ios_base::out | std::ios_base::trunc;
  errno = 0;
  if (!file_.open(path, how)) {
    noteError();
    QX_LOG_Printf("IO", 3, "open %s for %s failed: %s\n", path.c_str(),
                  mode == Mode::Read ? "reading" : "writing", std::strerror(error_));
    return -1;
  }
  mode_ = mode;
  path_ = path;
  position_ = 0;
  length_ = 0;
  windowStart_ = 0;
  windowSize_ = 0;
  filePosition_ = 0;
  if (mode == Mode::Read) {
    const std::streampos failed(-1);
    const std::streampos end = guarded(
        [this] { return file_.pubseekoff(0, std::ios_base::end, std::ios_base::in); }, failed);
    if (end == failed ||
        guarded([this] { return file_.pubseekpos(0, std::ios_base::in); }, failed) == failed) {
      QX_LOG_Printf("IO", 3, "seek in %s failed\n", path.c_str());
      file_.close();
      return -1;
    }
    length_ = static_cast<long long>(end);
  }
  return 0;
}

int FileStream::close() {
  if (!file_.is_open()) return 0;
  errno = 0;
  if (guarded([this] { return file_.close() != nullptr; }, false)) return 0;
  noteError();
  return -1;
}

// The first failure is the reason: later ones follow from it.
void FileStream::noteError() {
  if (error_ == 0) error_ = errno;
}

bool FileStream::isOpen() const { return file_.is_open(); }

int FileStream::read(unsigned char* buffer, unsigned count) {
  if (!file_.is_open() || mode_ != Mode::Read) return -1;
  count = std::min(count, kMaxCall);
  unsigned done = fromWindow(buffer, count);
  if (done == count) return static_cast<int>(done);
  const unsigned rest = count - done;
  if (rest >= kWindow) {
    const int got = readFile(reinterpret_cast<char*>(buffer + done), rest);
    if (got < 0) return done == 0 ? -1 : static_cast<int>(done);
    position_ += got;
    return static_cast<int>(done + static_cast<unsigned>(got));
  }
  windowStart_ = position_;
  windowSize_ = 0;
  const int got = readFile(buffer_.get(), kWindow);
  if (got < 0) return done == 0 ? -1 : static_cast<int>(done);
  windowSize_ = static_cast<unsigned>(got);
  return static_cast<int>(done + fromWindow(buffer + done, rest));
}

unsigned FileStream::fromWindow(unsigned char* buffer, unsigned count) {
  if (position_ < windowStart_ || position_ >= windowStart_ + windowSize_) return 0;
  const auto at = static_cast<unsigned>(position_ - windowStart_);
  const unsigned n = std::min(count, windowSize_ - at);
  std::memcpy(buffer, buffer_.get() + at, n);
  position_ += n;
  return n;
}

// Reads at position_ from the file itself, moving it there first.
int FileStream::readFile(char* buffer, unsigned count) {
  const std::streampos failed(-1);
  if (filePosition_ != position_) {
    if (guarded([&] { return file_.pubseekpos(std::streampos(position_), std::ios_base::in); },
                failed) == failed) {
      return -1;
    }
    filePosition_ = position_;
  }
  const std::streamsize got =
      guarded([&] { return file_.sgetn(buffer, count); }, std::streamsize{-1});
  if (got < 0) {
    filePosition_ = -1;  // unknown: the next read seeks first
    return -1;
  }
  filePosition_ += got;
  return static_cast<int>(got);
}

int FileStream::write(const unsigned char* buffer, unsigned count) {
  if (!file_.is_open() || mode_ != Mode::Write) return -1;
  count = std::min(count, kMaxCall);
  errno = 0;
  const std::streamsize put = guarded(
      [&] { return file_.sputn(reinterpret_cast<const char*>(buffer), count); },
      std::streamsize{-1});
  // A short put is a buffer the file did not take.
  if (put < static_cast<std::streamsize>(count)) noteError();
  if (put <= 0 && count > 0) return -1;
  position_ += put;
  length_ = std::max(length_, position_);
  return static_cast<int>(put);
}

int FileStream::seek(long long offset) {
  if (!file_.is_open() || offset < 0) return -1;
  if (mode_ == Mode::Read) {
    // The file moves when a read needs it to.
    if (offset > length_) return -1;
    position_ = offset;
    return 0;
  }
  // A seek of the file buffer drops what it holds; staying put keeps it.
  if (offset == position_) return 0;
  const std::streampos failed(-1);
  errno = 0;
  if (guarded([&] { return file_.pubseekpos(std::streampos(offset), std::ios_base::out); },
              failed) == failed) {
    noteError();
    return -1;
  }
  position_ = offset;
  length_ = std::max(length_, position_);
  return 0;
}

long long FileStream::getOffset() { return position_; }

long long FileStream::getLength() { return file_.is_open() ? length_ : -1; }

int FileStream::copyFrom(IOStream* source, uint64_t offset, uint64_t length) {
  auto* file = dynamic_cast<FileStream*>(source);
  if (file == nullptr || file->mode_ != Mode::Read || !file->isOpen() || mode_ != Mode::Write ||
      !isOpen()) {
    return copyBytes(source, offset, length, this);
  }
  const uint64_t moved = copyInKernel(*file, offset, length);
  if (moved > 0 && seek(position_ + static_cast<long long>(moved)) != 0) {
    logStreamFailure(this, "seek");
    return -1;
  }
  return copyBytes(source, offset + moved, length - moved, this);
}

void FileStream::reserve(uint64_t length) {
#if defined(__linux__)
  // Beyond what this build's file offsets hold, the hint is dropped.
  const auto most = static_cast<uint64_t>(std::numeric_limits<off_t>::max());
  const auto from = static_cast<uint64_t>(position_);
  if (mode_ != Mode::Write || !isOpen() || length == 0 || from > most || length > most - from) {
    return;
  }
  const int out = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
  if (out < 0) return;
  // ext4's kernel copy runs about 6% faster into blocks allocated ahead: it
  // need not reserve them page by page. A file system that shares blocks
  // swaps these out for the source's, so a shortage of room here fails
  // nothing. KEEP_SIZE leaves the length to the writes.
  (void)fallocate(out, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(from), static_cast<off_t>(length));
  ::close(out);
#else
  (void)length;
#endif
}

// The bytes never enter this process: copy_file_range moves them between
// the two files (or shares their blocks, where the file system can),
// through descriptors of its own that write at an explicit offset once the
// buffer of this stream is flushed. Returns how many bytes it moved; the
// caller copies the rest.
uint64_t FileStream::copyInKernel(FileStream& source, uint64_t offset, uint64_t length) {
  uint64_t moved = 0;
#if defined(__linux__)
  errno = 0;
  if (guarded([this] { return file_.pubsync(); }, -1) != 0) {
    noteError();
    return 0;
  }
  const int in = ::open(source.path_.c_str(), O_RDONLY | O_CLOEXEC);
  const int out = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
  loff_t from = static_cast<loff_t>(offset), to = static_cast<loff_t>(position_);
  while (in >= 0 && out >= 0 && moved < length) {
    // A file system shares blocks only from page-aligned offsets, so the
    // bytes before the source's next page go first, on their own.
    const uint64_t toPage = (kPage - static_cast<uint64_t>(from) % kPage) % kPage;
    const uint64_t limit = toPage != 0 ? toPage : uint64_t{1} << 30;
    const size_t piece = static_cast<size_t>(std::min(length - moved, limit));
    const ssize_t done = copy_file_range(in, &from, out, &to, piece, 0);
    if (done <= 0) break;
    moved += static_cast<uint64_t>(done);
  }
  if (in >= 0) ::close(in);
  if (out >= 0) ::close(out);
#else
  (void)source;
  (void)offset;
  (void)length;
#endif
  return moved;
}

}  // namespace mp4stbl
