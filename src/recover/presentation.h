// When recovered video frames show: each picture's order count, read from
// its first slice header, placed on the time line that a healthy file of
// the same settings shows its order counts on.
#pragma once

#include <cstdint>
#include <vector>

#include "../box/result.h"
#include "../box/stream.h"
#include "../media/picture_order.h"
#include "../media/track.h"
#include "access_unit.h"

namespace mp4stbl::recovery {

// A picture's order count, and whether it starts a coded video sequence
// (whose pictures show after all those decoded before it).
struct PictureCount {
  int64_t poc = 0;
  bool newSequence = false;
};

// The count of the access unit's picture; `order` has seen the pictures
// decoded before it.
PictureCount pictureCount(PictureOrder& order, const AccessUnit& unit);

// How order counts map to presentation times.
struct Presentation {
  int64_t pocStep = 1;    // order count between two pictures that show one after the other
  int64_t firstTime = 0;  // when the first picture shows; the first decodes at 0
  uint32_t duration = 0;  // of each frame
};

// Learns the mapping from the first video samples of a healthy file; a
// failure when its composition times do not follow its order counts (or
// its frames last unequally).
Result<Presentation> presentationOf(const Track& track, IOStream& stream, const NalFormat& format,
                                    uint32_t duration);

// The composition offset of each picture, decoded `duration` apart from
// time 0; a failure when an order count falls between two pictures' places
// (a stream that is not the healthy file's kind).
Result<std::vector<int64_t>> compositionOffsets(const std::vector<PictureCount>& pictures,
                                                const Presentation& presentation);

}  // namespace mp4stbl::recovery
