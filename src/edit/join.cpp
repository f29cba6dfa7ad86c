// Joining: clips with the same tracks played one after the other.
#include <algorithm>
#include <memory>

#include "edit/editor.h"
#include "edit/output.h"
#include "edit/timeline.h"

namespace mp4stbl {

namespace {

struct Clip {
  std::string path;
  std::unique_ptr<Mp4File> file;
  edit::EditableTracks source;
};

std::string tracksText(size_t count) {
  return std::to_string(count) + (count == 1 ? " track" : " tracks");
}

std::string describeTrack(const Track& track) {
  return std::string(track.handler()) + "/" + track.entryType() + " at " +
         std::to_string(track.timescale()) + " Hz";
}

// Every clip holds the same tracks as the first, in the same order.
Status matchTracks(const std::vector<Clip>& clips) {
  const std::vector<Track>& first = clips.front().source.tracks;
  for (const Clip& clip : clips) {
    const std::vector<Track>& tracks = clip.source.tracks;
    if (tracks.size() != first.size()) {
      return Status::failure(clip.path + ": has " + tracksText(tracks.size()) + " where " +
                             clips.front().path + " has " + tracksText(first.size()));
    }
    for (size_t t = 0; t < tracks.size(); ++t) {
      if (describeTrack(tracks[t]) != describeTrack(first[t])) {
        return Status::failure(clip.path + ": track " + std::to_string(t + 1) + " is " +
                               describeTrack(tracks[t]) + " where " + clips.front().path +
                               " has " + describeTrack(first[t]));
      }
    }
  }
  return Status();
}

// The output's description index of each of a clip's sample entries: an
// entry equal byte for byte to one already held is shared, another (other
// parameter sets, another picture size) is added.
Result<std::vector<uint32_t>> mapDescriptions(StsdAtom& joined, const StsdAtom& clip) {
  std::vector<std::vector<unsigned char>> held;
  for (Atom* entry : joined.children) held.push_back(edit::bytesOf(*entry));
  std::vector<uint32_t> indexes;
  for (Atom* entry : clip.children) {
    std::vector<unsigned char> bytes = edit::bytesOf(*entry);
    auto found = std::find(held.begin(), held.end(), bytes);
    if (found == held.end()) {
      MemoryStream in(bytes);
      Atom* copy = joined.ReadChild(&in);
      if (copy == nullptr) return Status::failure("a sample entry cannot be copied");
      joined.children.push_back(copy);
      held.push_back(std::move(bytes));
      found = held.end() - 1;
    }
    indexes.push_back(static_cast<uint32_t>(found - held.begin() + 1));
  }
  return indexes;
}

// The sample descriptions of the first clip's track t, which the joined
// track extends.
StsdAtom* joinedDescriptions(const Clip& first, size_t t) {
  for (Atom* child : edit::sampleTable(first.source.traks[t]).children) {
    if (auto* stsd = dynamic_cast<StsdAtom*>(child)) return stsd;
  }
  return nullptr;
}

// How long a clip's track plays, in seconds: as its edit list says, else
// its whole media.
double playLength(const Track& track) {
  if (track.elst() != nullptr && track.movieTimescale() != 0 && track.presentationDuration() != 0) {
    return static_cast<double>(track.presentationDuration()) / track.movieTimescale();
  }
  return static_cast<double>(track.mediaDuration()) / track.timescale();
}

// How long a clip plays: as long as its shortest track, so that no track
// runs short of media within its clip.
double clipLength(const Clip& clip) {
  double shortest = 0;
  for (const Track& track : clip.source.tracks) {
    const double length = playLength(track);
    shortest = shortest == 0 ? length : std::min(shortest, length);
  }
  return shortest;
}

// The stretches of every clip, one after the other; what a clip's edit
// list leaves empty at its end stays empty before the next clip.
std::vector<edit::Piece> clipPieces(const std::vector<Clip>& clips) {
  std::vector<edit::Piece> pieces;
  double empty = 0;
  for (size_t c = 0; c < clips.size(); ++c) {
    const std::vector<Track>& tracks = clips[c].source.tracks;
    const double length = clipLength(clips[c]);
    std::vector<edit::Piece> more = edit::piecesOf(c, tracks[edit::leadTrack(tracks)], 0, length);
    if (more.empty()) continue;
    more.front().gapBefore += empty;
    empty = length - more.back().end;
    pieces.insert(pieces.end(), more.begin(), more.end());
  }
  return pieces;
}

}  // namespace

Result<EditReport> join(const std::vector<std::string>& inputs, const std::string& output,
                        const EditOptions& options) {
  if (inputs.size() < 2) return Status::failure("join needs two files or more");
  std::vector<Clip> clips;
  for (const std::string& path : inputs) {
    Clip clip{path, std::make_unique<Mp4File>(), {}};
    Result<edit::EditableTracks> source = edit::editableTracks(*clip.file, path);
    if (!source.ok()) return source.status();
    clip.source = std::move(*source);
    clips.push_back(std::move(clip));
  }
  Status matched = matchTracks(clips);
  if (!matched.ok()) return matched;
  std::vector<edit::TimelineSource> sources;
  std::vector<IOStream*> streams;
  for (Clip& clip : clips) {
    edit::TimelineSource source{&clip.source, {}};
    for (size_t t = 0; t < clip.source.tracks.size(); ++t) {
      StsdAtom* joined = joinedDescriptions(clips.front(), t);
      if (joined == nullptr) return clips.front().source.tracks[t].fail("no stsd");
      Result<std::vector<uint32_t>> descriptions =
          mapDescriptions(*joined, clip.source.tracks[t].stsd());
      if (!descriptions.ok()) return clip.source.tracks[t].fail(descriptions.message());
      source.descriptions.push_back(std::move(*descriptions));
    }
    sources.push_back(std::move(source));
    streams.push_back(clip.file->stream());
  }
  edit::Layout layout;
  Result<edit::Timeline> timeline = edit::layOut(sources, clipPieces(clips), true, layout);
  if (!timeline.ok()) return timeline.status();
  if (timeline->tracks.size() != clips.front().source.tracks.size()) {
    return Status::failure("a track of " + clips.front().path + " has no sample to join");
  }
  layout.finish();
  Status written = edit::writeEdited(*clips.front().file, timeline->tracks, layout, streams,
                                     inputs, output, options);
  if (!written.ok()) return written;
  EditReport report;
  report.seconds = timeline->seconds;
  report.to = timeline->seconds;
  report.notes = std::move(timeline->notes);
  return report;
}

}  // namespace mp4stbl
