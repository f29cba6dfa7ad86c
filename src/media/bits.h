// Reading the bit fields of parameter sets, slice headers and audio
// configurations: fixed-width fields, exp-Golomb codes, and the removal of
// the emulation-prevention bytes that keep start codes out of NAL units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace mp4stbl {

// The payload of a NAL unit without its emulation-prevention bytes (the 03
// of every 00 00 03), at most `limit` bytes of it: slice headers are read
// from a short prefix.
inline std::vector<uint8_t> unescapeNal(const uint8_t* data, size_t size, size_t limit = SIZE_MAX) {
  std::vector<uint8_t> out;
  out.reserve(size < limit ? size : limit);
  unsigned zeros = 0;
  for (size_t i = 0; i < size && out.size() < limit; ++i) {
    if (zeros >= 2 && data[i] == 3) {
      zeros = 0;
      continue;
    }
    zeros = data[i] == 0 ? zeros + 1 : 0;
    out.push_back(data[i]);
  }
  return out;
}

// Reads bits most significant first. A read past the end gives zeros and
// sets failed(), as does an exp-Golomb code too long for 32 bits: a caller
// reads a whole structure and checks once.
class BitReader {
 public:
  BitReader(const uint8_t* data, size_t size) : data_(data), bits_(size * 8) {}
  explicit BitReader(const std::vector<uint8_t>& bytes) : BitReader(bytes.data(), bytes.size()) {}

  bool failed() const { return failed_; }
  size_t position() const { return position_; }
  size_t bitsLeft() const { return failed_ ? 0 : bits_ - position_; }

  bool flag() { return bit() != 0; }

  // Up to 32 bits.
  uint32_t bits(unsigned count) {
    uint64_t value = 0;
    for (unsigned i = 0; i < count; ++i) value = (value << 1) | bit();
    return static_cast<uint32_t>(value);
  }

  void skip(size_t count) {
    if (count > bits_ - position_) {
      failed_ = true;
      position_ = bits_;
      return;
    }
    position_ += count;
  }

  // ue(v); a code of more than 31 leading zeros fails.
  uint32_t ue() {
    unsigned zeros = 0;
    while (!failed_ && bit() == 0) {
      if (++zeros > 31) {
        failed_ = true;
        return 0;
      }
    }
    if (failed_) return 0;
    return static_cast<uint32_t>((uint64_t{1} << zeros) - 1 + bits(zeros));
  }

  // se(v).
  int32_t se() {
    const uint32_t code = ue();
    const int64_t magnitude = (int64_t{code} + 1) / 2;
    return static_cast<int32_t>(code % 2 ? magnitude : -magnitude);
  }

 private:
  unsigned bit() {
    if (position_ >= bits_) {
      failed_ = true;
      return 0;
    }
    const unsigned value = (data_[position_ / 8] >> (7 - position_ % 8)) & 1;
    ++position_;
    return value;
  }

  const uint8_t* data_;
  size_t bits_;
  size_t position_ = 0;
  bool failed_ = false;
};

}  // namespace mp4stbl
