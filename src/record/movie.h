// The boxes a recording writes around its media: the file type, the movie
// box (empty tables and track defaults while fragments follow, the whole
// tables at the end) and the movie fragment of each fragment.
#pragma once

#include <cstdint>
#include <vector>

#include "../media/stream_config.h"
#include "recorded_track.h"

namespace mp4stbl::record {

Bytes fileTypeBox(const std::vector<RecordedTrack>& tracks);

// The movie box of a recording in progress: its tracks with no samples and
// the defaults of their fragments.
Bytes fragmentedMovieBox(std::vector<RecordedTrack>& tracks, uint32_t movieTimescale);

// The movie box of the finished recording, its chunk offsets moved by
// `shift` bytes (the media's move in a fast-start file). Empty when a box
// cannot be written.
Bytes finalMovieBox(std::vector<RecordedTrack>& tracks, uint32_t movieTimescale, int64_t shift);

// A chunk of a fragment and where its bytes start, counted from the end of
// the fragment's moof.
struct PlacedChunk {
  RecordedTrack* track = nullptr;
  Chunk* chunk = nullptr;
  uint32_t dataOffset = 0;
};

// The moof of one fragment; its runs in the order of `chunks`, grouped by
// track, their data offsets counted from the moof's start. Empty when it
// cannot be written.
Bytes fragmentBox(uint32_t sequenceNumber, const std::vector<PlacedChunk>& chunks);

}  // namespace mp4stbl::record
