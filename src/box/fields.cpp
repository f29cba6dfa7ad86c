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

namespace {

// Marks the first failed call of a field walk, logging it once.
void noteResult(IOStream* stream, bool* failed, int result, int width, const char* operation) {
  if (*failed || result == width) return;
  logStreamFailure(stream, operation);
  *failed = true;
}

}  // namespace

bool FieldReader::fits(uint64_t count, uint64_t recordBytes) {
  const long long left = stream_->getLength() - stream_->getOffset();
  if (left >= 0 && recordBytes > 0 && count <= static_cast<uint64_t>(left) / recordBytes) {
    return true;
  }
  QX_LOG_Printf("MP4", 3, "offset:%lld, %llu records of %llu bytes pass the end of the box\n",
                stream_->getOffset(), static_cast<unsigned long long>(count),
                static_cast<unsigned long long>(recordBytes));
  failed_ = true;
  return false;
}

void FieldReader::take(int result, int width, const char* operation) {
  noteResult(stream_, &failed_, result, width, operation);
}

void FieldWriter::take(int result, int width, const char* operation) {
  noteResult(stream_, &failed_, result, width, operation);
}

}  // namespace mp4stbl
