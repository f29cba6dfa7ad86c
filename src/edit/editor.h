// Lossless editing of whole files: trim a recording to a time window, join
// clips end to end and rewrite a file as a regular one, without re-encoding.
// Fragmented sources are edited like any other; what is written is a
// regular file. The media data is copied from
// the sources in large blocks; the sample tables of the new file are built
// with the tables' own crop and merge operations.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "box/result.h"

namespace mp4stbl {

struct EditOptions {
  // Trim: start at the video key frame at or before `from` and show it,
  // with no edit list, for players that ignore edit lists.
  bool keyframe = false;
  // Write the movie box after the media data instead of before it.
  bool moovLast = false;
  // Called as media bytes are copied; returning false stops the job, which
  // then fails and leaves no output.
  std::function<bool(uint64_t done, uint64_t total)> progress;
};

// Writes to `output` the part of `input` that plays from `from` to `to`
// (seconds of presentation time). Every track is cut to the same window:
// video from the key frame at or before `from`, audio from the sample that
// holds it, and an edit list hides what plays before `from`.
Status trim(const std::string& input, double from, double to, const std::string& output,
            const EditOptions& options = {});

// Writes to `output` the clips of `inputs` one after the other. Each clip
// must have the same tracks (handler, coding and time scale, in order).
Status join(const std::vector<std::string>& inputs, const std::string& output,
            const EditOptions& options = {});

// Writes `input` to `output` as a regular file with the movie box first
// (after the media data with moovLast): every sample, its timing and the
// edit list kept, the fragments of a fragmented file gathered into one
// sample table per track.
Status remux(const std::string& input, const std::string& output,
             const EditOptions& options = {});

}  // namespace mp4stbl
