#include "recover/access_unit.h"

namespace mp4stbl::recovery {

namespace {

// The bits of a NAL unit's payload with its emulation-prevention bytes
// (00 00 03) taken out, read from the front; past the end read as 1s, so
// that an Exp-Golomb code never reads without bound.
class PayloadBits {
 public:
  PayloadBits(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  unsigned bit() {
    if (bitsLeft_ == 0 && !load()) return 1;
    --bitsLeft_;
    return (current_ >> bitsLeft_) & 1u;
  }

  // ue(v); 32 and more leading zeros are no code a slice header uses.
  uint32_t unsignedGolomb() {
    unsigned zeros = 0;
    while (bit() == 0) {
      if (++zeros == 32) return UINT32_MAX;
    }
    uint32_t value = 0;
    for (unsigned i = 0; i < zeros; ++i) value = (value << 1) | bit();
    return (1u << zeros) - 1 + value;
  }

 private:
  bool load() {
    if (at_ >= size_) return false;
    if (zeros_ >= 2 && data_[at_] == 3) {
      zeros_ = 0;
      if (++at_ >= size_) return false;
    }
    current_ = data_[at_++];
    zeros_ = current_ == 0 ? zeros_ + 1 : 0;
    bitsLeft_ = 8;
    return true;
  }

  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
  unsigned zeros_ = 0;
  unsigned current_ = 0;
  unsigned bitsLeft_ = 0;
};

enum class Role { Other, Slice, StartsUnit };

struct Nal {
  Role role = Role::Other;
  bool firstOfPicture = false;  // a slice that starts its picture
  bool key = false;
};

Nal h264Nal(const uint8_t* nal, size_t size) {
  const unsigned type = nal[0] & 0x1f;
  Nal out;
  if (type == 1 || type == 2 || type == 5) {
    out.role = Role::Slice;
    PayloadBits bits(nal + 1, size - 1);
    out.firstOfPicture = size > 1 && bits.unsignedGolomb() == 0;  // first_mb_in_slice
    out.key = type == 5;
  } else if (type == 3 || type == 4) {
    out.role = Role::Slice;  // data partitions B and C: no slice header of their own
  } else if ((type >= 6 && type <= 9) || (type >= 13 && type <= 18)) {
    out.role = Role::StartsUnit;
  }
  return out;
}

Nal hevcNal(const uint8_t* nal, size_t size) {
  const unsigned type = (nal[0] >> 1) & 0x3f;
  Nal out;
  if (type <= 31) {
    out.role = Role::Slice;
    out.firstOfPicture = size > 2 && (nal[2] & 0x80) != 0;  // first_slice_segment_in_pic_flag
    out.key = type >= 16 && type <= 23;
  } else if ((type >= 32 && type <= 35) || type == 39 || (type >= 41 && type <= 44) ||
             (type >= 48 && type <= 55)) {
    out.role = Role::StartsUnit;
  }
  return out;
}

bool plausibleH264(uint8_t header) {
  if ((header & 0x80) != 0) return false;
  const unsigned type = header & 0x1f;
  const unsigned reference = (header >> 5) & 3;
  if (type == 0 || type > 20) return false;
  if (type == 5 || type == 7 || type == 8 || type == 13) return reference != 0;
  if (type == 6 || (type >= 9 && type <= 12)) return reference == 0;
  return true;
}

bool plausibleHevc(const uint8_t* header) {
  if ((header[0] & 0x80) != 0) return false;
  const unsigned type = (header[0] >> 1) & 0x3f;
  const unsigned layer = ((header[0] & 1u) << 5) | (header[1] >> 3);
  const unsigned temporalPlusOne = header[1] & 7u;
  if (layer != 0 || temporalPlusOne == 0) return false;
  const bool known = type <= 9 || (type >= 16 && type <= 21) || (type >= 32 && type <= 40);
  if (!known) return false;
  // IRAP pictures and the video and sequence parameter sets are of the lowest sub-layer.
  if ((type >= 16 && type <= 21) || type == 32 || type == 33) return temporalPlusOne == 1;
  return true;
}

uint64_t lengthAt(const uint8_t* data, unsigned size) {
  uint64_t length = 0;
  for (unsigned i = 0; i < size; ++i) length = (length << 8) | data[i];
  return length;
}

}  // namespace

bool plausibleNalHeader(const NalFormat& format, const uint8_t* header, size_t available) {
  if (format.codec == VideoCodec::H264) return available >= 1 && plausibleH264(header[0]);
  return available >= 2 && plausibleHevc(header);
}

AccessUnit findAccessUnit(const NalFormat& format, const uint8_t* data, size_t available) {
  const unsigned headerSize = format.codec == VideoCodec::H264 ? 1 : 2;
  AccessUnit unit;
  bool sawSlice = false;
  unsigned sliceSort = 0;
  bool key = false;
  uint64_t at = 0;
  while (available - at >= format.lengthSize) {
    const uint64_t length = lengthAt(data + at, format.lengthSize);
    const uint8_t* nal = data + at + format.lengthSize;
    const uint64_t left = available - at - format.lengthSize;
    if (length < headerSize || length > format.maxNalLength ||
        !plausibleNalHeader(format, nal, left)) {
      break;
    }
    // A NAL unit cut off by the end of the data still shows by its header
    // whether it starts the next picture.
    const auto size = static_cast<size_t>(length < left ? length : left);
    const Nal kind = format.codec == VideoCodec::H264 ? h264Nal(nal, size) : hevcNal(nal, size);
    if (sawSlice && (kind.role == Role::StartsUnit ||
                     (kind.role == Role::Slice && kind.firstOfPicture))) {
      break;
    }
    if (length > left) {
      unit.cutShort = true;
      break;
    }
    if (kind.role == Role::Slice) {
      // The slices of one picture share their NAL unit type (and, in
      // H.264, whether the picture is a reference).
      const unsigned sort = format.codec == VideoCodec::H264 ? (nal[0] & 0x1f) | ((nal[0] & 0x60) != 0) << 5
                                                             : nal[0] >> 1;
      if (sawSlice && sort != sliceSort) break;
      sliceSort = sort;
      sawSlice = true;
      key = key || kind.key;
    }
    at += format.lengthSize + length;
  }
  if (!sawSlice) return AccessUnit{0, false, unit.cutShort};
  unit.length = at;
  unit.key = key;
  return unit;
}

}  // namespace mp4stbl::recovery
