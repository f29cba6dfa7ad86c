// The sample table of an MP4 track: the stbl box and the boxes beneath it.
#pragma once

#include <cstdint>
#include <vector>

#include "box/atom.h"

// One run of the time-to-sample table: sampleCount samples of sampleDelta
// time-scale units each.
struct SttsEntry {
  uint32_t sampleCount = 0;
  uint32_t sampleDelta = 0;
};

// "stts": the duration of every sample, as runs of equal durations.
class SttsAtom : public Atom {
 public:
  explicit SttsAtom(const AtomHeader& header);
  ~SttsAtom() override;

  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;

  // Extends the last run when its delta equals sampleDelta, else opens a run.
  void addEntry(uint32_t sampleCount, uint32_t sampleDelta);
  // Appends the source's runs first..last (1-based record ordinals),
  // folding each into the last run when the deltas agree.
  void merge(const SttsAtom* source, uint32_t first, uint32_t last);
  // Sum of the runs' durations, each run taken modulo 2^32.
  uint64_t totalDuration() const;

  uint8_t version = 0;
  uint32_t flags = 0;
  std::vector<SttsEntry> entries;
};
