// A file on disk as a byte stream.
#pragma once

#include <fstream>
#include <memory>
#include <string>

#include "box/stream.h"

namespace mp4stbl {

// A buffered file on disk with 64-bit offsets, opened either for reading or
// for writing (which truncates). Failures are logged and returned, never
// thrown.
class FileStream : public IOStream {
 public:
  enum class Mode { Read, Write };

  FileStream();
  ~FileStream() override;
  FileStream(const FileStream&) = delete;
  FileStream& operator=(const FileStream&) = delete;

  int open(const std::string& path, Mode mode);  // 0 or -1
  int close();                                   // flushes; 0 or -1
  bool isOpen() const;

  int read(unsigned char* buffer, unsigned count) override;
  int write(const unsigned char* buffer, unsigned count) override;
  int seek(long long offset) override;
  long long getOffset() override;
  long long getLength() override;

 private:
  std::filebuf file_;
  // Left uninitialised: the file's bytes fill it before any is read.
  std::unique_ptr<char[]> buffer_;
  Mode mode_ = Mode::Read;
  long long position_ = 0;
  long long length_ = 0;
};

}  // namespace mp4stbl
