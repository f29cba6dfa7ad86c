// Trimming: every track cut to one presentation window.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "box/edit_boxes.h"
#include "edit/editor.h"
#include "edit/output.h"

namespace mp4stbl {

namespace {

using edit::EditSegment;
using edit::NewTrack;

// A window of presentation time in a track's time-scale units.
struct Window {
  int64_t from = 0;
  int64_t to = 0;
};

int64_t presented(const SampleInfo& sample) { return sample.presentationTime; }
int64_t compositionOffset(const SampleInfo& sample) { return sample.compositionOffset; }

// The samples of one track that the window keeps: from the sync sample at
// or before the window's start (for audio, the sample that holds it) to the
// last sample that starts playing before its end.
struct Cut {
  uint32_t first = 0;
  uint32_t last = 0;
  int64_t firstPresented = 0;
  int64_t firstComposition = 0;  // composition offset of the first sample
  int64_t end = 0;               // when the last kept sample stops playing
  uint64_t duration = 0;         // of the kept samples, in decode order

  bool empty() const { return first == 0 || last < first; }
};

// What the cut needs of a sample that may turn out to be its first.
struct Candidate {
  int64_t presented = 0;
  int64_t composition = 0;
  uint64_t decoded = 0;
};

// Samples a decoder must take before the first one it shows: the roll
// distance that the track's "roll" sample groups declare, else one frame
// for AAC, whose every frame leans on the one before.
uint32_t preRoll(const Track& track, Atom& stbl) {
  uint32_t roll = 0;
  for (const Atom* box : stbl.children) {
    const auto* groups = dynamic_cast<const SgpdAtom*>(box);
    if (groups == nullptr || groups->groupingType != 0x726F6C6Cu) continue;  // "roll"
    for (const std::vector<uint8_t>& entry : groups->entries) {
      if (entry.size() < 2) continue;
      const auto distance = static_cast<int16_t>(entry[0] << 8 | entry[1]);
      if (distance < 0) roll = std::max<uint32_t>(roll, static_cast<uint32_t>(-distance));
    }
  }
  if (roll == 0 && track.stss() == nullptr && track.entryType() == "mp4a") roll = 1;
  return roll;
}

// Finds the cut in one walk, remembering only the last few samples for the
// pre-roll: memory stays the same however long the track.
Result<Cut> cutTrack(const Track& track, const Window& window, uint32_t roll) {
  Cut cut;
  std::vector<Candidate> recent(size_t{roll} + 1);  // by sample number, round
  uint64_t firstDecoded = 0;
  uint64_t endDecoded = 0;
  SampleWalker walk(track);
  for (;;) {
    Result<const SampleInfo*> next = walk.next();
    if (!next.ok()) return next.status();
    const SampleInfo* sample = *next;
    if (sample == nullptr || presented(*sample) - compositionOffset(*sample) >= window.to) break;
    const int64_t at = presented(*sample);
    recent[sample->number % recent.size()] = {at, compositionOffset(*sample), sample->decodeTime};
    if (sample->sync && (at <= window.from || cut.first == 0)) {
      cut.first = sample->number - std::min(roll, sample->number - 1);
      const Candidate& first = recent[cut.first % recent.size()];
      cut.firstPresented = first.presented;
      cut.firstComposition = first.composition;
      firstDecoded = first.decoded;
    }
    if (cut.first != 0 && at < window.to) {
      cut.last = sample->number;
      cut.end = std::max(cut.end, at + sample->duration);
      endDecoded = sample->decodeTime + sample->duration;
    }
  }
  cut.duration = endDecoded - firstDecoded;
  return cut;
}

// The table's own crop gives one sample per chunk of the first
// description; other groupings open a run at each change.
std::unique_ptr<StscAtom> cutChunks(const StscAtom& source, const std::vector<uint32_t>& perChunk,
                                    const std::vector<uint32_t>& descriptions) {
  auto stsc = std::make_unique<StscAtom>(AtomHeader());
  stsc->header.type = "stsc";
  bool single = true;
  for (size_t c = 0; c < perChunk.size(); ++c) single = single && perChunk[c] == 1 && descriptions[c] == 1;
  if (single) {
    stsc->crop2new(&source);
    return stsc;
  }
  for (size_t c = 0; c < perChunk.size(); ++c) {
    stsc->addEntry(static_cast<uint32_t>(c + 1), perChunk[c], descriptions[c]);
  }
  return stsc;
}

// The chunks of the new track and the media they come from. A track of
// one sample size (PCM and its like, thousands of tiny samples a second)
// keeps its samples grouped as the source's chunks group them; any other
// track holds one sample per chunk, so that its chunk offsets are the
// samples' positions.
Status placeSamples(const Track& track, const Cut& cut, NewTrack& made, edit::Layout& layout) {
  const bool grouped = track.stsz() == nullptr;
  std::vector<uint32_t> perChunk;
  std::vector<uint32_t> descriptions;
  uint32_t sourceChunk = 0;
  SampleWalker walk(track);
  for (;;) {
    Result<const SampleInfo*> next = walk.next();
    if (!next.ok()) return next.status();
    const SampleInfo* sample = *next;
    if (sample == nullptr || sample->number > cut.last) break;
    if (sample->number < cut.first) continue;
    if (sample->missing) {
      return track.fail("sample " + std::to_string(sample->number) +
                        " lies past the end of the file");
    }
    layout.add(0, sample->offset, sample->size);
    if (!grouped || sample->chunk != sourceChunk || sample->number == cut.first) {
      made.chunkOffsets.push_back(sample->offset);
      perChunk.push_back(0);
      descriptions.push_back(sample->descriptionIndex);
      sourceChunk = sample->chunk;
    }
    ++perChunk.back();
  }
  made.chunkSources.assign(made.chunkOffsets.size(), 0);
  made.stsc = cutChunks(track.stsc(), perChunk, descriptions);
  return Status();
}

// The runs of samples first..last: whole runs are merged as they stand, a
// run the window cuts is added with the part it keeps.
std::unique_ptr<SttsAtom> cutTimes(const SttsAtom& source, uint32_t first, uint32_t last) {
  auto stts = std::make_unique<SttsAtom>(AtomHeader());
  stts->header.type = "stts";
  uint64_t start = 1;  // the first sample of run r
  for (size_t r = 0; r < source.entries.size() && start <= last; ++r) {
    const SttsEntry& run = source.entries[r];
    const uint64_t end = start + run.sampleCount;  // one past its last sample
    if (run.sampleCount != 0 && end > first) {
      if (start >= first && end - 1 <= last) {
        stts->merge(&source, static_cast<uint32_t>(r + 1), static_cast<uint32_t>(r + 1));
      } else {
        const uint64_t kept = std::min<uint64_t>(end - 1, last) - std::max<uint64_t>(start, first);
        stts->addEntry(static_cast<uint32_t>(kept + 1), run.sampleDelta);
      }
    }
    start = end;
  }
  return stts;
}

// A length in the track's units, none when negative, in the movie's.
uint64_t toMovie(int64_t units, uint32_t timescale, uint32_t movieTimescale) {
  return units <= 0 ? 0 : rescale(static_cast<uint64_t>(units), timescale, movieTimescale);
}

// The edit list that shows the window and hides what the cut kept before
// its start: media time `from` of the new track plays first, after an
// empty segment when the track starts later than the window.
std::vector<EditSegment> windowEdits(const Cut& cut, const Window& window, uint32_t timescale,
                                     uint32_t movieTimescale) {
  const int64_t length = std::min(window.to, cut.end) - window.from;
  const int64_t mediaTime = window.from - cut.firstPresented + cut.firstComposition;
  if (mediaTime >= 0) return {{toMovie(length, timescale, movieTimescale), mediaTime}};
  return {{toMovie(-mediaTime, timescale, movieTimescale), -1},
          {toMovie(length + mediaTime, timescale, movieTimescale), 0}};
}

NewTrack newTrack(const Track& track, Atom* trak, const Cut& cut) {
  NewTrack made;
  made.trak = trak;
  made.timescale = track.timescale();
  made.sampleCount = cut.last - cut.first + 1;
  made.stts = cutTimes(track.stts(), cut.first, cut.last);
  if (track.stsz() != nullptr) {
    auto stsz = std::make_unique<StszAtom>(AtomHeader());
    stsz->header.type = "stsz";
    stsz->crop2new(track.stsz(), cut.first, cut.last);
    made.stsz = std::move(stsz);
  } else {
    made.stsz = edit::constantSizeStsz(track.constantSampleSize(), made.sampleCount);
  }
  if (track.stss() != nullptr) {
    made.stss = std::make_unique<StssAtom>(AtomHeader());
    made.stss->header.type = "stss";
    made.stss->crop2new(track.stss(), cut.first, cut.last);
  }
  made.extras = edit::cutExtras(edit::sampleTable(trak), cut.first, cut.last);
  made.mediaDuration = cut.duration;
  return made;
}

int64_t toUnits(double seconds, uint32_t timescale) {
  // Far past any real file, and still far from overflowing.
  constexpr double kLongest = 1e15;
  return std::llround(std::min(seconds * timescale, kLongest));
}

Window windowOf(double from, double to, uint32_t timescale) {
  return {toUnits(from, timescale), toUnits(to, timescale)};
}

// --keyframe: the window starts at the first video track's key frame at or
// before `from`.
Result<double> keyFrameStart(const std::vector<Track>& tracks, double from, double to) {
  for (const Track& track : tracks) {
    if (track.stss() == nullptr || std::string(track.kind()) != "video") continue;
    Result<Cut> cut = cutTrack(track, windowOf(from, to, track.timescale()), 0);
    if (!cut.ok()) return cut.status();
    if (!cut->empty()) return static_cast<double>(cut->firstPresented) / track.timescale();
  }
  return from;
}

std::string secondsText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f s", seconds);
  return text;
}

}  // namespace

Status trim(const std::string& input, double from, double to, const std::string& output,
            const EditOptions& options) {
  if (!(from >= 0) || !(to > from)) {
    return Status::failure("the window from " + secondsText(from) + " to " + secondsText(to) +
                           " is empty");
  }
  Mp4File file;
  Result<edit::EditableTracks> source = edit::editableTracks(file, input);
  if (!source.ok()) return source.status();
  if (options.keyframe) {
    Result<double> start = keyFrameStart(source->tracks, from, to);
    if (!start.ok()) return start.status();
    from = *start;
  }
  std::vector<NewTrack> tracks;
  edit::Layout layout;
  for (size_t t = 0; t < source->tracks.size(); ++t) {
    const Track& track = source->tracks[t];
    const Window window = windowOf(from, to, track.timescale());
    Atom* trak = source->traks[t];
    Result<Cut> cut = cutTrack(track, window, preRoll(track, edit::sampleTable(trak)));
    if (!cut.ok()) return cut.status();
    if (cut->empty() || cut->end <= window.from) {
      // Nothing of this track plays in the window: the new file has no such track.
      file.find("moov").front()->children.remove(trak);
      delete trak;
      continue;
    }
    tracks.push_back(newTrack(track, trak, *cut));
    Status placed = placeSamples(track, *cut, tracks.back(), layout);
    if (!placed.ok()) return placed;
    if (!options.keyframe) {
      tracks.back().edits = windowEdits(*cut, window, track.timescale(), source->movieTimescale);
    }
  }
  if (tracks.empty()) return Status::failure("nothing plays from " + secondsText(from) + " on");
  layout.finish();
  return edit::writeEdited(file, tracks, layout, {file.stream()}, {input}, output, options);
}

}  // namespace mp4stbl
