#include "box/stream.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

#include "box/byte_order.h"
#include "box/log.h"
#include "box/wide_clones.h"

namespace mp4stbl {

namespace {

// One primitive call moves at most this much, so its int result never wraps.
constexpr unsigned kMaxCall = INT_MAX;

uint64_t loadBe(const unsigned char* bytes, unsigned width) {
  uint64_t value = 0;
  for (unsigned i = 0; i < width; ++i) value = (value << 8) | bytes[i];
  return value;
}

void storeBe(unsigned char* bytes, uint64_t value, unsigned width) {
  for (unsigned i = width; i-- > 0;) {
    bytes[i] = static_cast<unsigned char>(value);
    value >>= 8;
  }
}

}  // namespace

IOStream::~IOStream() = default;

int IOStream::readExactly(unsigned char* buffer, unsigned count) {
  unsigned done = 0;
  while (done < count) {
    int got = read(buffer + done, std::min(count - done, kMaxCall));
    if (got < 0) return done == 0 ? -1 : static_cast<int>(done);
    if (got == 0) break;
    done += static_cast<unsigned>(got);
  }
  // Deliberate wrap past INT_MAX; callers compare as unsigned.
  return static_cast<int>(done);
}

int IOStream::readByte(uint8_t* value) {
  unsigned char byte;
  int got = readExactly(&byte, 1);
  if (got == 1) *value = byte;
  return got;
}

int IOStream::readBe16(uint16_t* value) {
  unsigned char bytes[2];
  int got = readExactly(bytes, 2);
  if (got == 2) *value = static_cast<uint16_t>(loadBe(bytes, 2));
  return got;
}

int IOStream::readBe24(uint32_t* value) {
  unsigned char bytes[3];
  int got = readExactly(bytes, 3);
  if (got == 3) *value = static_cast<uint32_t>(loadBe(bytes, 3));
  return got;
}

int IOStream::readBe32(uint32_t* value) {
  unsigned char bytes[4];
  int got = readExactly(bytes, 4);
  if (got == 4) *value = static_cast<uint32_t>(loadBe(bytes, 4));
  return got;
}

int IOStream::readBe64(unsigned long long* value) {
  unsigned char bytes[8];
  int got = readExactly(bytes, 8);
  if (got == 8) *value = loadBe(bytes, 8);
  return got;
}

int IOStream::readBytes(unsigned char* buffer, unsigned count) {
  return readExactly(buffer, count);
}

namespace {

template <class Word>
void swapWords(Word* array, unsigned count) {
  auto* bytes = reinterpret_cast<const unsigned char*>(array);
  for (unsigned i = 0; i < count; ++i) {
    array[i] = byte_order::load<Word>(bytes + sizeof(Word) * size_t{i});
  }
}

MP4STBL_WIDE_CLONES void swap32(uint32_t* array, unsigned count) { swapWords(array, count); }
MP4STBL_WIDE_CLONES void swap64(unsigned long long* array, unsigned count) {
  swapWords(array, count);
}

}  // namespace

void IOStream::swapArrayOfBe32(uint32_t* array, unsigned count) { swap32(array, count); }

void IOStream::swapArrayOfBe64(unsigned long long* array, unsigned count) { swap64(array, count); }

int IOStream::writeBytes(const unsigned char* buffer, unsigned count) {
  unsigned done = 0;
  while (done < count) {
    int put = write(buffer + done, std::min(count - done, kMaxCall));
    if (put < 0) return done == 0 ? -1 : static_cast<int>(done);
    if (put == 0) break;
    done += static_cast<unsigned>(put);
  }
  return static_cast<int>(done);  // wraps past INT_MAX, as readBytes
}

int IOStream::writeByte(uint8_t value) { return writeBytes(&value, 1); }

int IOStream::writeBe16(uint16_t value) {
  unsigned char bytes[2];
  storeBe(bytes, value, 2);
  return writeBytes(bytes, 2);
}

int IOStream::writeBe24(uint32_t value) {
  unsigned char bytes[3];
  storeBe(bytes, value, 3);
  return writeBytes(bytes, 3);
}

int IOStream::writeBe32(uint32_t value) {
  unsigned char bytes[4];
  storeBe(bytes, value, 4);
  return writeBytes(bytes, 4);
}

int IOStream::write64(unsigned long long value) {
  unsigned char bytes[8];
  storeBe(bytes, value, 8);
  return writeBytes(bytes, 8);
}

// ---- MemoryStream ----

MemoryStream::MemoryStream(std::vector<unsigned char> bytes) : bytes_(std::move(bytes)) {}

int MemoryStream::read(unsigned char* buffer, unsigned count) {
  size_t available = bytes_.size() - position_;
  size_t n = std::min<size_t>({count, available, kMaxCall});
  if (n > 0) std::memcpy(buffer, bytes_.data() + position_, n);
  position_ += n;
  return static_cast<int>(n);
}

int MemoryStream::write(const unsigned char* buffer, unsigned count) {
  size_t n = std::min<size_t>(count, kMaxCall);
  if (n > bytes_.max_size() - position_) return -1;
  if (position_ + n > bytes_.size()) bytes_.resize(position_ + n);
  if (n > 0) std::memcpy(bytes_.data() + position_, buffer, n);
  position_ += n;
  return static_cast<int>(n);
}

int MemoryStream::seek(long long offset) {
  if (offset < 0 || static_cast<unsigned long long>(offset) > bytes_.size()) return -1;
  position_ = static_cast<size_t>(offset);
  return 0;
}

long long MemoryStream::getOffset() { return static_cast<long long>(position_); }

long long MemoryStream::getLength() { return static_cast<long long>(bytes_.size()); }

const std::vector<unsigned char>& MemoryStream::data() const { return bytes_; }

// ---- BoundedStream ----

BoundedStream::BoundedStream(IOStream* base, long long end) : base_(base), end_(end), depth_(0) {
  // Nested windows collapse onto the innermost real stream, so a read costs
  // one indirection however deep the boxes lie.
  if (auto* outer = dynamic_cast<BoundedStream*>(base)) {
    base_ = outer->base_;
    end_ = std::min(end, outer->end_);
    depth_ = outer->depth_ + 1;
  }
}

int BoundedStream::read(unsigned char* buffer, unsigned count) {
  long long left = end_ - base_->getOffset();
  if (left <= 0) return 0;
  return base_->read(buffer, static_cast<unsigned>(std::min<long long>(count, left)));
}

int BoundedStream::write(const unsigned char*, unsigned) { return -1; }

int BoundedStream::seek(long long offset) {
  if (offset > end_) return -1;
  return base_->seek(offset);
}

long long BoundedStream::getOffset() { return base_->getOffset(); }

long long BoundedStream::getLength() { return end_; }

void logStreamFailure(IOStream* stream, const char* operation) {
  QX_LOG_Printf("IO", 3, "offset:%lld, %s fail\n", stream->getOffset(), operation);
}

int copyBytes(IOStream* from, uint64_t offset, uint64_t length, IOStream* to) {
  // Large enough for the disk's speed, small next to the tables.
  constexpr uint64_t kPiece = 4u << 20;
  if (length == 0) return 0;
  if (from->seek(static_cast<long long>(offset)) != 0) {
    QX_LOG_Printf("IO", 3, "offset:%llu cannot be reached\n", static_cast<unsigned long long>(offset));
    return -1;
  }
  std::vector<unsigned char> piece(static_cast<size_t>(std::min(length, kPiece)));
  for (uint64_t left = length; left > 0;) {
    const auto count = static_cast<unsigned>(std::min<uint64_t>(left, piece.size()));
    if (static_cast<unsigned>(from->readBytes(piece.data(), count)) != count) {
      logStreamFailure(from, "readBytes");
      return -1;
    }
    if (static_cast<unsigned>(to->writeBytes(piece.data(), count)) != count) {
      logStreamFailure(to, "writeBytes");
      return -1;
    }
    left -= count;
  }
  return 0;
}

int copyRange(IOStream* from, uint64_t offset, uint64_t length, IOStream* to) {
  if (auto* sink = dynamic_cast<RangeSink*>(to)) return sink->copyFrom(from, offset, length);
  return copyBytes(from, offset, length, to);
}

}  // namespace mp4stbl
