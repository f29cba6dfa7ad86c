// A track's samples in the form decoders and other containers take them:
// H.264 and HEVC as an Annex B byte stream, AAC frames behind ADTS
// headers. The reverse of the readers of elementary.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "../box/atom.h"
#include "../box/result.h"
#include "stream_config.h"

namespace mp4stbl {

// Length-prefixed NAL units to start codes, the decoder configuration's
// parameter sets put before each key frame that does not carry its own.
class AnnexBWriter {
 public:
  // From the body of an avcC or hvcC box; refused when it is short, or
  // names a length size other than 1, 2 or 4.
  static Result<AnnexBWriter> fromRecord(VideoConfig::Codec codec, const Bytes& record);
  // From a sample entry holding an avcC or hvcC.
  static Result<AnnexBWriter> fromEntry(const Atom& entry);

  // Appends `sample` in Annex B form to `out`. A NAL unit length that runs
  // past the sample is refused, and `out` keeps what came before it.
  Status convert(const uint8_t* sample, size_t size, bool key, Bytes* out) const;

  uint32_t lengthSize() const { return lengthSize_; }
  // The parameter sets, each behind a start code.
  const Bytes& parameterSets() const { return parameterSets_; }

 private:
  AnnexBWriter() = default;
  bool isDelimiter(uint8_t header) const;
  bool isSequenceSet(uint8_t header) const;

  VideoConfig::Codec codec_ = VideoConfig::Codec::H264;
  uint32_t lengthSize_ = 4;
  Bytes parameterSets_;
};

// Raw AAC frames to ADTS: each frame behind a 7-byte header made from the
// AudioSpecificConfig.
class AdtsWriter {
 public:
  // Refused when ADTS cannot carry the configuration: an object type past
  // 4 (ADTS has two bits for it), an explicit sampling frequency (index
  // 15) or a reserved one, a program config element (channel
  // configuration 0).
  static Result<AdtsWriter> fromConfig(const Bytes& specificConfig);
  // From an "mp4a" sample entry's esds.
  static Result<AdtsWriter> fromEntry(const Atom& entry);

  // Appends the header and the frame; a frame ADTS's 13-bit length cannot
  // state is refused.
  Status convert(const uint8_t* frame, size_t size, Bytes* out) const;

 private:
  AdtsWriter() = default;

  uint8_t objectType_ = 2;
  uint8_t rateIndex_ = 0;
  uint8_t channels_ = 0;
};

// The AudioSpecificConfig of an esds body (its decoder specific
// information); refused when the descriptors do not lead to one or the
// stream is not AAC.
Result<Bytes> aacSpecificConfig(const std::vector<unsigned char>& esdsBody);

}  // namespace mp4stbl
