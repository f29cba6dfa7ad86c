// The file a recording is written to: appended to in large writes, patched
// in place at the end, flushed to the disk on request, and cut back to its
// last whole fragment when a write fails. The writes may be done by a
// thread of the file's own, so that the caller prepares the next fragment
// while the system copies the last one.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../box/stream.h"

namespace mp4stbl {

class RecordFile : public IOStream {
 public:
  RecordFile();
  ~RecordFile() override;
  RecordFile(const RecordFile&) = delete;
  RecordFile& operator=(const RecordFile&) = delete;

  // Creates or truncates the file; 0, or -1 with error() set. With
  // `background`, a thread writes the bytes in the order they came: a
  // write waits only while 4 MiB are still queued.
  int open(const std::string& path, bool background = false);
  int close();

  int read(unsigned char* buffer, unsigned count) override;  // -1: write only
  int write(const unsigned char* buffer, unsigned count) override;
  int seek(long long offset) override;
  // Writes the pieces one after another like write(), in one system call
  // when they are large; in the background large pieces go to the thread
  // as they are, and `pieces` is left empty.
  int give(std::vector<std::vector<unsigned char>>& pieces);
  long long getOffset() override { return position_; }
  long long getLength() override { return length_; }

  // Hands what is buffered to the system (to the writing thread, in the
  // background), so that a process killed later leaves it in the file.
  int flush();
  // Flushes and has the disk hold the data (waiting for it unless in the
  // background).
  int sync();
  // The bytes before `end` make a whole file once what came before this
  // call is written: marked() says so from then on.
  void mark(uint64_t end);
  uint64_t marked() const;
  // Waits until every byte handed on is written: 0, or -1 with error().
  int drain();
  // Cuts the file to `length` bytes (what was whole before a failure).
  int truncate(uint64_t length);
  // errno of the first failure, 0 when none. A failure in the background
  // shows here and in the calls after it.
  int error() const;
  const std::string& path() const { return path_; }

 private:
  struct Writer;

  int writeAt(uint64_t offset, const unsigned char* bytes, size_t count);
  int writeAt(uint64_t offset, const std::vector<std::vector<unsigned char>>& pieces);
  int fail();
  int fail(int error);

  int fd_ = -1;
  std::string path_;
  std::vector<unsigned char> buffer_;  // bytes not yet written, from bufferStart_
  uint64_t bufferStart_ = 0;
  uint64_t position_ = 0;
  uint64_t length_ = 0;
  uint64_t marked_ = 0;
  std::atomic<int> error_{0};
  std::unique_ptr<Writer> writer_;  // null when the caller's thread writes
};

}  // namespace mp4stbl
