// The order in which H.264 and HEVC pictures are shown: each picture's
// order count from its first slice header, computed in decode order, and
// the decoder's output process that turns order counts into presentation
// order with a bounded reorder buffer.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "parameter_sets.h"

namespace mp4stbl {

// Picture order counts of the pictures of one stream, fed in decode order.
class PictureOrder {
 public:
  // The order count of an H.264 picture (without the reset that
  // memory_management_control_operation 5 makes).
  int64_t avc(const AvcSlice& slice, const AvcSps& sps);
  // The order count of an HEVC picture; `newSequence` tells whether it
  // starts a coded video sequence (an IRAP picture that does not follow
  // on from the pictures before it), whose pictures are output apart.
  int64_t hevc(const HevcSlice& slice, const HevcSps& sps, bool* newSequence);
  // An end of sequence (or of bitstream) NAL unit came.
  void hevcEndOfSequence() { afterEndOfSequence_ = true; }

 private:
  int64_t prevPocMsb_ = 0;
  uint32_t prevPocLsb_ = 0;
  int64_t prevFrameNumOffset_ = 0;
  uint32_t prevFrameNum_ = 0;
  int64_t prevTid0Poc_ = 0;
  bool firstPicture_ = true;
  bool afterEndOfSequence_ = false;
};

// The decoder's output process: pictures enter in decode order; the one of
// the smallest order count (the earliest decoded of equals) leaves once
// more than `delay` wait, and all leave before a new sequence enters.
class OutputOrder {
 public:
  // Decodes one picture; the decode indices of the pictures this outputs
  // are appended to `output` in presentation order.
  void decode(int64_t poc, bool newSequence, uint32_t delay, std::vector<uint64_t>& output);
  // Outputs every picture that waits.
  void flush(std::vector<uint64_t>& output);
  uint64_t decoded() const { return decoded_; }
  // Pictures decoded since the oldest one waiting was.
  uint64_t longestWait() const { return waiting_.empty() ? 0 : decoded_ - waiting_.front().second; }

 private:
  void outputOne(std::vector<uint64_t>& output);

  std::vector<std::pair<int64_t, uint64_t>> waiting_;  // order count, decode index
  uint64_t decoded_ = 0;
};

}  // namespace mp4stbl
