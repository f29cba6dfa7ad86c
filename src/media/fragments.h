// The samples of a fragmented file: each run of samples (trun) of each
// track fragment, resolved against the defaults of its track fragment
// header and its track (trex) to where its data starts and when its first
// sample decodes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "../box/fragment_boxes.h"
#include "../box/mp4file.h"

namespace mp4stbl {

// What one sample of a run says of itself.
struct FragmentSample {
  uint32_t size = 0;
  uint32_t duration = 0;
  bool sync = false;
  int64_t compositionOffset = 0;
};

// One trun with the defaults that apply to it.
struct FragmentRun {
  const TrunAtom* trun = nullptr;
  uint64_t dataStart = 0;    // file position of the first sample; wraps like the offsets
  uint64_t decodeStart = 0;  // decode time of the first sample
  bool timed = false;        // decodeStart came from a tfdt
  uint32_t defaultDuration = 0;
  uint32_t defaultSize = 0;
  uint32_t defaultFlags = 0;
  uint32_t descriptionIndex = 0;
  uint64_t bytes = 0;     // of all its samples
  uint64_t duration = 0;  // of all its samples

  FragmentSample sample(uint32_t i) const;  // i < trun->sampleCount
};

// The fragment samples of one track, in file order.
struct TrackFragments {
  std::vector<FragmentRun> runs;
  uint64_t samples = 0;
  uint64_t bytes = 0;
  uint64_t duration = 0;  // of all the samples, gaps between fragments left out
  uint64_t syncSamples = 0;
  uint64_t endTime = 0;  // where the last sample's duration ends
  bool hasTrex = false;
  uint64_t firstMoof = 0;  // offset of the first movie fragment naming the track
};

// Every track fragment of a file by track id, and what could not be
// placed ("traf at offset 1244 has no tfhd").
struct FragmentIndex {
  std::map<uint32_t, TrackFragments> byTrack;
  std::vector<std::string> problems;
};

FragmentIndex indexFragments(Mp4File& file);

class Track;

// The last sample whose decode time is at or before `time`, else the first:
// the sample that plays at `time` in a fragmented track.
uint32_t sampleAtTimeInFragments(const Track& track, uint64_t time);

}  // namespace mp4stbl
