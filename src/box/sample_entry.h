// Sample entries: the children of "stsd" that describe how a track's
// samples are coded. The fixed part of each body is parsed into fields; the
// child boxes that follow it are its children: avcC, hvcC, esds, dac3, dec3
// and alac typed, the others (colr, pasp, btrt, chan, wave, ...) kept
// opaque. QuickTime writers (GStreamer's qtmux always) may end the children
// with a 4-byte zero word, which is kept and written back after them. A tail
// that is not a clean run of boxes is kept as raw bytes, so whatever a file
// holds is written back.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "atom.h"

namespace mp4stbl {

// The ISO/IEC 14496-12 visual sample entry, with the QuickTime names of
// its reserved words.
class VisualSampleEntry : public Atom {
 public:
  explicit VisualSampleEntry(const AtomHeader& header);

  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  int writeChildren(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  // The name after the compressor name's length byte.
  std::string compressor() const;

  std::array<uint8_t, 6> reserved{};
  uint16_t dataReferenceIndex = 1;
  uint16_t version = 0;
  uint16_t revision = 0;
  uint32_t vendor = 0;
  uint32_t temporalQuality = 0;
  uint32_t spatialQuality = 0;
  uint16_t width = 0;
  uint16_t height = 0;
  uint32_t horizontalResolution = 0x00480000;  // 72 dpi, 16.16
  uint32_t verticalResolution = 0x00480000;
  uint32_t dataSize = 0;
  uint16_t frameCount = 1;
  std::array<uint8_t, 32> compressorName{};  // length byte, then the name
  uint16_t depth = 0x0018;
  uint16_t colorTableId = 0xFFFF;
  std::vector<unsigned char> tail;  // bytes after the fields that are not boxes
  bool terminated = false;  // the children end with a 4-byte zero word

  template <class Visitor>
  void fields(Visitor& v) {
    v(reserved), v(dataReferenceIndex), v(version), v(revision), v(vendor);
    v(temporalQuality), v(spatialQuality), v(width), v(height);
    v(horizontalResolution), v(verticalResolution), v(dataSize), v(frameCount);
    v(compressorName), v(depth), v(colorTableId);
  }
};

// The audio sample entry: ISO/IEC 14496-12's, which is QuickTime's sound
// description version 0, and QuickTime's versions 1 and 2 that .mov files
// carry (told apart by soundVersion).
class AudioSampleEntry : public Atom {
 public:
  explicit AudioSampleEntry(const AtomHeader& header);

  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  int writeChildren(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  // Samples a second and channels, from the version 2 fields when present.
  double samplesPerSecond() const;
  uint32_t channels() const;

  uint32_t sampleRate = 0;  // 16.16 fixed point, as in the box
  uint16_t channelCount = 0;
  // Samples in one coded frame, for the recorder's timing; not in the box.
  uint32_t samplesPerFrame = 1024;

  std::array<uint8_t, 6> reserved{};
  uint16_t dataReferenceIndex = 1;
  uint16_t soundVersion = 0;
  uint16_t revision = 0;
  uint32_t vendor = 0;
  uint16_t sampleSize = 16;
  uint16_t compressionId = 0;
  uint16_t packetSize = 0;
  // Version 1: samples per packet, bytes per packet, per frame, per sample.
  std::array<uint32_t, 4> v1{};
  // Version 2: struct size, the sample rate as a 64-bit float, channels,
  // 0x7F000000, bits per channel, format flags, bytes per packet, frames
  // per packet.
  uint32_t v2StructSize = 0;
  uint64_t v2SampleRate = 0;
  std::array<uint32_t, 6> v2{};
  std::vector<unsigned char> tail;
  bool terminated = false;

  template <class Visitor>
  void fields(Visitor& v) {
    v(reserved), v(dataReferenceIndex), v(soundVersion), v(revision), v(vendor);
    v(channelCount), v(sampleSize), v(compressionId), v(packetSize), v(sampleRate);
    if (soundVersion == 1) {
      for (uint32_t& word : v1) v(word);
    } else if (soundVersion == 2) {
      v(v2StructSize), v(v2SampleRate);
      for (uint32_t& word : v2) v(word);
    }
  }
};

// MPEG-4 audio ("mp4a").
class Mp4aAtom : public AudioSampleEntry {
 public:
  explicit Mp4aAtom(AtomHeader header);
};

// G.711 audio, the base of "alaw" and "ulaw".
class G711Atom : public AudioSampleEntry {
 public:
  explicit G711Atom(AtomHeader header);
};

// AVC video ("avc1").
class Avc1Atom : public VisualSampleEntry {
 public:
  explicit Avc1Atom(AtomHeader& header);
};

// HEVC video ("hvc1").
class Hvc1Atom : public VisualSampleEntry {
 public:
  explicit Hvc1Atom(AtomHeader header);
};

// Apple ProRes video: one class for "apch", "apcn", "apcs" and "apco".
class ProresAtom : public VisualSampleEntry {
 public:
  ProresAtom(AtomHeader& header, const std::string& variant);

  std::string variant;
};

}  // namespace mp4stbl
