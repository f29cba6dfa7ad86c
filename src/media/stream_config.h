// Decoder configurations built from what an elementary stream carries:
// the avcC and hvcC records from parameter sets, and the AAC decoder's
// AudioSpecificConfig, with what a sample entry shows of them.
#pragma once

#include <cstdint>
#include <vector>

#include "../box/result.h"

namespace mp4stbl {

using Bytes = std::vector<uint8_t>;

// A video stream's configuration.
struct VideoConfig {
  enum class Codec { H264, Hevc };
  Codec codec = Codec::H264;
  // The body of the avcC or hvcC box: profile, level and the parameter sets,
  // with 4-byte NAL unit lengths.
  Bytes record;
  // The picture size after cropping, in pixels.
  uint16_t width = 0;
  uint16_t height = 0;
  // The frame rate the parameter sets give (VUI timing): timeScale /
  // unitsPerFrame frames a second; both 0 when they give none.
  uint32_t timeScale = 0;
  uint32_t unitsPerFrame = 0;
  // Frames a decoder may hold back before output (B-frame reordering):
  // max_num_reorder_frames / sps_max_num_reorder_pics, or the largest the
  // profile allows when the stream does not say.
  uint32_t reorderFrames = 0;
};

// Parameter sets are NAL units as the stream carries them: NAL header
// first, emulation-prevention bytes in place, no start code or length.
// A set that does not parse, or a list that is empty, is refused with the
// reason.
Result<VideoConfig> avcConfig(const std::vector<Bytes>& sps, const std::vector<Bytes>& pps);
Result<VideoConfig> hevcConfig(const std::vector<Bytes>& vps, const std::vector<Bytes>& sps,
                               const std::vector<Bytes>& pps);

// An AAC stream's configuration.
struct AudioConfig {
  Bytes specificConfig;  // AudioSpecificConfig, as esds carries it
  uint32_t sampleRate = 0;  // output samples a second (SBR's doubled rate)
  uint32_t channels = 0;
  uint32_t samplesPerFrame = 1024;  // 960 for the 960-sample frame length
};

// Parses an AudioSpecificConfig; refused when it names no rate or no
// channel layout this code can state.
Result<AudioConfig> aacConfig(const Bytes& specificConfig);

}  // namespace mp4stbl
