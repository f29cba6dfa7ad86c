// Remuxing: a whole file written anew as a regular one.
#include <algorithm>

#include "edit/editor.h"
#include "edit/output.h"

namespace mp4stbl {

namespace {

using edit::EditSegment;
using edit::NewTrack;

template <class Box>
std::unique_ptr<Box> table(const char* type) {
  AtomHeader header;
  header.type = type;
  return std::make_unique<Box>(header);
}

// The track's tables whole, through their own merge.
void copyTables(const Track& track, NewTrack& made) {
  made.stts = table<SttsAtom>("stts");
  made.stts->merge(&track.stts(), 1, static_cast<uint32_t>(track.stts().entries.size()));
  made.stsc = table<StscAtom>("stsc");
  made.stsc->merge(&track.stsc(), 1, static_cast<uint32_t>(track.stsc().entries.size()));
  if (track.stsz() != nullptr) {
    auto stsz = table<StszAtom>("stsz");
    stsz->merge(track.stsz(), 1, made.sampleCount);
    made.stsz = std::move(stsz);
  } else {
    made.stsz = edit::constantSizeStsz(track.constantSampleSize(), made.sampleCount);
  }
  if (track.stss() != nullptr) {
    made.stss = table<StssAtom>("stss");
    made.stss->merge(track.stss(), 1, made.sampleCount, 0);
  }
}

// Every sample's bytes into the layout, and the offset of every chunk that
// holds a sample (a table may list chunks past the last sample).
Status placeChunks(const Track& track, NewTrack& made, edit::Layout& layout) {
  uint32_t chunks = 0;
  SampleWalker walk(track);
  for (;;) {
    Result<const SampleInfo*> next = walk.next();
    if (!next.ok()) return next.status();
    const SampleInfo* sample = *next;
    if (sample == nullptr) break;
    if (sample->missing) {
      return edit::missingSample(track, *sample);
    }
    layout.add(0, sample->offset, sample->size);
    chunks = sample->chunk;
  }
  for (uint32_t chunk = 1; chunk <= chunks; ++chunk) {
    made.chunkOffsets.push_back(track.chunkOffset(chunk));
  }
  made.chunkSources.assign(made.chunkOffsets.size(), 0);
  return Status();
}

std::vector<EditSegment> editsOf(const Track& track) {
  std::vector<EditSegment> edits;
  if (track.elst() == nullptr) return edits;
  for (const ElstEntry& edit : track.elst()->entries) {
    edits.push_back({edit.segmentDuration, edit.mediaTime});
  }
  return edits;
}

}  // namespace

Result<EditReport> remux(const std::string& input, const std::string& output,
                         const EditOptions& options) {
  Mp4File file;
  Result<edit::EditableTracks> source = edit::editableTracks(file, input);
  if (!source.ok()) return source.status();
  std::vector<NewTrack> tracks;
  edit::Layout layout;
  for (size_t t = 0; t < source->tracks.size(); ++t) {
    const Track& track = source->tracks[t];
    NewTrack& made = tracks.emplace_back();
    made.trak = source->traks[t];
    made.timescale = track.timescale();
    made.sampleCount = track.sampleCount();
    copyTables(track, made);
    Status placed = placeChunks(track, made, layout);
    if (!placed.ok()) return placed;
    made.extras = edit::cutExtras(edit::sampleTable(made.trak), 1, made.sampleCount);
    made.mediaDuration = track.mediaDuration();
    made.edits = editsOf(track);
  }
  layout.finish();
  // Before the write, which gives the tracks new tables.
  EditReport report;
  for (const Track& track : source->tracks) {
    const double seconds = track.elst() != nullptr
                               ? static_cast<double>(track.presentationDuration()) / source->movieTimescale
                               : static_cast<double>(track.mediaDuration()) / track.timescale();
    report.seconds = std::max(report.seconds, seconds);
  }
  report.to = report.seconds;
  Status written = edit::writeEdited(file, tracks, layout, {file.stream()}, {input}, output, options);
  if (!written.ok()) return written;
  return report;
}

}  // namespace mp4stbl
