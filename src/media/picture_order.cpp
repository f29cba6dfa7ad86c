#include "media/picture_order.h"

#include <algorithm>

namespace mp4stbl {

int64_t PictureOrder::avc(const AvcSlice& slice, const AvcSps& sequence) {
  const bool idr = slice.nalType == 5;
  const int64_t maxFrameNum = int64_t{1} << sequence.log2MaxFrameNum;
  int64_t frameNumOffset = 0;
  if (!idr) {
    frameNumOffset = prevFrameNumOffset_ + (prevFrameNum_ > slice.frameNum ? maxFrameNum : 0);
  }
  prevFrameNumOffset_ = frameNumOffset;
  prevFrameNum_ = slice.frameNum;
  if (sequence.pocType == 0) {
    if (idr) prevPocMsb_ = prevPocLsb_ = 0;
    const int64_t maxLsb = int64_t{1} << sequence.log2MaxPocLsb;
    const int64_t lsb = slice.pocLsb, prevLsb = prevPocLsb_;
    int64_t msb = prevPocMsb_;
    if (lsb < prevLsb && prevLsb - lsb >= maxLsb / 2) msb += maxLsb;
    if (lsb > prevLsb && lsb - prevLsb > maxLsb / 2) msb -= maxLsb;
    if (slice.refIdc != 0) {
      prevPocMsb_ = msb;
      prevPocLsb_ = slice.pocLsb;
    }
    const int64_t top = msb + lsb;
    if (slice.fieldPic) return top;
    return std::min(top, top + slice.deltaPocBottom);
  }
  if (sequence.pocType == 2) {
    if (idr) return 0;
    return 2 * (frameNumOffset + slice.frameNum) - (slice.refIdc == 0 ? 1 : 0);
  }
  const std::vector<int32_t>& offsets = sequence.refFrameOffsets;
  int64_t absFrameNum = offsets.empty() ? 0 : frameNumOffset + slice.frameNum;
  if (slice.refIdc == 0 && absFrameNum > 0) --absFrameNum;
  int64_t expected = 0;
  if (absFrameNum > 0) {
    int64_t cycle = 0;
    for (int32_t offset : offsets) cycle += offset;
    const int64_t count = (absFrameNum - 1) / static_cast<int64_t>(offsets.size());
    const size_t inCycle =
        static_cast<size_t>((absFrameNum - 1) % static_cast<int64_t>(offsets.size()));
    expected = count * cycle;
    for (size_t i = 0; i <= inCycle; ++i) expected += offsets[i];
  }
  if (slice.refIdc == 0) expected += sequence.offsetForNonRefPic;
  const int64_t top = expected + slice.deltaPoc[0];
  const int64_t bottom =
      expected + sequence.offsetForTopToBottomField + slice.deltaPoc[slice.fieldPic ? 0 : 1];
  if (slice.fieldPic) return slice.bottomField ? bottom : top;
  return std::min(top, bottom + slice.deltaPoc[0]);
}

int64_t PictureOrder::hevc(const HevcSlice& slice, const HevcSps& sequence, bool* newSequence) {
  const bool irap = slice.nalType >= 16 && slice.nalType <= 23;
  *newSequence = irap && (slice.nalType != 21 || firstPicture_ || afterEndOfSequence_);
  firstPicture_ = false;
  afterEndOfSequence_ = false;
  const int64_t maxLsb = int64_t{1} << sequence.log2MaxPocLsb;
  const int64_t lsb = slice.pocLsb;
  int64_t msb = 0;
  if (!*newSequence) {
    const int64_t prevLsb = prevTid0Poc_ & (maxLsb - 1), prevMsb = prevTid0Poc_ - prevLsb;
    msb = prevMsb;
    if (lsb < prevLsb && prevLsb - lsb >= maxLsb / 2) msb += maxLsb;
    if (lsb > prevLsb && lsb - prevLsb > maxLsb / 2) msb -= maxLsb;
  }
  const int64_t poc = msb + lsb;
  const bool leadingOrNonRef =
      (slice.nalType >= 6 && slice.nalType <= 9) || (slice.nalType <= 14 && slice.nalType % 2 == 0);
  if (slice.temporalId == 0 && !leadingOrNonRef) prevTid0Poc_ = poc;
  return poc;
}

void OutputOrder::decode(int64_t poc, bool newSequence, uint32_t delay,
                         std::vector<uint64_t>& output) {
  if (newSequence) flush(output);
  waiting_.emplace_back(poc, decoded_++);
  while (waiting_.size() > delay) outputOne(output);
}

void OutputOrder::flush(std::vector<uint64_t>& output) {
  while (!waiting_.empty()) outputOne(output);
}

void OutputOrder::outputOne(std::vector<uint64_t>& output) {
  const auto first = std::min_element(waiting_.begin(), waiting_.end());
  output.push_back(first->second);
  waiting_.erase(first);
}

}  // namespace mp4stbl
