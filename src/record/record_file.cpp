#include "record/record_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace mp4stbl {

namespace {

// Small writes gather here, up to this many bytes.
constexpr size_t kBufferSize = size_t{1} << 20;
// A write this large goes straight out, not copied into the buffer.
constexpr size_t kDirectSize = size_t{64} << 10;

}  // namespace

RecordFile::~RecordFile() { close(); }

int RecordFile::open(const std::string& path) {
  path_ = path;
  fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd_ < 0) return fail();
  buffer_.reserve(kBufferSize);
  return 0;
}

int RecordFile::close() {
  if (fd_ < 0) return 0;
  const int flushed = flush();
  const int closed = ::close(fd_);
  fd_ = -1;
  if (closed != 0 && error_ == 0) error_ = errno;
  return flushed == 0 && closed == 0 ? 0 : -1;
}

int RecordFile::fail() {
  if (error_ == 0) error_ = errno != 0 ? errno : EIO;
  return -1;
}

int RecordFile::read(unsigned char*, unsigned) { return -1; }

int RecordFile::writeAt(uint64_t offset, const unsigned char* bytes, size_t count) {
  while (count > 0) {
    const ssize_t done = ::pwrite(fd_, bytes, count, static_cast<off_t>(offset));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return fail();
    bytes += done, offset += static_cast<uint64_t>(done), count -= static_cast<size_t>(done);
  }
  return 0;
}

int RecordFile::flush() {
  if (fd_ < 0) return -1;
  if (buffer_.empty()) return 0;
  const int written = writeAt(bufferStart_, buffer_.data(), buffer_.size());
  buffer_.clear();
  return written;
}

int RecordFile::write(const unsigned char* bytes, unsigned count) {
  if (fd_ < 0 || error_ != 0) return -1;
  // The buffer holds one run of bytes; a write elsewhere sends it out first.
  if (!buffer_.empty() && position_ != bufferStart_ + buffer_.size() && flush() != 0) {
    return -1;
  }
  if (buffer_.empty()) bufferStart_ = position_;
  if (count >= kDirectSize || buffer_.size() + count > kBufferSize) {
    if (flush() != 0 || writeAt(position_, bytes, count) != 0) return -1;
  } else {
    buffer_.insert(buffer_.end(), bytes, bytes + count);
  }
  position_ += count;
  length_ = std::max(length_, position_);
  return static_cast<int>(count);
}

int RecordFile::seek(long long offset) {
  if (fd_ < 0 || offset < 0) return -1;
  position_ = static_cast<uint64_t>(offset);
  return 0;
}

int RecordFile::sync() {
  if (fd_ < 0 || flush() != 0) return -1;
  return ::fdatasync(fd_) == 0 ? 0 : fail();
}

int RecordFile::truncate(uint64_t length) {
  if (fd_ < 0) return -1;
  buffer_.clear();
  if (::ftruncate(fd_, static_cast<off_t>(length)) != 0) return -1;
  length_ = length;
  position_ = std::min(position_, length);
  return 0;
}

}  // namespace mp4stbl
