#include "box/codec_config.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace mp4stbl {

namespace {

// Reads big-endian numbers from a body in memory; a read past its end
// yields 0 and marks the cursor short for good.
class Cursor {
 public:
  explicit Cursor(const std::vector<unsigned char>& bytes) : bytes_(bytes) {}
  uint32_t take(unsigned width) {
    if (short_ || bytes_.size() - at_ < width) {
      short_ = true;
      return 0;
    }
    uint32_t value = 0;
    for (unsigned i = 0; i < width; ++i) value = value << 8 | bytes_[at_++];
    return value;
  }
  uint8_t u8() { return static_cast<uint8_t>(take(1)); }
  uint16_t u16() { return static_cast<uint16_t>(take(2)); }
  void skip(size_t count) {
    if (short_ || bytes_.size() - at_ < count) {
      short_ = true;
      return;
    }
    at_ += count;
  }
  bool isShort() const { return short_; }
  size_t left() const { return bytes_.size() - at_; }

 private:
  const std::vector<unsigned char>& bytes_;
  size_t at_ = 0;
  bool short_ = false;
};

// Skips `count` parameter sets, each a 16-bit length and that many bytes.
void skipParameterSets(Cursor& in, unsigned count) {
  for (unsigned i = 0; i < count && !in.isShort(); ++i) in.skip(in.u16());
}

// "3.1" for ten (AVC) or thirty (HEVC) times 3.1; no ".0" for whole levels.
std::string levelText(unsigned idc, unsigned perLevel) {
  const unsigned whole = idc / perLevel, tenths = idc % perLevel * 10 / perLevel;
  return std::to_string(whole) + (tenths != 0 ? "." + std::to_string(tenths) : "");
}

}  // namespace

// ---- avcC ----

AvcConfigAtom::AvcConfigAtom(const AtomHeader& from) : UserDefAtom(from) {}

int AvcConfigAtom::readData(IOStream* stream) {
  if (UserDefAtom::readData(stream) != 0) return -1;
  Cursor in(body);
  configurationVersion = in.u8();
  profile = in.u8();
  compatibility = in.u8();
  level = in.u8();
  lengthSize = static_cast<uint8_t>((in.u8() & 0x03) + 1);
  spsCount = in.u8() & 0x1F;
  skipParameterSets(in, spsCount);
  ppsCount = in.u8();
  skipParameterSets(in, ppsCount);
  parsed = !in.isShort() && configurationVersion == 1;
  return 0;
}

std::string AvcConfigAtom::profileName() const {
  if (!parsed) return "unknown";
  const bool set1 = (compatibility & 0x40) != 0, set3 = (compatibility & 0x10) != 0;
  switch (profile) {
    case 66: return set1 ? "Constrained Baseline" : "Baseline";
    case 77: return "Main";
    case 88: return "Extended";
    case 100: return "High";
    case 110: return set3 ? "High 10 Intra" : "High 10";
    case 122: return set3 ? "High 4:2:2 Intra" : "High 4:2:2";
    case 244: return set3 ? "High 4:4:4 Intra" : "High 4:4:4 Predictive";
    case 44: return "CAVLC 4:4:4";
    case 118: return "Multiview High";
    case 128: return "Stereo High";
    default: return "profile " + std::to_string(profile);
  }
}

std::string AvcConfigAtom::levelName() const {
  if (!parsed) return "unknown";
  // Level 1b: 9, or 11 with constraint_set3 in the profiles below High.
  const bool below = profile == 66 || profile == 77 || profile == 88;
  if (level == 9 || (level == 11 && below && (compatibility & 0x10) != 0)) return "1b";
  return levelText(level, 10);
}

void AvcConfigAtom::describe(FieldSink& sink) const {
  if (!parsed) {
    sink.text("profile", "unknown");
    return;
  }
  sink.field("version", configurationVersion);
  sink.field("profile", profile);
  sink.field("compatibility", compatibility);
  sink.field("level", level);
  sink.field("length_size", lengthSize);
  sink.field("sps", spsCount);
  sink.field("pps", ppsCount);
}

// ---- hvcC ----

HevcConfigAtom::HevcConfigAtom(const AtomHeader& from) : UserDefAtom(from) {}

int HevcConfigAtom::readData(IOStream* stream) {
  if (UserDefAtom::readData(stream) != 0) return -1;
  Cursor in(body);
  configurationVersion = in.u8();
  const uint8_t general = in.u8();
  profileSpace = general >> 6;
  tier = general >> 5 & 1;
  profile = general & 0x1F;
  compatibility = in.take(4);
  in.skip(6);  // constraint indicator flags
  level = in.u8();
  in.skip(3);  // min spatial segmentation, parallelism type
  chromaFormat = in.u8() & 0x03;
  lumaBitDepth = static_cast<uint8_t>((in.u8() & 0x07) + 8);
  chromaBitDepth = static_cast<uint8_t>((in.u8() & 0x07) + 8);
  in.skip(2);  // average frame rate
  lengthSize = static_cast<uint8_t>((in.u8() & 0x03) + 1);
  vpsCount = spsCount = ppsCount = 0;
  const unsigned arrays = in.u8();
  for (unsigned i = 0; i < arrays && !in.isShort(); ++i) {
    const unsigned nalType = in.u8() & 0x3F;
    const uint16_t units = in.u16();
    skipParameterSets(in, units);
    // Arrays may repeat a type: the counts saturate rather than wrap.
    uint16_t* count = nalType == 32 ? &vpsCount : nalType == 33 ? &spsCount
                    : nalType == 34 ? &ppsCount : nullptr;
    if (count != nullptr) *count = static_cast<uint16_t>(std::min(0xFFFF, *count + units));
  }
  parsed = !in.isShort() && configurationVersion == 1;
  return 0;
}

std::string HevcConfigAtom::profileName() const {
  if (!parsed) return "unknown";
  switch (profile) {
    case 1: return "Main";
    case 2: return "Main 10";
    case 3: return "Main Still Picture";
    case 4: return "Rext";
    case 5: return "High Throughput 4:4:4";
    case 9: return "SCC";
    default: return "profile " + std::to_string(profile);
  }
}

std::string HevcConfigAtom::levelName() const {
  if (!parsed) return "unknown";
  return (tier != 0 ? "H" : "L") + levelText(level, 30);
}

void HevcConfigAtom::describe(FieldSink& sink) const {
  if (!parsed) {
    sink.text("profile", "unknown");
    return;
  }
  sink.field("version", configurationVersion);
  sink.field("profile_space", profileSpace);
  sink.field("tier", tier);
  sink.field("profile", profile);
  sink.field("compatibility", compatibility);
  sink.field("level", level);
  sink.field("chroma_format", chromaFormat);
  sink.field("luma_bit_depth", lumaBitDepth);
  sink.field("chroma_bit_depth", chromaBitDepth);
  sink.field("length_size", lengthSize);
  sink.field("vps", vpsCount);
  sink.field("sps", spsCount);
  sink.field("pps", ppsCount);
}

// ---- esds ----

namespace {

// Reads a descriptor's tag and length (up to four bytes of seven bits);
// false when the tag is another one or the bytes run out.
bool enterDescriptor(Cursor& in, uint8_t tag, uint32_t* length) {
  if (in.u8() != tag) return false;
  *length = 0;
  for (int i = 0; i < 4; ++i) {
    const uint8_t byte = in.u8();
    *length = *length << 7 | (byte & 0x7F);
    if ((byte & 0x80) == 0) break;
  }
  return !in.isShort();
}

// The bits of a body from a byte position on, most significant first; 0
// past the end.
class Bits {
 public:
  Bits(const std::vector<unsigned char>& bytes, size_t from) : bytes_(bytes), bit_(from * 8) {}
  uint32_t take(unsigned count) {
    uint32_t value = 0;
    for (unsigned i = 0; i < count; ++i, ++bit_) {
      const size_t byte = bit_ / 8;
      const unsigned b = byte < bytes_.size() ? bytes_[byte] >> (7 - bit_ % 8) & 1 : 0;
      short_ = short_ || byte >= bytes_.size();
      value = value << 1 | b;
    }
    return value;
  }
  bool isShort() const { return short_; }

 private:
  const std::vector<unsigned char>& bytes_;
  size_t bit_;
  bool short_ = false;
};

constexpr uint32_t kAacRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                    22050, 16000, 12000, 11025, 8000,  7350};

}  // namespace

AudioConfigAtom::AudioConfigAtom(const AtomHeader& from) : UserDefAtom(from) {}

EsdsAtom::EsdsAtom(const AtomHeader& from) : AudioConfigAtom(from) {}

namespace {

constexpr uint8_t kVorbis = 0xDD;

// Whether an objectTypeIndication is AAC, whose decoder specific
// information is an AudioSpecificConfig: MPEG-4 audio, or MPEG-2 AAC's
// Main, LC and SSR profiles.
bool isAac(uint8_t objectType) {
  return objectType == 0x40 || (objectType >= 0x66 && objectType <= 0x68);
}

// Vorbis's identification header, the first of the Xiph-laced headers:
// packet type 1, "vorbis", a 32-bit version, then the channels and a
// little-endian rate.
bool readVorbisHeader(Cursor& in, EsdsAtom& esds) {
  const unsigned laced = in.u8();  // the packets less one
  // Each laced size is a run of 255s closed by a smaller byte.
  for (unsigned packet = 0; packet < laced && !in.isShort(); ++packet) {
    uint8_t piece = 0;
    do {
      piece = in.u8();
    } while (piece == 0xFF && !in.isShort());
  }
  if (in.u8() != 1) return false;
  for (const char letter : {'v', 'o', 'r', 'b', 'i', 's'}) {
    if (in.u8() != static_cast<uint8_t>(letter)) return false;
  }
  in.skip(4);  // version
  esds.channelConfiguration = in.u8();
  uint32_t rate = 0;
  for (unsigned shift = 0; shift < 32; shift += 8) rate |= uint32_t{in.u8()} << shift;
  esds.sampleRate = rate;
  return !in.isShort();
}

}  // namespace

int EsdsAtom::readData(IOStream* stream) {
  if (UserDefAtom::readData(stream) != 0) return -1;
  Cursor in(body);
  uint32_t length = 0;
  in.skip(4);  // version and flags
  if (!enterDescriptor(in, 0x03, &length)) return 0;
  in.skip(2);  // ES_ID
  const uint8_t esFlags = in.u8();
  if (esFlags & 0x80) in.skip(2);  // the stream it depends on
  if (esFlags & 0x40) in.skip(in.u8());  // URL
  if (esFlags & 0x20) in.skip(2);  // OCR stream
  if (!enterDescriptor(in, 0x04, &length)) return 0;
  objectType = in.u8();
  in.skip(12);  // stream type, buffer size, bit rates
  if (!enterDescriptor(in, 0x05, &length)) return 0;
  if (objectType == kVorbis) {
    parsed = readVorbisHeader(in, *this);
    return 0;
  }
  if (!isAac(objectType)) return 0;
  Bits config(body, body.size() - in.left());
  audioObjectType = static_cast<uint8_t>(config.take(5));
  if (audioObjectType == 31) audioObjectType = static_cast<uint8_t>(32 + config.take(6));
  const uint32_t rateIndex = config.take(4);
  sampleRate = rateIndex == 15 ? config.take(24) : rateIndex < 13 ? kAacRates[rateIndex] : 0;
  channelConfiguration = static_cast<uint8_t>(config.take(4));
  parsed = !config.isShort();
  return 0;
}

uint32_t EsdsAtom::channels() const {
  if (!parsed || channelConfiguration == 0) return 0;
  if (objectType == kVorbis) return channelConfiguration;
  constexpr uint32_t kChannels[16] = {0, 1, 2, 3, 4, 5, 6, 8, 0, 0, 0, 7, 8, 24, 8, 0};
  return kChannels[channelConfiguration & 0x0F];
}

void EsdsAtom::describe(FieldSink& sink) const {
  if (!parsed) return;
  sink.field("object_type", objectType);
  sink.field("audio_object_type", audioObjectType);
  sink.field("sample_rate", sampleRate);
  sink.field("channel_configuration", channelConfiguration);
}

// ---- dac3, dec3 ----

namespace {

// The full-bandwidth channels of each AC-3 audio coding mode: 1+1 (dual
// mono), 1/0, 2/0, 3/0, 2/1, 3/1, 2/2, 3/2.
constexpr uint32_t kAc3Channels[8] = {2, 1, 2, 3, 3, 4, 4, 5};

}  // namespace

Ac3ConfigAtom::Ac3ConfigAtom(const AtomHeader& from) : AudioConfigAtom(from) {}

int Ac3ConfigAtom::readData(IOStream* stream) {
  if (UserDefAtom::readData(stream) != 0) return -1;
  Bits in(body, 0);
  sampleRateCode = static_cast<uint8_t>(in.take(2));
  bitStreamId = static_cast<uint8_t>(in.take(5));
  in.take(3);  // bsmod
  codingMode = static_cast<uint8_t>(in.take(3));
  lfe = in.take(1) != 0;
  in.take(5);  // bit rate code
  parsed = !in.isShort();
  return 0;
}

uint32_t Ac3ConfigAtom::channels() const {
  return parsed ? kAc3Channels[codingMode & 7] + (lfe ? 1 : 0) : 0;
}

void Ac3ConfigAtom::describe(FieldSink& sink) const {
  if (!parsed) return;
  sink.field("fscod", sampleRateCode);
  sink.field("bsid", bitStreamId);
  sink.field("acmod", codingMode);
  sink.field("lfeon", lfe);
}

Eac3ConfigAtom::Eac3ConfigAtom(const AtomHeader& from) : Ac3ConfigAtom(from) {}

int Eac3ConfigAtom::readData(IOStream* stream) {
  if (UserDefAtom::readData(stream) != 0) return -1;
  Bits in(body, 0);
  dataRate = static_cast<uint16_t>(in.take(13));
  independentSubstreams = static_cast<uint8_t>(in.take(3) + 1);
  sampleRateCode = static_cast<uint8_t>(in.take(2));
  bitStreamId = static_cast<uint8_t>(in.take(5));
  in.take(5);  // reserved, asvc, bsmod
  codingMode = static_cast<uint8_t>(in.take(3));
  lfe = in.take(1) != 0;
  in.take(3);  // reserved
  in.take(4);  // dependent substreams
  parsed = !in.isShort();
  return 0;
}

void Eac3ConfigAtom::describe(FieldSink& sink) const {
  if (!parsed) return;
  sink.field("data_rate", dataRate);
  sink.field("independent_substreams", independentSubstreams);
  Ac3ConfigAtom::describe(sink);
}

// ---- alac ----

AlacConfigAtom::AlacConfigAtom(const AtomHeader& from) : AudioConfigAtom(from) {}

int AlacConfigAtom::readData(IOStream* stream) {
  if (UserDefAtom::readData(stream) != 0) return -1;
  Cursor in(body);
  in.skip(4);  // version and flags
  frameLength = in.take(4);
  in.skip(1);  // compatible version
  bitDepth = in.u8();
  in.skip(3);  // the Rice coder's parameters
  channelCount = in.u8();
  in.skip(10);  // longest run, largest frame, average bit rate
  sampleRate = in.take(4);
  parsed = !in.isShort();
  return 0;
}

void AlacConfigAtom::describe(FieldSink& sink) const {
  if (!parsed) return;
  sink.field("frame_length", frameLength);
  sink.field("bit_depth", bitDepth);
  sink.field("channels", channelCount);
  sink.field("sample_rate", sampleRate);
}

const AtomType kSampleEntryChildren[6] = {
    {"avcC", &makeAtom<AvcConfigAtom>}, {"hvcC", &makeAtom<HevcConfigAtom>},
    {"esds", &makeAtom<EsdsAtom>},      {"dac3", &makeAtom<Ac3ConfigAtom>},
    {"dec3", &makeAtom<Eac3ConfigAtom>}, {"alac", &makeAtom<AlacConfigAtom>},
};

}  // namespace mp4stbl
