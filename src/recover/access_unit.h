// Access units of H.264 and HEVC found in media data whose index is lost:
// NAL units behind big-endian length prefixes, as MP4 stores them, walked
// until the bytes stop being NAL units or the next picture starts. Slice
// headers are read with the parameter sets of a healthy file's sample
// entry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "../box/result.h"
#include "../media/parameter_sets.h"

namespace mp4stbl::recovery {

enum class VideoCodec { H264, Hevc };

struct NalFormat {
  VideoCodec codec = VideoCodec::H264;
  unsigned lengthSize = 4;  // 1, 2 or 4, from avcC / hvcC
  // A NAL unit longer than this is taken for bytes that are not one.
  uint64_t maxNalLength = 8u << 20;
  std::vector<AvcSps> avcSps;
  std::vector<AvcPps> avcPps;
  std::vector<HevcSps> hevcSps;
  std::vector<HevcPps> hevcPps;
};

// The format of a stream whose sample entry holds `sets`: its parameter
// sets as NAL units behind `lengthSize`-byte lengths. A failure when a
// sequence or picture parameter set is missing or does not parse.
Result<NalFormat> nalFormat(VideoCodec codec, unsigned lengthSize, const std::vector<uint8_t>& sets);

// Whether the NAL unit header at `header` (1 byte for H.264, 2 for HEVC)
// can start a NAL unit of a stream: forbidden bit clear, a type that is
// not reserved, fields that agree with the type.
bool plausibleNalHeader(const NalFormat& format, const uint8_t* header, size_t available);

// The access unit that starts at `data`.
struct AccessUnit {
  uint64_t length = 0;  // 0: no access unit starts here
  bool key = false;     // IDR (H.264), IRAP (HEVC)
  // The walk stopped at a NAL unit that looked valid but runs past the end
  // of the data: the unit (`length` covers its whole NAL units) may lack a
  // slice that was cut off.
  bool cutShort = false;
  // The header of the picture's first slice, and its sequence parameter
  // set: what its picture order count is computed from.
  AvcSlice avcSlice;
  HevcSlice hevcSlice;
  const AvcSps* avcSps = nullptr;
  const HevcSps* hevcSps = nullptr;
};

// Walks the NAL units from `data` (`available` bytes, the rest of the
// media data): the access unit holds the NAL units up to the first that is
// not valid or that starts another picture (an access unit delimiter,
// parameter sets or SEI after a slice, a slice of another picture). It
// must hold a slice whose header reads with the format's parameter sets.
AccessUnit findAccessUnit(const NalFormat& format, const uint8_t* data, size_t available);

// The big-endian NAL unit length of `size` bytes at `data`.
uint64_t lengthAt(const uint8_t* data, unsigned size);

}  // namespace mp4stbl::recovery
