// What the readers of H.264 and HEVC streams take from parameter sets and
// slice headers: the fields that size the picture, number the frames and
// order them for presentation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../box/result.h"
#include "stream_config.h"

namespace mp4stbl {

struct AvcSps {
  uint32_t id = 0;
  uint8_t profile = 0;
  uint8_t compatibility = 0;  // the constraint_set flags byte
  uint8_t level = 0;
  uint32_t chromaFormat = 1;
  bool separateColourPlanes = false;
  uint32_t bitDepthLuma = 8;
  uint32_t bitDepthChroma = 8;
  uint32_t log2MaxFrameNum = 4;
  uint32_t pocType = 0;
  uint32_t log2MaxPocLsb = 4;
  bool deltaPicOrderAlwaysZero = false;
  int32_t offsetForNonRefPic = 0;
  int32_t offsetForTopToBottomField = 0;
  std::vector<int32_t> refFrameOffsets;  // offset_for_ref_frame[], one POC cycle
  uint32_t maxRefFrames = 0;
  uint32_t widthInMbs = 0;
  uint32_t heightInMapUnits = 0;
  bool frameMbsOnly = true;
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t unitsInTick = 0;  // VUI timing, 0 when absent
  uint32_t timeScale = 0;
  bool hasReorderFrames = false;  // VUI bitstream restriction present
  uint32_t reorderFrames = 0;
};

struct AvcPps {
  uint32_t id = 0;
  uint32_t spsId = 0;
  bool bottomFieldPicOrderPresent = false;
};

// The fields of a slice header that tell pictures apart and order them.
struct AvcSlice {
  uint32_t nalType = 0;
  uint32_t refIdc = 0;
  uint32_t firstMb = 0;
  uint32_t ppsId = 0;
  uint32_t frameNum = 0;
  bool fieldPic = false;
  bool bottomField = false;
  uint32_t idrPicId = 0;
  uint32_t pocLsb = 0;
  int32_t deltaPocBottom = 0;
  int32_t deltaPoc[2] = {0, 0};
};

// Parsers take the NAL unit as the stream carries it, header included; a
// failure names the set and why.
Result<AvcSps> parseAvcSps(const Bytes& nal);
Result<AvcPps> parseAvcPps(const Bytes& nal);
Result<AvcSlice> parseAvcSlice(const uint8_t* nal, size_t size, const std::vector<AvcSps>& sps,
                               const std::vector<AvcPps>& pps, const AvcSps** active);
// Whether slice `b` belongs to another picture than slice `a` before it.
bool newAvcPicture(const AvcSlice& a, const AvcSlice& b);
// recovery_frame_cnt of a recovery point in an SEI NAL unit; -1 when it
// holds none.
int32_t avcRecoveryFrames(const uint8_t* nal, size_t size);

struct HevcProfile {
  uint8_t space = 0;
  uint8_t tier = 0;
  uint8_t idc = 0;
  uint32_t compatibility = 0;
  uint64_t constraints = 0;  // 48 bits
  uint8_t level = 0;
};

struct HevcSps {
  uint32_t id = 0;
  uint32_t maxSubLayers = 1;
  bool temporalIdNesting = false;
  HevcProfile profile;
  uint32_t chromaFormat = 1;
  bool separateColourPlanes = false;
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t bitDepthLuma = 8;
  uint32_t bitDepthChroma = 8;
  uint32_t log2MaxPocLsb = 4;
  uint32_t reorderPics = 0;
  uint32_t unitsInTick = 0;  // VUI timing, 0 when absent or unreadable
  uint32_t timeScale = 0;
};

struct HevcPps {
  uint32_t id = 0;
  uint32_t spsId = 0;
  bool dependentSliceSegments = false;
  bool outputFlagPresent = false;
  uint32_t extraSliceHeaderBits = 0;
};

struct HevcSlice {
  uint32_t nalType = 0;
  uint32_t temporalId = 0;
  bool firstInPicture = false;
  uint32_t pocLsb = 0;
};

uint32_t hevcVpsMaxSubLayers(const Bytes& nal);
Result<HevcSps> parseHevcSps(const Bytes& nal);
Result<HevcPps> parseHevcPps(const Bytes& nal);
Result<HevcSlice> parseHevcSlice(const uint8_t* nal, size_t size, const std::vector<HevcSps>& sps,
                                 const std::vector<HevcPps>& pps, const HevcSps** active);

// The frames an H.264 decoder may hold for reordering when the stream
// does not say: none for profiles without B-frames, else what the level's
// picture buffer holds.
uint32_t avcDefaultReorder(const AvcSps& sps);

}  // namespace mp4stbl
