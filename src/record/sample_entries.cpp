#include "record/sample_entries.h"

#include "box/codec_config.h"
#include "box/sample_entry.h"
#include "stbl.h"

namespace mp4stbl::record {

AtomHeader headerOf(const char* type) {
  AtomHeader header;
  header.type = type;
  return header;
}

namespace {

// The 16.16 rate field holds rates below 65536; a higher one is left to the
// decoder configuration, as the field cannot state it.
uint32_t fixedRate(uint32_t sampleRate) { return sampleRate < 65536 ? sampleRate << 16 : 0; }

template <class Entry>
std::unique_ptr<Entry> audioEntry(const char* type, uint32_t sampleRate, uint16_t channels,
                                  uint16_t bits) {
  auto entry = std::make_unique<Entry>(headerOf(type));
  entry->sampleRate = fixedRate(sampleRate);
  entry->channelCount = channels;
  entry->sampleSize = bits;
  return entry;
}

// An MPEG-4 descriptor: tag, then its length in one byte (the bodies built
// here stay below 128 bytes).
void appendDescriptor(Bytes& out, uint8_t tag, const Bytes& body) {
  out.push_back(tag);
  out.push_back(static_cast<uint8_t>(body.size()));
  out.insert(out.end(), body.begin(), body.end());
}

Bytes esdsBody(const Bytes& specificConfig, uint32_t trackId) {
  Bytes decoderInfo;
  appendDescriptor(decoderInfo, 0x05, specificConfig);
  // MPEG-4 audio, an audio stream; buffer size and bit rates left unstated.
  Bytes decoderConfig = {0x40, 0x15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  decoderConfig.insert(decoderConfig.end(), decoderInfo.begin(), decoderInfo.end());
  Bytes stream = {static_cast<uint8_t>(trackId >> 8), static_cast<uint8_t>(trackId), 0};
  appendDescriptor(stream, 0x04, decoderConfig);
  appendDescriptor(stream, 0x06, {0x02});  // the sync layer MP4 files use
  Bytes body = {0, 0, 0, 0};  // version and flags
  appendDescriptor(body, 0x03, stream);
  return body;
}

}  // namespace

std::unique_ptr<Atom> videoEntry(const VideoConfig& config) {
  const bool avc = config.codec == VideoConfig::Codec::H264;
  AtomHeader header = headerOf(avc ? "avc1" : "hvc1");
  std::unique_ptr<VisualSampleEntry> entry;
  UserDefAtom* record = nullptr;
  if (avc) {
    entry = std::make_unique<Avc1Atom>(header);
    record = new AvcConfigAtom(headerOf("avcC"));
  } else {
    entry = std::make_unique<Hvc1Atom>(header);
    record = new HevcConfigAtom(headerOf("hvcC"));
  }
  entry->width = config.width;
  entry->height = config.height;
  record->body = config.record;
  entry->children.push_back(record);
  return entry;
}

std::unique_ptr<Atom> aacEntry(const AudioConfig& config, uint32_t trackId) {
  auto entry = audioEntry<Mp4aAtom>("mp4a", config.sampleRate,
                                    static_cast<uint16_t>(config.channels), 16);
  auto* esds = new EsdsAtom(headerOf("esds"));
  esds->body = esdsBody(config.specificConfig, trackId);
  entry->children.push_back(esds);
  return entry;
}

std::unique_ptr<Atom> g711Entry(bool aLaw, uint32_t sampleRate, uint16_t channels) {
  if (aLaw) return audioEntry<AlawAtom>("alaw", sampleRate, channels, 16);
  return audioEntry<UlawAtom>("ulaw", sampleRate, channels, 16);
}

std::unique_ptr<Atom> pcmEntry(uint32_t sampleRate, uint16_t channels) {
  return audioEntry<AudioSampleEntry>("sowt", sampleRate, channels, 16);
}

std::unique_ptr<Atom> metadataEntry() { return std::make_unique<GpmdAtom>(headerOf("gpmd")); }

}  // namespace mp4stbl::record
