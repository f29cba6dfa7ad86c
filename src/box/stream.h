// Byte streams of the box library. Every number moves big-endian on the
// stream and native in memory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mp4stbl {

class IOStream {
 public:
  virtual ~IOStream();
  // Bytes read, fewer at the end of the stream, -1 on error.
  virtual int read(unsigned char* buffer, unsigned count) = 0;
  // Bytes written or -1.
  virtual int write(const unsigned char* buffer, unsigned count) = 0;
  // Moves to an absolute offset: 0 or -1.
  virtual int seek(long long offset) = 0;
  virtual long long getOffset() = 0;
  // Total length of the stream, -1 when unknown.
  virtual long long getLength() = 0;

  // Each helper returns the byte count of its width on success and the short
  // count or -1 otherwise; a value is stored only when it was read whole.
  int readByte(uint8_t* value);
  int readBe16(uint16_t* value);
  int readBe24(uint32_t* value);
  int readBe32(uint32_t* value);
  int readBe64(unsigned long long* value);
  // Loops over read() until count bytes arrived or the stream ends. Callers
  // compare the result with count as unsigned: a count beyond INT_MAX comes
  // back wrapped.
  int readBytes(unsigned char* buffer, unsigned count);
  // In-place conversion of count big-endian words to host order.
  void swapArrayOfBe32(uint32_t* array, unsigned count);
  void swapArrayOfBe64(unsigned long long* array, unsigned count);

  int writeByte(uint8_t value);
  int writeBe16(uint16_t value);
  int writeBe24(uint32_t value);  // low 24 bits
  int writeBe32(uint32_t value);
  int write64(unsigned long long value);
  int writeBytes(const unsigned char* buffer, unsigned count);

 private:
  int readExactly(unsigned char* buffer, unsigned count);
};

// An in-memory stream. Reads stop at the end of the bytes; writes overwrite
// or extend at the current position.
class MemoryStream : public IOStream {
 public:
  MemoryStream() = default;
  explicit MemoryStream(std::vector<unsigned char> bytes);

  int read(unsigned char* buffer, unsigned count) override;
  int write(const unsigned char* buffer, unsigned count) override;
  int seek(long long offset) override;  // within [0, length]
  long long getOffset() override;
  long long getLength() override;

  const std::vector<unsigned char>& data() const;

 private:
  std::vector<unsigned char> bytes_;
  size_t position_ = 0;
};

// A read-only window onto another stream that ends at an absolute offset.
// Offsets stay those of the underlying stream, so messages name real file
// positions; getLength() is the window's end. A box reads its body through
// one, which keeps every read inside the box.
class BoundedStream : public IOStream {
 public:
  BoundedStream(IOStream* base, long long end);

  int read(unsigned char* buffer, unsigned count) override;
  int write(const unsigned char* buffer, unsigned count) override;  // -1
  int seek(long long offset) override;  // up to the end
  long long getOffset() override;
  long long getLength() override;

  // How many windows enclose this one; bounds the nesting of boxes.
  unsigned depth() const { return depth_; }
  // The stream beneath every window.
  IOStream* base() const { return base_; }

 private:
  IOStream* base_;
  long long end_;
  unsigned depth_;
};

// Logs the failure of a stream operation the way every box reports it:
// tag "IO", level 3, "offset:<position>, <operation> fail".
void logStreamFailure(IOStream* stream, const char* operation);

// Copies `length` bytes of `from`, starting at `offset`, to where `to`
// stands, through a buffer of bounded size. 0, or -1 with a log line.
int copyBytes(IOStream* from, uint64_t offset, uint64_t length, IOStream* to);

// A stream that takes a range of another stream its own, faster way: a
// file has the kernel copy it, a comparison skips bytes it knows are equal.
class RangeSink {
 public:
  virtual ~RangeSink() = default;
  // Appends `length` bytes of `source` from `offset` where this stream
  // stands and moves past them. 0, or -1 with a log line.
  virtual int copyFrom(IOStream* source, uint64_t offset, uint64_t length) = 0;
  // Hints that `length` bytes are about to be written from where this
  // stream stands. Never fails: a write that finds no room still does.
  virtual void reserve(uint64_t length) { (void)length; }
};

// The target's own copy where it has one, else copyBytes.
int copyRange(IOStream* from, uint64_t offset, uint64_t length, IOStream* to);

}  // namespace mp4stbl
