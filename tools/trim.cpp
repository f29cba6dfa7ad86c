// mp4stbl trim: a new file holding what plays between two times.
#include <algorithm>

#include "edit_job.h"

namespace mp4stbl::cli {

// A --to past the end of what plays, measured against the longest track.
int trim(const Options& options) {
  const auto opened = open(options);
  if (!opened) return kFailure;
  double end = 0;
  for (const Track& track : opened->tracks) end = std::max(end, playingSeconds(track));
  std::vector<Clamped> clamps;
  clampTime("--to", options.to, end, &clamps);
  return runEdit(options, [](const Options& o, const EditOptions& e) {
    return mp4stbl::trim(o.file, o.from, o.to, o.output, e);
  }, true, clamps);
}

}  // namespace mp4stbl::cli
