#include "box/fields.h"

#include "box/log.h"

namespace mp4stbl {

void FieldReader::operator()(uint64_t& value) {
  unsigned long long wide = 0;
  take(stream_->readBe64(&wide), 8, "readBe64");
  if (!failed_) value = wide;
}

void FieldReader::as32(uint64_t& value) {
  uint32_t narrow = 0;
  (*this)(narrow);
  if (!failed_) value = narrow;
}

void FieldReader::operator()(int16_t& value) {
  uint16_t raw = 0;
  (*this)(raw);
  if (!failed_) value = static_cast<int16_t>(raw);
}

void FieldReader::operator()(int64_t& value) {
  uint64_t raw = 0;
  (*this)(raw);
  if (!failed_) value = static_cast<int64_t>(raw);
}

void FieldReader::as32(int64_t& value) {
  uint32_t narrow = 0;
  (*this)(narrow);
  if (!failed_) value = static_cast<int32_t>(narrow);
}

bool FieldReader::holds(uint64_t count, uint64_t width) {
  if (failed_) return false;
  const long long offset = stream_->getOffset();
  const long long length = stream_->getLength();
  const bool room = offset >= 0 && length >= offset &&
                    (width == 0 || count <= static_cast<uint64_t>(length - offset) / width);
  if (!room) {
    QX_LOG_Printf("MP4", 3, "%llu records of %llu bytes at offset %lld run past the box\n",
                  static_cast<unsigned long long>(count), static_cast<unsigned long long>(width),
                  offset);
    failed_ = true;
  }
  return room;
}

void FieldReader::bytes(std::vector<uint8_t>& bytes, uint64_t count) {
  if (!holds(count, 1)) return;
  // One read takes at most 4 GiB - 1 bytes.
  const auto length = static_cast<unsigned>(count);
  if (length != count) {
    take(-1, 0, "readBytes");
    return;
  }
  bytes.resize(length);
  take(static_cast<unsigned>(stream_->readBytes(bytes.data(), length)) == length ? 0 : -1, 0,
       "readBytes");
}

void FieldWriter::bytes(const std::vector<uint8_t>& bytes, uint64_t) {
  if (bytes.size() > UINT32_MAX) {
    take(-1, 0, "writeBytes");
    return;
  }
  const auto length = static_cast<unsigned>(bytes.size());
  take(static_cast<unsigned>(stream_->writeBytes(bytes.data(), length)) == length ? 0 : -1, 0,
       "writeBytes");
}

namespace {

// Marks the first failed call of a field walk, logging it once.
void noteResult(IOStream* stream, bool* failed, int result, int width, const char* operation) {
  if (*failed || result == width) return;
  logStreamFailure(stream, operation);
  *failed = true;
}

}  // namespace

void FieldReader::take(int result, int width, const char* operation) {
  noteResult(stream_, &failed_, result, width, operation);
}

void FieldWriter::take(int result, int width, const char* operation) {
  noteResult(stream_, &failed_, result, width, operation);
}

}  // namespace mp4stbl
