// Access units of H.264 and HEVC found in media data whose index is lost:
// NAL units behind big-endian length prefixes, as MP4 stores them, walked
// until the bytes stop being NAL units or the next picture starts.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mp4stbl::recovery {

enum class VideoCodec { H264, Hevc };

struct NalFormat {
  VideoCodec codec = VideoCodec::H264;
  unsigned lengthSize = 4;  // 1, 2 or 4, from avcC / hvcC
  // A NAL unit longer than this is taken for bytes that are not one.
  uint64_t maxNalLength = 8u << 20;
};

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
};

// Walks the NAL units from `data` (`available` bytes, the rest of the
// media data): the access unit holds the NAL units up to the first that is
// not valid or that starts another picture (an access unit delimiter,
// parameter sets or SEI after a slice, a slice whose first macroblock or
// segment is the picture's first). It must hold a slice.
AccessUnit findAccessUnit(const NalFormat& format, const uint8_t* data, size_t available);

}  // namespace mp4stbl::recovery
