// Samples to elementary streams: NAL unit lengths to start codes, AAC
// frames behind ADTS headers.
#include "media/sample_format.h"

#include <algorithm>
#include <string>

#include "box/codec_config.h"
#include "media/bits.h"

namespace mp4stbl {

namespace {

constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};

// Reads a record's fields in order; every read past its end sets `short_`.
class RecordReader {
 public:
  explicit RecordReader(const Bytes& bytes) : bytes_(bytes) {}
  uint32_t u8() { return take(1); }
  uint32_t u16() { return take(2); }
  // The next `count` bytes, appended to `out`.
  void copy(size_t count, Bytes* out) {
    if (count > bytes_.size() - at_) {
      short_ = true;
      at_ = bytes_.size();
      return;
    }
    out->insert(out->end(), bytes_.begin() + static_cast<std::ptrdiff_t>(at_),
                bytes_.begin() + static_cast<std::ptrdiff_t>(at_ + count));
    at_ += count;
  }
  // The same behind a start code.
  void nal(size_t count, Bytes* out) {
    if (count <= bytes_.size() - at_) out->insert(out->end(), kStartCode, kStartCode + 4);
    copy(count, out);
  }
  void skip(size_t count) { at_ = count > bytes_.size() - at_ ? bytes_.size() : at_ + count; }
  bool isShort() const { return short_; }

 private:
  uint32_t take(int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i) {
      if (at_ >= bytes_.size()) {
        short_ = true;
        return 0;
      }
      value = value << 8 | bytes_[at_++];
    }
    return value;
  }

  const Bytes& bytes_;
  size_t at_ = 0;
  bool short_ = false;
};

uint32_t readLength(const uint8_t* at, uint32_t size) {
  uint32_t value = 0;
  for (uint32_t i = 0; i < size; ++i) value = value << 8 | at[i];
  return value;
}

}  // namespace

Result<AnnexBWriter> AnnexBWriter::fromRecord(VideoConfig::Codec codec, const Bytes& record) {
  const bool avc = codec == VideoConfig::Codec::H264;
  const char* box = avc ? "avcC" : "hvcC";
  AnnexBWriter writer;
  writer.codec_ = codec;
  RecordReader in(record);
  if (avc) {
    in.skip(4);  // version, profile, compatibility, level
    writer.lengthSize_ = (in.u8() & 3) + 1;
    const uint32_t sps = in.u8() & 0x1F;
    for (uint32_t i = 0; i < sps && !in.isShort(); ++i) in.nal(in.u16(), &writer.parameterSets_);
    const uint32_t pps = in.u8();
    for (uint32_t i = 0; i < pps && !in.isShort(); ++i) in.nal(in.u16(), &writer.parameterSets_);
  } else {
    in.skip(21);  // profile, tier, level, chroma and bit depths, frame rate
    writer.lengthSize_ = (in.u8() & 3) + 1;
    const uint32_t arrays = in.u8();
    for (uint32_t a = 0; a < arrays && !in.isShort(); ++a) {
      in.skip(1);  // completeness and NAL unit type
      const uint32_t count = in.u16();
      for (uint32_t i = 0; i < count && !in.isShort(); ++i) {
        in.nal(in.u16(), &writer.parameterSets_);
      }
    }
  }
  if (in.isShort()) {
    return Status::failure(std::string(box) + " ends before its parameter sets (" +
                           std::to_string(record.size()) + " bytes)");
  }
  if (writer.lengthSize_ == 3) {
    return Status::failure(std::string(box) + " gives NAL unit lengths of 3 bytes");
  }
  return writer;
}

Result<AnnexBWriter> AnnexBWriter::fromEntry(const Atom& entry) {
  for (const Atom* child : entry.children) {
    if (const auto* avcc = dynamic_cast<const AvcConfigAtom*>(child)) {
      return fromRecord(VideoConfig::Codec::H264, avcc->body);
    }
    if (const auto* hvcc = dynamic_cast<const HevcConfigAtom*>(child)) {
      return fromRecord(VideoConfig::Codec::Hevc, hvcc->body);
    }
  }
  return Status::failure("sample entry " + entry.header.type + " has no avcC or hvcC");
}

bool AnnexBWriter::isDelimiter(uint8_t header) const {
  return codec_ == VideoConfig::Codec::H264 ? (header & 0x1F) == 9 : (header >> 1 & 0x3F) == 35;
}

bool AnnexBWriter::isSequenceSet(uint8_t header) const {
  return codec_ == VideoConfig::Codec::H264 ? (header & 0x1F) == 7 : (header >> 1 & 0x3F) == 33;
}

Status AnnexBWriter::convert(const uint8_t* sample, size_t size, bool key, Bytes* out) const {
  // First the lengths are checked, and whether the sample has its own
  // parameter sets.
  bool ownSets = false;
  size_t units = 0;
  for (size_t at = 0; at < size; ++units) {
    if (size - at < lengthSize_) {
      return Status::failure("a NAL unit length cut short at byte " + std::to_string(at) +
                             " of " + std::to_string(size));
    }
    const uint32_t length = readLength(sample + at, lengthSize_);
    at += lengthSize_;
    if (length == 0 || length > size - at) {
      return Status::failure("a NAL unit of " + std::to_string(length) + " bytes at byte " +
                             std::to_string(at) + " of " + std::to_string(size));
    }
    ownSets = ownSets || isSequenceSet(sample[at]);
    at += length;
  }
  bool setsDue = key && !ownSets;
  out->reserve(out->size() + size + units * (4 - std::min<size_t>(lengthSize_, 4)) +
               (setsDue ? parameterSets_.size() : 0));
  for (size_t at = 0; at < size;) {
    const uint32_t length = readLength(sample + at, lengthSize_);
    at += lengthSize_;
    // The sets follow an access unit delimiter, which opens the unit.
    if (setsDue && !isDelimiter(sample[at])) {
      out->insert(out->end(), parameterSets_.begin(), parameterSets_.end());
      setsDue = false;
    }
    out->insert(out->end(), kStartCode, kStartCode + 4);
    out->insert(out->end(), sample + at, sample + at + length);
    at += length;
  }
  if (setsDue) out->insert(out->end(), parameterSets_.begin(), parameterSets_.end());
  return Status();
}

Result<AdtsWriter> AdtsWriter::fromConfig(const Bytes& specificConfig) {
  BitReader in(specificConfig);
  uint32_t objectType = in.bits(5);
  if (objectType == 31) objectType = 32 + in.bits(6);
  const uint32_t rateIndex = in.bits(4);
  const uint32_t channels = rateIndex == 15 ? 0 : in.bits(4);
  if (in.failed()) return Status::failure("AudioSpecificConfig ends early");
  const std::string refused = "ADTS cannot carry this AAC: ";
  if (objectType == 0 || objectType > 4) {
    return Status::failure(refused + "audio object type " + std::to_string(objectType) +
                           (objectType == 5 || objectType == 29 ? " (HE-AAC signalled explicitly)" : "") +
                           "; its header states types 1 to 4 only");
  }
  if (rateIndex == 15) {
    return Status::failure(refused + "an explicit sampling frequency (index 15); its header "
                                     "states a frequency index only");
  }
  Result<AudioConfig> parsed = aacConfig(specificConfig);
  if (!parsed.ok()) return Status::failure(refused + parsed.message());
  if (parsed->samplesPerFrame != 1024) {
    return Status::failure(refused + "frames of 960 samples; its decoders take 1024");
  }
  AdtsWriter writer;
  writer.objectType_ = static_cast<uint8_t>(objectType);
  writer.rateIndex_ = static_cast<uint8_t>(rateIndex);
  writer.channels_ = static_cast<uint8_t>(channels);
  return writer;
}

Result<AdtsWriter> AdtsWriter::fromEntry(const Atom& entry) {
  for (const Atom* child : entry.children) {
    if (const auto* esds = dynamic_cast<const EsdsAtom*>(child)) {
      Result<Bytes> config = aacSpecificConfig(esds->body);
      if (!config.ok()) return config.status();
      return fromConfig(*config);
    }
  }
  return Status::failure("sample entry " + entry.header.type + " has no esds");
}

Status AdtsWriter::convert(const uint8_t* frame, size_t size, Bytes* out) const {
  constexpr size_t kHeader = 7, kLongest = 0x1FFF;
  if (size > kLongest - kHeader) {
    return Status::failure("an AAC frame of " + std::to_string(size) +
                           " bytes, longer than an ADTS frame can be (" +
                           std::to_string(kLongest - kHeader) + ")");
  }
  const size_t length = size + kHeader;
  const uint8_t header[kHeader] = {
      0xFF,
      0xF1,  // MPEG-4, layer 0, no CRC
      static_cast<uint8_t>((objectType_ - 1) << 6 | rateIndex_ << 2 | channels_ >> 2),
      static_cast<uint8_t>((channels_ & 3) << 6 | length >> 11),
      static_cast<uint8_t>(length >> 3),
      static_cast<uint8_t>((length & 7) << 5 | 0x1F),  // buffer fullness 0x7FF: variable rate
      0xFC};  // one raw data block
  out->insert(out->end(), header, header + kHeader);
  out->insert(out->end(), frame, frame + size);
  return Status();
}

Result<Bytes> aacSpecificConfig(const std::vector<unsigned char>& esdsBody) {
  Bytes body(esdsBody.begin(), esdsBody.end());
  RecordReader in(body);
  // A descriptor's tag, then its length in up to four bytes of seven bits.
  auto enter = [&in](uint32_t tag) {
    if (in.u8() != tag) return false;
    int bytes = 0;
    while (bytes++ < 4 && (in.u8() & 0x80) != 0) continue;
    return !in.isShort();
  };
  in.skip(4);  // version and flags
  if (!enter(0x03)) return Status::failure("esds has no elementary stream descriptor");
  in.skip(2);  // ES_ID
  const uint32_t flags = in.u8();
  if (flags & 0x80) in.skip(2);
  if (flags & 0x40) in.skip(in.u8());
  if (flags & 0x20) in.skip(2);
  if (!enter(0x04)) return Status::failure("esds has no decoder configuration");
  const uint32_t objectType = in.u8();
  if (objectType != 0x40 && (objectType < 0x66 || objectType > 0x68)) {
    return Status::failure("esds names object type " + std::to_string(objectType) + ", not AAC");
  }
  in.skip(12);  // stream type, buffer size, bit rates
  if (in.u8() != 0x05) return Status::failure("esds has no AudioSpecificConfig");
  uint32_t length = 0;
  for (int i = 0; i < 4; ++i) {
    const uint32_t byte = in.u8();
    length = length << 7 | (byte & 0x7F);
    if ((byte & 0x80) == 0) break;
  }
  Bytes config;
  in.copy(length, &config);
  if (in.isShort()) return Status::failure("esds ends inside its AudioSpecificConfig");
  return config;
}

}  // namespace mp4stbl
