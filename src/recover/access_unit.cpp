#include "recover/access_unit.h"

namespace mp4stbl::recovery {

namespace {

enum class Role { Other, Slice, StartsUnit };

bool avcStartsUnit(unsigned type) { return (type >= 6 && type <= 9) || (type >= 13 && type <= 18); }
bool hevcStartsUnit(unsigned type) {
  return (type >= 32 && type <= 35) || type == 39 || (type >= 41 && type <= 44) ||
         (type >= 48 && type <= 55);
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

// The NAL units of one access unit, fed in stream order.
class Walk {
 public:
  explicit Walk(const NalFormat& format) : format_(format) {}

  enum class Verdict { Take, Ends, Invalid };

  // What the NAL unit (`size` bytes of it present) does to the unit.
  Verdict nal(const uint8_t* nal, size_t size) {
    if (format_.codec == VideoCodec::H264) {
      const unsigned type = nal[0] & 0x1f;
      // Data partitions B and C carry no slice header; they follow partition A.
      if (type == 3 || type == 4) return sawSlice_ ? Verdict::Take : Verdict::Invalid;
      if (type == 1 || type == 2 || type == 5) {
        const AvcSps* sps = nullptr;
        Result<AvcSlice> header = parseAvcSlice(nal, size, format_.avcSps, format_.avcPps, &sps);
        if (!header.ok()) return Verdict::Invalid;
        const bool starts =
            sawSlice_ ? newAvcPicture(unit_.avcSlice, *header) : header->firstMb == 0;
        if (!sawSlice_) {
          unit_.avcSlice = *header;
          unit_.avcSps = sps;
        }
        return slice(type | ((nal[0] & 0x60) != 0) << 5, starts, type == 5);
      }
      return other(avcStartsUnit(type));
    }
    const unsigned type = (nal[0] >> 1) & 0x3f;
    if (type <= 31) {
      const HevcSps* sps = nullptr;
      Result<HevcSlice> header = parseHevcSlice(nal, size, format_.hevcSps, format_.hevcPps, &sps);
      if (!header.ok()) return Verdict::Invalid;
      if (!sawSlice_) {
        unit_.hevcSlice = *header;
        unit_.hevcSps = sps;
      }
      return slice(type, header->firstInPicture, type >= 16 && type <= 23);
    }
    return other(hevcStartsUnit(type));
  }

  bool sawSlice() const { return sawSlice_; }
  AccessUnit& unit() { return unit_; }

 private:
  // The slices of one picture share their NAL unit type (and, in H.264,
  // whether the picture is a reference); a picture's first slice starts
  // the unit, or ends it once it holds one.
  Verdict slice(unsigned sort, bool firstOfPicture, bool key) {
    if (sawSlice_ && (firstOfPicture || sort != sort_)) return Verdict::Ends;
    if (!sawSlice_ && !firstOfPicture) return Verdict::Invalid;
    sort_ = sort;
    sawSlice_ = true;
    unit_.key = unit_.key || key;
    return Verdict::Take;
  }

  Verdict other(bool startsUnit) {
    return sawSlice_ && startsUnit ? Verdict::Ends : Verdict::Take;
  }

  const NalFormat& format_;
  AccessUnit unit_;
  bool sawSlice_ = false;
  unsigned sort_ = 0;
};

// The NAL units behind `lengthSize`-byte lengths in `bytes`, each given to `take`.
template <class Take>
void eachNal(const std::vector<uint8_t>& bytes, unsigned lengthSize, Take take) {
  size_t at = 0;
  while (bytes.size() - at > lengthSize) {
    const uint64_t length = lengthAt(bytes.data() + at, lengthSize);
    at += lengthSize;
    if (length == 0 || length > bytes.size() - at) return;
    take(Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(at),
               bytes.begin() + static_cast<std::ptrdiff_t>(at + length)));
    at += length;
  }
}

template <class Set>
Status keep(Result<Set> parsed, std::vector<Set>& sets) {
  if (parsed.ok()) sets.push_back(*parsed);
  return parsed.status();
}

}  // namespace

Result<NalFormat> nalFormat(VideoCodec codec, unsigned lengthSize, const std::vector<uint8_t>& sets) {
  NalFormat format;
  format.codec = codec;
  format.lengthSize = lengthSize;
  Status failed;
  eachNal(sets, lengthSize, [&](const Bytes& nal) {
    if (!failed.ok()) return;
    if (codec == VideoCodec::H264) {
      const unsigned type = nal[0] & 0x1f;
      if (type == 7) failed = keep(parseAvcSps(nal), format.avcSps);
      if (type == 8) failed = keep(parseAvcPps(nal), format.avcPps);
      return;
    }
    const unsigned type = (nal[0] >> 1) & 0x3f;
    if (type == 33) failed = keep(parseHevcSps(nal), format.hevcSps);
    if (type == 34) failed = keep(parseHevcPps(nal), format.hevcPps);
  });
  if (!failed.ok()) return failed;
  const bool complete = codec == VideoCodec::H264
                            ? !format.avcSps.empty() && !format.avcPps.empty()
                            : !format.hevcSps.empty() && !format.hevcPps.empty();
  if (!complete) return Status::failure("its decoder configuration holds no parameter sets");
  return format;
}

bool plausibleNalHeader(const NalFormat& format, const uint8_t* header, size_t available) {
  if (format.codec == VideoCodec::H264) return available >= 1 && plausibleH264(header[0]);
  return available >= 2 && plausibleHevc(header);
}

AccessUnit findAccessUnit(const NalFormat& format, const uint8_t* data, size_t available) {
  const unsigned headerSize = format.codec == VideoCodec::H264 ? 1 : 2;
  Walk walk(format);
  bool cutShort = false;
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
    const Walk::Verdict verdict = walk.nal(nal, size);
    if (verdict == Walk::Verdict::Ends) break;
    if (length > left) {
      cutShort = true;
      break;
    }
    if (verdict == Walk::Verdict::Invalid) break;
    at += format.lengthSize + length;
  }
  AccessUnit unit = walk.unit();
  unit.cutShort = cutShort;
  if (!walk.sawSlice()) {
    unit.key = false;
    return unit;
  }
  unit.length = at;
  return unit;
}

uint64_t lengthAt(const uint8_t* data, unsigned size) {
  uint64_t length = 0;
  for (unsigned i = 0; i < size; ++i) length = (length << 8) | data[i];
  return length;
}

}  // namespace mp4stbl::recovery
