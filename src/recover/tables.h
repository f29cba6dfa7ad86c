// The sample tables of a recovered track, built sample by sample with the
// tables' own addEntry, as a recorder builds them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "../edit/output.h"

namespace mp4stbl::recovery {

struct FoundSample {
  uint64_t offset = 0;  // in the broken file
  uint32_t size = 0;
  uint32_t duration = 0;
  int64_t compositionOffset = 0;
  bool sync = true;
  uint32_t description = 1;
};

class TrackTables {
 public:
  // A constant size (PCM, G.711) gives stsz one size and no table.
  explicit TrackTables(uint32_t constantSize = 0);

  // Samples that follow each other in the file share a chunk. `count`
  // samples of the same size and duration follow each other from
  // sample.offset; more than one only for a track of sync samples alone.
  void add(const FoundSample& sample, uint32_t count = 1);
  uint32_t samples() const { return samples_; }
  uint64_t duration() const { return duration_; }
  // When the last sample to show ends, in decode time: the duration
  // unless composition offsets move samples past it.
  uint64_t presentationEnd() const { return static_cast<uint64_t>(std::max<int64_t>(shownEnd_, 0)); }
  uint64_t bytes() const { return bytes_; }
  // Gives the samples these composition offsets, one each, in place of
  // those they were added with.
  void setCompositionOffsets(const std::vector<int64_t>& offsets);
  // Where the first sample is in the broken file, and its size.
  uint64_t firstOffset() const { return chunkOffsets_.empty() ? 0 : chunkOffsets_.front(); }
  uint32_t firstSize() const;
  // Where the last sample ends in the broken file.
  uint64_t end() const { return chunkEnd_; }

  // Moves the tables into `track` (whose trak is set), reading every chunk
  // from source 0, and lays the chunks out in `layout`.
  void finish(edit::NewTrack& track, edit::Layout& layout);

 private:
  void closeChunk();
  void addOffset(int64_t offset, uint32_t count);

  uint32_t constantSize_;
  uint32_t samples_ = 0;
  uint64_t duration_ = 0;
  int64_t shownEnd_ = 0;
  uint64_t bytes_ = 0;
  std::unique_ptr<SttsAtom> stts_;
  std::unique_ptr<StscAtom> stsc_;
  std::unique_ptr<StszAtom> stsz_;
  std::unique_ptr<StssAtom> stss_;
  std::unique_ptr<CttsAtom> ctts_;
  bool hasOffsets_ = false;
  bool nonSync_ = false;
  std::vector<uint64_t> chunkOffsets_;
  std::vector<uint64_t> chunkLengths_;
  uint64_t chunkEnd_ = 0;
  uint32_t inChunk_ = 0;
  uint32_t description_ = 0;
};

}  // namespace mp4stbl::recovery
