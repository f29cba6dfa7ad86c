// Stretches of sources played one after the other on one continuous
// timeline: the tracks of a trim or a join, each with a single edit.
//
// Every player honours a single edit, while several edits are read
// differently from player to player (some re-read packets at each segment,
// some honour only the first). So a new track plays its stretches back to
// back: decode times run on from stretch to stretch, composition offsets are
// shifted so that presentation times keep increasing across every joint,
// audio frames that a joint makes redundant (AAC priming) are dropped, and
// the one edit hides only what the first stretch decodes before its start.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "output.h"

namespace mp4stbl::edit {

// The parameter sets of an H.264 or HEVC sample entry as length-prefixed
// NAL units (the configuration's own length size), to carry in band at a
// clip's first sample: a decoder that meets a new sample description
// mid-stream then finds them where it looks in any case. Empty for other
// codings and for a configuration that does not parse.
std::vector<uint8_t> parameterSets(const Atom* entry);

// A stretch of a source's presentation: seconds on its movie timeline,
// placed `gapBefore` seconds after the stretch ahead of it (or after the
// start of the new file).
struct Piece {
  size_t source = 0;
  double start = 0;
  double end = 0;
  double gapBefore = 0;
};

// The stretches of `from`..`to` (seconds of presentation) that `lead`'s edit
// list plays, one per edit, in order; the whole window when it has none. An
// empty edit of the lead is a stretch too: the other tracks may play in it.
std::vector<Piece> piecesOf(size_t source, const Track& lead, double from, double to);

// The media (composition times, track units) that a track plays from
// `start` to `end` seconds of the movie, through its own edit list: the
// first edit that plays media in that time. `late` is how long after
// `start` it begins to play; that edit starts at `editStart` seconds with
// media time `editMedia`.
struct Window {
  bool plays = false;
  int64_t from = 0;
  int64_t to = 0;
  double late = 0;
  double editStart = 0;
  int64_t editMedia = 0;
};
Window mediaWindow(const Track& track, double start, double end);

// The track that the stretches follow: the first video track, else the
// first track.
size_t leadTrack(const std::vector<Track>& tracks);

struct TimelineSource {
  EditableTracks* tracks = nullptr;
  // The new file's sample description index of each of this source's
  // descriptions, per track; empty: the same index.
  std::vector<std::vector<uint32_t>> descriptions;
};

struct Timeline {
  std::vector<NewTrack> tracks;  // empty tracks of the first source dropped
  std::vector<size_t> kept;      // the source's track number of each
  double seconds = 0;            // how long the new file plays
  std::vector<std::string> notes;
};

// Lays out `pieces` track by track into new tables and the media of
// `layout`. Track t of the new file takes track t of every source; its trak
// is the first source's. With `editList` false the tracks carry no edit
// list and start together at the same media time instead.
Result<Timeline> layOut(const std::vector<TimelineSource>& sources,
                        const std::vector<Piece>& pieces, bool editList, Layout& layout);

}  // namespace mp4stbl::edit
