// The samples of media data whose index is lost, found by the tracks of a
// healthy file from the same device: video by its NAL units, AAC by its
// frame lengths, PCM and G.711 by their fixed sample size; the tracks'
// chunks taken in the order their decode times give, each sample checked
// before it is taken.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../box/stream.h"
#include "access_unit.h"
#include "presentation.h"
#include "recover.h"
#include "tables.h"

namespace mp4stbl::recovery {

// How the samples of one track are recognised.
struct TrackModel {
  enum class Kind { Video, Aac, Fixed };
  Kind kind = Kind::Fixed;
  NalFormat nal;              // Video
  bool reorders = false;      // Video: picture order counts are kept for composition offsets
  std::vector<uint8_t> aacConfig;  // Aac: the AudioSpecificConfig
  uint32_t sampleSize = 0;    // Fixed: bytes of one sample (all channels)
  // Fixed: samples that the writer puts down together (its packets); a
  // chunk of another track can start only after a whole packet.
  uint32_t packetSamples = 1;
  uint32_t timescale = 0;
  uint32_t sampleDuration = 0;  // time-scale units, each sample
};

struct ScanResult {
  std::vector<TrackTables> tables;  // one per model
  // Per model, of a video track that reorders: each sample's picture order count.
  std::vector<std::vector<PictureCount>> pictures;
  uint64_t end = 0;                 // where the last sample taken ends
  std::string stop;                 // why the walk stopped early; empty at the data's end
};

// Walks the media data in [start, end) of `stream`.
ScanResult scanMedia(IOStream& stream, uint64_t start, uint64_t end,
                     const std::vector<TrackModel>& models, const AacFrameLength& aacFrameLength);

}  // namespace mp4stbl::recovery
