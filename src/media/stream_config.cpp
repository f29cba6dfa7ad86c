// The avcC and hvcC records and the AAC configuration, from what the
// streams carry.
#include "media/stream_config.h"

#include <algorithm>
#include <string>

#include "media/bits.h"
#include "media/parameter_sets.h"

namespace mp4stbl {

namespace {

void put16(Bytes& out, size_t value) {
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

void putSets(Bytes& out, const std::vector<Bytes>& sets) {
  for (const Bytes& set : sets) {
    put16(out, set.size());
    out.insert(out.end(), set.begin(), set.end());
  }
}

Status checkSets(const std::vector<Bytes>& sets, const char* name, size_t most) {
  if (sets.empty()) return Status::failure(std::string("no ") + name);
  if (sets.size() > most) {
    return Status::failure(std::to_string(sets.size()) + " " + name + "s, more than " +
                           std::to_string(most));
  }
  for (const Bytes& set : sets) {
    if (set.size() < 2 || set.size() > 0xFFFF) {
      return Status::failure(std::string(name) + " of " + std::to_string(set.size()) + " bytes");
    }
  }
  return Status();
}

// Which parameter sets a record lists is the caller's; each must parse.
template <class Parse>
Status parseAll(const std::vector<Bytes>& sets, Parse parse) {
  for (const Bytes& set : sets) {
    auto parsed = parse(set);
    if (!parsed.ok()) return parsed.status();
  }
  return Status();
}

// ffmpeg's rule, wider than the ISO list (100, 110, 122, 144): every
// profile but Baseline, Main and Extended gets the chroma and bit-depth
// trailer.
bool avcTrailer(uint8_t profile) { return profile != 66 && profile != 77 && profile != 88; }

}  // namespace

Result<VideoConfig> avcConfig(const std::vector<Bytes>& sps, const std::vector<Bytes>& pps) {
  Status status = checkSets(sps, "SPS", 31);
  if (status.ok()) status = checkSets(pps, "PPS", 255);
  if (status.ok()) status = parseAll(sps, parseAvcSps);
  if (status.ok()) status = parseAll(pps, parseAvcPps);
  if (!status.ok()) return Status::failure("H.264 parameter sets: " + status.message());
  const AvcSps first = *parseAvcSps(sps.front());
  VideoConfig config;
  config.codec = VideoConfig::Codec::H264;
  config.width = static_cast<uint16_t>(std::min<uint32_t>(first.width, 0xFFFF));
  config.height = static_cast<uint16_t>(std::min<uint32_t>(first.height, 0xFFFF));
  if (first.unitsInTick != 0 && first.timeScale != 0 && first.unitsInTick <= UINT32_MAX / 2) {
    config.timeScale = first.timeScale;
    config.unitsPerFrame = 2 * first.unitsInTick;  // a tick is a field
  }
  config.reorderFrames = first.hasReorderFrames ? std::min<uint32_t>(first.reorderFrames, 16)
                                                : avcDefaultReorder(first);
  Bytes& out = config.record;
  out = {1,           first.profile, first.compatibility,
         first.level, 0xFF,          static_cast<uint8_t>(0xE0 | sps.size())};
  putSets(out, sps);
  out.push_back(static_cast<uint8_t>(pps.size()));
  putSets(out, pps);
  if (avcTrailer(first.profile)) {
    out.push_back(static_cast<uint8_t>(0xFC | first.chromaFormat));
    out.push_back(static_cast<uint8_t>(0xF8 | (first.bitDepthLuma - 8)));
    out.push_back(static_cast<uint8_t>(0xF8 | (first.bitDepthChroma - 8)));
    out.push_back(0);  // no SPS extensions
  }
  return config;
}

namespace {

void putHvccArray(Bytes& out, uint8_t type, const std::vector<Bytes>& sets) {
  out.push_back(static_cast<uint8_t>(0x80 | type));  // array_completeness 1
  put16(out, sets.size());
  putSets(out, sets);
}

void putHevcProfile(Bytes& out, const HevcProfile& profile) {
  out.push_back(static_cast<uint8_t>(profile.space << 6 | profile.tier << 5 | profile.idc));
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<uint8_t>(profile.compatibility >> shift));
  }
  for (int shift = 40; shift >= 0; shift -= 8) {
    out.push_back(static_cast<uint8_t>(profile.constraints >> shift));
  }
  out.push_back(profile.level);
}

}  // namespace

Result<VideoConfig> hevcConfig(const std::vector<Bytes>& vps, const std::vector<Bytes>& sps,
                               const std::vector<Bytes>& pps) {
  Status status = checkSets(vps, "VPS", 16);
  if (status.ok()) status = checkSets(sps, "SPS", 16);
  if (status.ok()) status = checkSets(pps, "PPS", 64);
  if (status.ok()) status = parseAll(sps, parseHevcSps);
  if (status.ok()) status = parseAll(pps, parseHevcPps);
  if (!status.ok()) return Status::failure("HEVC parameter sets: " + status.message());
  const HevcSps first = *parseHevcSps(sps.front());
  VideoConfig config;
  config.codec = VideoConfig::Codec::Hevc;
  config.width = static_cast<uint16_t>(std::min<uint32_t>(first.width, 0xFFFF));
  config.height = static_cast<uint16_t>(std::min<uint32_t>(first.height, 0xFFFF));
  if (first.unitsInTick != 0 && first.timeScale != 0) {
    config.timeScale = first.timeScale;
    config.unitsPerFrame = first.unitsInTick;
  }
  config.reorderFrames = std::min<uint32_t>(first.reorderPics, 16);
  const uint32_t layers = std::max(first.maxSubLayers, hevcVpsMaxSubLayers(vps.front()));
  Bytes& out = config.record;
  out.push_back(1);
  putHevcProfile(out, first.profile);
  put16(out, 0xF000);   // min_spatial_segmentation_idc 0
  out.push_back(0xFC);  // parallelismType 0
  out.push_back(static_cast<uint8_t>(0xFC | first.chromaFormat));
  out.push_back(static_cast<uint8_t>(0xF8 | (first.bitDepthLuma - 8)));
  out.push_back(static_cast<uint8_t>(0xF8 | (first.bitDepthChroma - 8)));
  put16(out, 0);  // avgFrameRate
  out.push_back(static_cast<uint8_t>(layers << 3 | (first.temporalIdNesting ? 4 : 0) | 3));
  out.push_back(3);
  putHvccArray(out, 32, vps);
  putHvccArray(out, 33, sps);
  putHvccArray(out, 34, pps);
  return config;
}

namespace {

constexpr uint32_t kAacRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                    22050, 16000, 12000, 11025, 8000,  7350};

uint32_t readObjectType(BitReader& in) {
  const uint32_t type = in.bits(5);
  return type == 31 ? 32 + in.bits(6) : type;
}

// A rate index or the explicit 24-bit rate; 0 for a reserved index.
uint32_t readRate(BitReader& in) {
  const uint32_t index = in.bits(4);
  if (index == 15) return in.bits(24);
  return index < 13 ? kAacRates[index] : 0;
}

// The object types whose configuration starts with GASpecificConfig.
bool generalAudio(uint32_t type) {
  return (type >= 1 && type <= 4) || type == 6 || type == 7 || type == 17 ||
         (type >= 19 && type <= 23);
}

}  // namespace

Result<AudioConfig> aacConfig(const Bytes& specificConfig) {
  BitReader in(specificConfig);
  uint32_t type = readObjectType(in);
  AudioConfig config;
  config.specificConfig = specificConfig;
  config.sampleRate = readRate(in);
  const uint32_t channels = in.bits(4);
  const bool parametricStereo = type == 29;
  if (type == 5 || type == 29) {  // explicit SBR: the output rate follows
    config.sampleRate = readRate(in);
    type = readObjectType(in);
  }
  if (generalAudio(type) && in.flag()) config.samplesPerFrame = 960;
  if (in.failed()) return Status::failure("AudioSpecificConfig ends early");
  if (type == 0) return Status::failure("AudioSpecificConfig: audio object type 0");
  if (config.sampleRate == 0) {
    return Status::failure("AudioSpecificConfig: reserved sampling frequency index");
  }
  if (channels == 0) {
    return Status::failure(
        "AudioSpecificConfig: channel configuration 0 (a program config element) is not supported");
  }
  if (channels > 7) {
    return Status::failure("AudioSpecificConfig: reserved channel configuration " +
                           std::to_string(channels));
  }
  config.channels = channels == 7 ? 8 : channels;
  if (parametricStereo) config.channels = std::max<uint32_t>(config.channels, 2);
  return config;
}

}  // namespace mp4stbl
