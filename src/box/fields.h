// Reading and writing a box body described once as a list of fields.
//
// A box lists its body's fields, in file order, in one member template
//   template <class Visitor> void fields(Visitor& v) { v(a); v(b); ... }
// and hands a FieldReader or a FieldWriter to it: the two directions walk
// the same list and cannot drift apart.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "stream.h"

namespace mp4stbl {

class FieldReader {
 public:
  explicit FieldReader(IOStream* stream) : stream_(stream) {}
  void operator()(uint8_t& value) { take(stream_->readByte(&value), 1, "readByte"); }
  void operator()(uint16_t& value) { take(stream_->readBe16(&value), 2, "readBe16"); }
  void operator()(uint32_t& value) { take(stream_->readBe32(&value), 4, "readBe32"); }
  void operator()(uint64_t& value);
  template <size_t N>
  void operator()(std::array<uint8_t, N>& bytes) {
    take(stream_->readBytes(bytes.data(), N), static_cast<int>(N), "readBytes");
  }
  // Signed fields are stored in two's complement.
  void operator()(int16_t& value);
  void operator()(int64_t& value);
  // The 24-bit flags of a full box.
  void u24(uint32_t& value) { take(stream_->readBe24(&value), 3, "readBe24"); }
  // A 64-bit field stored in 32 bits, as version 0 boxes do.
  void as32(uint64_t& value);
  void as32(int64_t& value);
  // `count` bytes into `bytes`.
  void bytes(std::vector<uint8_t>& bytes, uint64_t count);
  // A table: its 32-bit record count, then the records, each at least
  // `width` bytes and read by each(*this, record). A count that the rest of
  // the box cannot hold is refused before anything is allocated.
  template <class Entry, class Each>
  void table(std::vector<Entry>& entries, uint64_t width, Each each) {
    uint32_t count = 0;
    (*this)(count);
    if (!holds(count, width)) return;
    entries.resize(count);
    for (size_t i = 0; i < entries.size() && !failed_; ++i) each(*this, entries[i]);
  }
  // Makes room for a table of `count` records of `recordBytes` each whose
  // count came earlier in the box, on the same terms as table().
  template <class Record>
  void records(std::vector<Record>& table, uint64_t count, uint64_t recordBytes) {
    if (holds(count, recordBytes)) table.resize(static_cast<size_t>(count));
  }
  // 0 when every field was read, -1 after the first failure (logged).
  int status() const { return failed_ ? -1 : 0; }

 private:
  void take(int result, int width, const char* operation);
  // Whether `count` records of `width` bytes lie before the end of the box;
  // logs when not.
  bool holds(uint64_t count, uint64_t width);
  IOStream* stream_;
  bool failed_ = false;
};

class FieldWriter {
 public:
  explicit FieldWriter(IOStream* stream) : stream_(stream) {}
  void operator()(uint8_t value) { take(stream_->writeByte(value), 1, "writeByte"); }
  void operator()(uint16_t value) { take(stream_->writeBe16(value), 2, "writeBe16"); }
  void operator()(uint32_t value) { take(stream_->writeBe32(value), 4, "writeBe32"); }
  void operator()(uint64_t value) { take(stream_->write64(value), 8, "writeBe64"); }
  template <size_t N>
  void operator()(const std::array<uint8_t, N>& bytes) {
    take(stream_->writeBytes(bytes.data(), N), static_cast<int>(N), "writeBytes");
  }
  void operator()(int16_t value) { (*this)(static_cast<uint16_t>(value)); }
  void operator()(int64_t value) { (*this)(static_cast<uint64_t>(value)); }
  void u24(uint32_t value) { take(stream_->writeBe24(value), 3, "writeBe24"); }
  // The table is written as held.
  template <class Record>
  void records(const std::vector<Record>&, uint64_t, uint64_t) {}
  // Deliberately keeps the low 32 bits: the box's version has room for no more.
  void as32(uint64_t value) { (*this)(static_cast<uint32_t>(value)); }
  void as32(int64_t value) { (*this)(static_cast<uint32_t>(value)); }
  void bytes(const std::vector<uint8_t>& bytes, uint64_t count);
  template <class Entry, class Each>
  void table(std::vector<Entry>& entries, uint64_t, Each each) {
    if (entries.size() > UINT32_MAX) {
      take(-1, 4, "writeBe32");
      return;
    }
    (*this)(static_cast<uint32_t>(entries.size()));
    for (size_t i = 0; i < entries.size() && !failed_; ++i) each(*this, entries[i]);
  }
  int status() const { return failed_ ? -1 : 0; }

 private:
  void take(int result, int width, const char* operation);
  IOStream* stream_;
  bool failed_ = false;
};

}  // namespace mp4stbl
