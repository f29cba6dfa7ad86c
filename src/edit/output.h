// The part of an edit that trim and join share: a tree taken from the
// first source, its tracks given new tables, written to a new file with the
// media data laid out anew, and checked once written.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../box/mp4file.h"
#include "editor.h"
#include "media_copy.h"
#include "../media/track.h"
#include "../stbl.h"

namespace mp4stbl::edit {

// One segment of an edit list: `duration` in the movie's time scale, from
// `mediaTime` in the track's (-1: an empty segment, nothing plays).
struct EditSegment {
  uint64_t duration = 0;
  int64_t mediaTime = 0;
};

// A track of the new file.
struct NewTrack {
  Atom* trak = nullptr;  // in the tree that is written
  uint32_t timescale = 0;
  uint32_t sampleCount = 0;
  std::unique_ptr<SttsAtom> stts;
  std::unique_ptr<StscAtom> stsc;
  std::unique_ptr<Atom> stsz;  // a table, or one size for every sample
  std::unique_ptr<StssAtom> stss;  // none: every sample is a sync sample
  // Every chunk of the new file: the source it comes from and its offset there.
  std::vector<size_t> chunkSources;
  std::vector<uint64_t> chunkOffsets;
  uint64_t mediaDuration = 0;  // the track's time scale
  // Empty: the track plays its media as it is, for mediaDuration.
  std::vector<EditSegment> edits;
  // The per-sample boxes beside the tables (ctts, sdtp, sbgp), already cut
  // or joined; and whether the sample group descriptions stay.
  std::vector<std::unique_ptr<Atom>> extras;
  bool keepGroups = true;
};

// Writes `tree` (the first source's boxes) with `tracks` in place of its
// tracks and the media of `layout` in place of its media data, to a new
// file at `output`, then reads it back to check it. `inputs` are refused as
// the output; a failure leaves no file.
Status writeEdited(Mp4File& tree, std::vector<NewTrack>& tracks, Layout& layout,
                   const std::vector<IOStream*>& sources, const std::vector<std::string>& inputs,
                   const std::string& output, const EditOptions& options);

// The tracks of a source that an edit can take, all of them readable; a
// fragmented source is flattened first. They come with their trak boxes, in
// file order.
struct EditableTracks {
  std::string path;
  std::vector<Track> tracks;
  std::vector<Atom*> traks;
  uint32_t movieTimescale = 0;
};
Result<EditableTracks> editableTracks(Mp4File& file, const std::string& path);

// The stbl box of a trak.
Atom& sampleTable(Atom* trak);

// The first child of `parent` of a class, or of a type; null when none is.
template <class Box>
Box* childOf(Atom* parent) {
  for (Atom* child : parent->children) {
    if (auto* box = dynamic_cast<Box*>(child)) return box;
  }
  return nullptr;
}
Atom* childNamed(Atom* parent, const char* type);

// Deletes the children of `parent` that `unwanted(const Atom&)` picks.
template <class Unwanted>
void removeChildren(Atom* parent, Unwanted unwanted) {
  for (auto it = parent->children.begin(); it != parent->children.end();) {
    if (unwanted(**it)) {
      delete *it;
      it = parent->children.erase(it);
    } else {
      ++it;
    }
  }
}

// A box as it is written; empty when it cannot be.
std::vector<unsigned char> bytesOf(Atom& box);

// The failure of a sample whose bytes lie past the end of its file.
Status missingSample(const Track& track, const SampleInfo& sample);

// Runs of samples (ctts, sbgp records: a sample count first) that cover
// samples first..last (1-based, inclusive) of `runs`, appended to `out`.
template <class Run>
void appendRuns(std::vector<Run>& out, const std::vector<Run>& runs, uint64_t first,
                uint64_t last) {
  uint64_t start = 1;  // the first sample of the run
  for (const Run& run : runs) {
    if (start > last) break;
    const uint64_t end = start + run.sampleCount;  // one past its last sample
    if (run.sampleCount != 0 && end > first) {
      Run kept = run;
      kept.sampleCount = static_cast<uint32_t>(std::min(end - 1, last) - std::max(start, first) + 1);
      out.push_back(kept);
    }
    start = end;
  }
}

// The per-sample boxes of a track's stbl beside the sample tables, cut to
// samples first..last.
std::vector<std::unique_ptr<Atom>> cutExtras(Atom& stbl, uint32_t first, uint32_t last);

// An empty box of `type`, to be filled.
template <class Box>
std::unique_ptr<Box> newBox(const char* type) {
  AtomHeader header;
  header.type = type;
  return std::make_unique<Box>(header);
}

// A table of one size for every sample.
std::unique_ptr<Atom> constantSizeStsz(uint32_t size, uint32_t count);

}  // namespace mp4stbl::edit
