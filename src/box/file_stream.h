// A file on disk as a byte stream.
#pragma once

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>

#include "stream.h"

namespace mp4stbl {

// A buffered file on disk with 64-bit offsets, opened either for reading or
// for writing (which truncates). Failures are logged and returned, never
// thrown.
//
// Reading keeps a window of the file: a box walk seeks back and forth
// among small boxes that the window already holds, so such a seek only
// moves the position, and a read the size of a whole table goes straight
// into the caller's buffer.
class FileStream : public IOStream, public RangeSink {
 public:
  enum class Mode { Read, Write };

  FileStream();
  ~FileStream() override;
  FileStream(const FileStream&) = delete;
  FileStream& operator=(const FileStream&) = delete;

  int open(const std::string& path, Mode mode);  // 0 or -1
  int close();                                   // flushes; 0 or -1
  bool isOpen() const;
  const std::string& path() const { return path_; }
  // The system's error number (errno) of the first open, write, seek or
  // close that failed since open(); 0 when none did or the system gave
  // none.
  int error() const { return error_; }

  int read(unsigned char* buffer, unsigned count) override;
  int write(const unsigned char* buffer, unsigned count) override;
  int seek(long long offset) override;
  long long getOffset() override;
  long long getLength() override;

  // The kernel copies file to file where it can; otherwise the bytes pass
  // through memory in bounded blocks.
  int copyFrom(IOStream* source, uint64_t offset, uint64_t length) override;
  // Allocates the disk blocks ahead where the file system can; the file's
  // length stays what is written.
  void reserve(uint64_t length) override;

 private:
  uint64_t copyInKernel(FileStream& source, uint64_t offset, uint64_t length);
  unsigned fromWindow(unsigned char* buffer, unsigned count);
  void noteError();
  int readFile(char* buffer, unsigned count);

  std::filebuf file_;
  std::string path_;
  // The file buffer when writing, the window when reading. Left
  // uninitialised: the file's bytes fill it before any is read.
  std::unique_ptr<char[]> buffer_;
  Mode mode_ = Mode::Read;
  long long position_ = 0;
  long long length_ = 0;
  long long windowStart_ = 0;  // file offset of buffer_[0] when reading
  unsigned windowSize_ = 0;
  long long filePosition_ = 0;  // where the unbuffered file stands
  int error_ = 0;
};

}  // namespace mp4stbl
