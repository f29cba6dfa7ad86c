// The file a recording is written to: appended to in large writes, patched
// in place at the end, flushed to the disk on request, and cut back to its
// last whole fragment when a write fails.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../box/stream.h"

namespace mp4stbl {

class RecordFile : public IOStream {
 public:
  RecordFile() = default;
  ~RecordFile() override;
  RecordFile(const RecordFile&) = delete;
  RecordFile& operator=(const RecordFile&) = delete;

  // Creates or truncates the file; 0, or -1 with error() set.
  int open(const std::string& path);
  int close();

  int read(unsigned char* buffer, unsigned count) override;  // -1: write only
  int write(const unsigned char* buffer, unsigned count) override;
  int seek(long long offset) override;
  long long getOffset() override { return position_; }
  long long getLength() override { return length_; }

  // Hands what is buffered to the system, so that a process killed later
  // leaves it in the file.
  int flush();
  // Flushes and waits until the disk holds the data.
  int sync();
  // Cuts the file to `length` bytes (what was whole before a failure).
  int truncate(uint64_t length);
  // errno of the first failure, 0 when none.
  int error() const { return error_; }
  const std::string& path() const { return path_; }

 private:
  int writeAt(uint64_t offset, const unsigned char* bytes, size_t count);
  int fail();

  int fd_ = -1;
  std::string path_;
  std::vector<unsigned char> buffer_;  // bytes not yet written, from bufferStart_
  uint64_t bufferStart_ = 0;
  uint64_t position_ = 0;
  uint64_t length_ = 0;
  int error_ = 0;
};

}  // namespace mp4stbl
