#include "record/record_file.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

namespace mp4stbl {

namespace {

// Small writes gather here, up to this many bytes.
constexpr size_t kBufferSize = size_t{1} << 20;
// A write this large goes straight out, not copied into the buffer.
constexpr size_t kDirectSize = size_t{64} << 10;
// Pieces written by one system call.
constexpr size_t kMaxVectors = IOV_MAX;
// Bytes waiting for the writing thread or being written: what a recording
// killed at any instant may lose beyond its last fragment. A write waits
// while more would be queued (a larger one goes alone). Counting bytes,
// not writes, lets the many small writes of a fragment pass while the
// thread writes a large one.
constexpr uint64_t kMaxQueued = uint64_t{4} << 20;
// Buffers of the file's own kept to be filled again.
constexpr size_t kSpareBuffers = 4;

}  // namespace

// The writing thread and its queue. Each job is done in order, and none
// after the first failure, so that a fragment is marked whole only once
// every byte before the mark reached the file.
struct RecordFile::Writer {
  struct Job {
    enum class Kind { Write, Sync, Mark } kind = Kind::Write;
    uint64_t offset = 0;  // where the bytes go, or the end marked
    std::vector<std::vector<unsigned char>> pieces;
    uint64_t size = 0;  // bytes of the pieces
  };

  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Job> jobs;
  std::vector<std::vector<unsigned char>> spare;  // buffers written, to fill again
  uint64_t queued = 0;  // bytes of write jobs queued or being done
  bool working = false;
  bool stopping = false;
  uint64_t marked = 0;
  std::thread thread;

  // Queues a job; a write waits while the thread has enough bytes to write.
  void queue(Job job) {
    for (const std::vector<unsigned char>& piece : job.pieces) job.size += piece.size();
    {
      std::unique_lock<std::mutex> lock(mutex);
      if (job.kind == Job::Kind::Write) {
        changed.wait(lock, [&] { return queued == 0 || queued + job.size <= kMaxQueued; });
        queued += job.size;
      }
      jobs.push_back(std::move(job));
    }
    changed.notify_all();
  }

  // An empty buffer: one written, else a new one.
  std::vector<unsigned char> take() {
    std::lock_guard<std::mutex> lock(mutex);
    if (spare.empty()) return {};
    std::vector<unsigned char> buffer = std::move(spare.back());
    spare.pop_back();
    return buffer;
  }

  void waitIdle() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return jobs.empty() && !working; });
  }
};

RecordFile::RecordFile() = default;

RecordFile::~RecordFile() { close(); }

int RecordFile::open(const std::string& path, bool background) {
  path_ = path;
  fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd_ < 0) return fail();
  buffer_.reserve(kBufferSize);
  if (!background) return 0;
  writer_ = std::make_unique<Writer>();
  writer_->thread = std::thread([this] {
    Writer& w = *writer_;
    std::unique_lock<std::mutex> lock(w.mutex);
    while (true) {
      w.changed.wait(lock, [&w] { return w.stopping || !w.jobs.empty(); });
      if (w.jobs.empty()) return;
      Writer::Job job = std::move(w.jobs.front());
      w.jobs.pop_front();
      w.working = true;
      lock.unlock();
      const bool failed = error_ != 0;
      if (!failed && job.kind == Writer::Job::Kind::Write) writeAt(job.offset, job.pieces);
      if (!failed && job.kind == Writer::Job::Kind::Sync && ::fdatasync(fd_) != 0) fail();
      // A buffer of the file's own is filled again; the caller's are freed
      // here, outside the lock.
      std::vector<unsigned char> buffer;
      if (job.pieces.size() == 1 && job.pieces[0].capacity() >= kBufferSize) {
        buffer = std::move(job.pieces[0]);
        buffer.clear();
      }
      job.pieces.clear();
      lock.lock();
      if (job.kind == Writer::Job::Kind::Mark && error_ == 0) w.marked = job.offset;
      if (job.kind == Writer::Job::Kind::Write) {
        w.queued -= job.size;
        if (buffer.capacity() != 0 && w.spare.size() < kSpareBuffers) {
          w.spare.push_back(std::move(buffer));
        }
      }
      w.working = false;
      w.changed.notify_all();
    }
  });
  return 0;
}

int RecordFile::close() {
  if (fd_ < 0) return 0;
  const int flushed = drain();
  if (writer_) {
    {
      std::lock_guard<std::mutex> lock(writer_->mutex);
      writer_->stopping = true;
    }
    writer_->changed.notify_all();
    writer_->thread.join();
    writer_.reset();
  }
  const int closed = ::close(fd_);
  fd_ = -1;
  if (closed != 0) fail();
  return flushed == 0 && closed == 0 ? 0 : -1;
}

int RecordFile::fail() { return fail(errno != 0 ? errno : EIO); }

// The first failure is kept, whichever thread meets it.
int RecordFile::fail(int error) {
  int none = 0;
  error_.compare_exchange_strong(none, error);
  return -1;
}

int RecordFile::error() const { return error_; }

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

// The pieces in as few system calls as it takes, each piece whole.
int RecordFile::writeAt(uint64_t offset, const std::vector<std::vector<unsigned char>>& pieces) {
  std::vector<iovec> vectors;
  for (size_t next = 0; next < pieces.size();) {
    vectors.clear();
    for (; next < pieces.size() && vectors.size() < kMaxVectors; ++next) {
      vectors.push_back({const_cast<unsigned char*>(pieces[next].data()), pieces[next].size()});
    }
    const ssize_t done = ::pwritev(fd_, vectors.data(), static_cast<int>(vectors.size()),
                                   static_cast<off_t>(offset));
    if (done < 0 && errno != EINTR) return fail();
    // What a short write left is written piece by piece.
    auto skip = static_cast<size_t>(std::max<ssize_t>(done, 0));
    offset += skip;
    for (const iovec& vector : vectors) {
      if (skip >= vector.iov_len) {
        skip -= vector.iov_len;
        continue;
      }
      const size_t rest = vector.iov_len - skip;
      if (writeAt(offset, static_cast<const unsigned char*>(vector.iov_base) + skip, rest) != 0) {
        return -1;
      }
      offset += rest;
      skip = 0;
    }
  }
  return 0;
}

int RecordFile::flush() {
  if (fd_ < 0) return -1;
  if (buffer_.empty()) return 0;
  if (writer_) {
    std::vector<std::vector<unsigned char>> pieces;
    pieces.push_back(std::move(buffer_));
    writer_->queue({Writer::Job::Kind::Write, bufferStart_, std::move(pieces)});
    buffer_ = writer_->take();
    buffer_.reserve(kBufferSize);
    return error_ == 0 ? 0 : -1;
  }
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
  // The writing thread takes only buffers, so a large write is copied too.
  if (!writer_ && count >= kDirectSize) {
    if (flush() != 0 || writeAt(position_, bytes, count) != 0) return -1;
  } else {
    if (buffer_.size() + count > kBufferSize && flush() != 0) return -1;
    if (buffer_.empty()) bufferStart_ = position_;
    buffer_.insert(buffer_.end(), bytes, bytes + count);
  }
  position_ += count;
  length_ = std::max(length_, position_);
  return static_cast<int>(count);
}

int RecordFile::give(std::vector<std::vector<unsigned char>>& pieces) {
  if (fd_ < 0 || error_ != 0) return -1;
  uint64_t count = 0;
  for (const std::vector<unsigned char>& piece : pieces) count += piece.size();
  if (count < kDirectSize) {
    for (const std::vector<unsigned char>& piece : pieces) {
      const auto size = static_cast<unsigned>(piece.size());
      if (write(piece.data(), size) != static_cast<int>(size)) return -1;
    }
  } else {
    if (flush() != 0) return -1;
    if (writer_) {
      writer_->queue({Writer::Job::Kind::Write, position_, std::move(pieces)});
      pieces.clear();
    } else if (writeAt(position_, pieces) != 0) {
      return -1;
    }
    position_ += count;
    length_ = std::max(length_, position_);
  }
  return error_ == 0 ? 0 : -1;
}

int RecordFile::seek(long long offset) {
  if (fd_ < 0 || offset < 0) return -1;
  position_ = static_cast<uint64_t>(offset);
  return 0;
}

int RecordFile::sync() {
  if (fd_ < 0 || flush() != 0) return -1;
  if (writer_) {
    writer_->queue({Writer::Job::Kind::Sync, 0, {}});
    return 0;
  }
  return ::fdatasync(fd_) == 0 ? 0 : fail();
}

void RecordFile::mark(uint64_t end) {
  if (!writer_) {
    marked_ = end;
  } else if (flush() == 0) {
    writer_->queue({Writer::Job::Kind::Mark, end, {}});
  }
}

uint64_t RecordFile::marked() const {
  if (!writer_) return marked_;
  std::lock_guard<std::mutex> lock(writer_->mutex);
  return writer_->marked;
}

int RecordFile::drain() {
  if (fd_ < 0) return -1;
  const int flushed = flush();
  if (writer_) writer_->waitIdle();
  return flushed == 0 && error_ == 0 ? 0 : -1;
}

int RecordFile::truncate(uint64_t length) {
  if (fd_ < 0) return -1;
  if (writer_) writer_->waitIdle();
  buffer_.clear();
  if (::ftruncate(fd_, static_cast<off_t>(length)) != 0) return -1;
  length_ = length;
  position_ = std::min(position_, length);
  return 0;
}

}  // namespace mp4stbl
