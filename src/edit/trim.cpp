// Trimming: every track cut to one presentation window.
#include <algorithm>
#include <cstdio>

#include "edit/editor.h"
#include "edit/output.h"
#include "edit/timeline.h"

namespace mp4stbl {

namespace {

using edit::Piece;

// The composition time of the frame a player shows at `media` (track
// units): the latest one that starts at or before it. With `keyFrame`,
// the latest key frame that does; `media` itself when none does.
Result<int64_t> frameStart(const Track& track, int64_t media, bool keyFrame) {
  int64_t found = INT64_MIN;
  SampleWalker walk(track);
  for (;;) {
    Result<const SampleInfo*> next = walk.next();
    if (!next.ok()) return next.status();
    const SampleInfo* sample = *next;
    if (sample == nullptr || static_cast<int64_t>(sample->decodeTime) > media) break;
    const int64_t at = static_cast<int64_t>(sample->decodeTime) + sample->compositionOffset;
    if (at <= media && at > found && (sample->sync || !keyFrame)) found = at;
  }
  return found == INT64_MIN ? media : found;
}

// Moves `from` back to where the lead track's frame showing there starts,
// so that the single edit starts on a frame: players differ on a frame
// that an edit starts inside of (some show it, others drop it). Not before
// the edit that shows it starts, unless a key frame is asked for.
Result<double> snapStart(const Track& lead, const Piece& first, double from, bool keyFrame) {
  const edit::Window window = edit::mediaWindow(lead, first.start, first.end);
  if (first.start > from || !window.plays || window.late > 0) return from;
  Result<int64_t> shown = frameStart(lead, window.from, keyFrame);
  if (!shown.ok()) return shown.status();
  // From the edit's own start, so that the frame's time carries no rounding.
  const double start =
      window.editStart + static_cast<double>(*shown - window.editMedia) / lead.timescale();
  return std::max(start, keyFrame ? 0.0 : window.editStart);
}

std::string secondsText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f s", seconds);
  return text;
}

}  // namespace

Result<EditReport> trim(const std::string& input, double from, double to,
                        const std::string& output, const EditOptions& options) {
  if (!(from >= 0) || !(to > from)) {
    return Status::failure("the window from " + secondsText(from) + " to " + secondsText(to) +
                           " is empty");
  }
  Mp4File file;
  Result<edit::EditableTracks> source = edit::editableTracks(file, input);
  if (!source.ok()) return source.status();
  const Track& lead = source->tracks[edit::leadTrack(source->tracks)];
  std::vector<Piece> pieces = edit::piecesOf(0, lead, from, to);
  if (pieces.empty()) return Status::failure("nothing plays from " + secondsText(from) + " on");
  Result<double> start = snapStart(lead, pieces.front(), from, options.keyframe);
  if (!start.ok()) return start.status();
  if (*start != from) {
    from = *start;
    pieces = edit::piecesOf(0, lead, from, to);
  }
  edit::Layout layout;
  Result<edit::Timeline> timeline = edit::layOut({{&*source, {}}}, pieces, !options.keyframe, layout);
  if (!timeline.ok()) return timeline.status();
  if (timeline->tracks.empty()) {
    return Status::failure("nothing plays from " + secondsText(from) + " on");
  }
  // A track with nothing in the window is left out of the new file.
  Atom* moov = file.find("moov").front();
  for (size_t t = 0, kept = 0; t < source->traks.size(); ++t) {
    if (kept < timeline->kept.size() && timeline->kept[kept] == t) {
      ++kept;
      continue;
    }
    moov->children.remove(source->traks[t]);
    delete source->traks[t];
  }
  layout.finish();
  Status written = edit::writeEdited(file, timeline->tracks, layout, {file.stream()}, {input},
                                     output, options);
  if (!written.ok()) return written;
  EditReport report;
  report.from = from;
  report.seconds = timeline->seconds;
  report.to = from + timeline->seconds;
  report.notes = std::move(timeline->notes);
  return report;
}

}  // namespace mp4stbl
