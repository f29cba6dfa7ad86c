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

#include "../box/result.h"

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

// What an edit made.
struct EditReport {
  // Trim: where the new file starts and ends on the source's timeline, in
  // seconds: the start of the video frame showing at the time asked (or
  // its key frame), the end no later than the source's.
  double from = 0;
  double to = 0;
  double seconds = 0;  // how long the new file plays
  // What the new file shows that the sources did not: frames that one edit
  // cannot hide.
  std::vector<std::string> notes;
};

// Writes to `output` the part of `input` that plays from `from` to `to`
// (seconds of presentation time, through the source's whole edit list).
// Every track is cut to the same window, which starts where the video
// frame showing at `from` starts: video from the key frame at or before it,
// audio from the sample that holds it, and a single edit hides what is
// decoded before it.
Result<EditReport> trim(const std::string& input, double from, double to,
                        const std::string& output, const EditOptions& options = {});

// Writes to `output` the clips of `inputs` one after the other on one
// timeline with a single edit. Each clip must have the same tracks
// (handler, coding and time scale, in order).
Result<EditReport> join(const std::vector<std::string>& inputs, const std::string& output,
                        const EditOptions& options = {});

// Writes `input` to `output` as a regular file with the movie box first
// (after the media data with moovLast): every sample, its timing and the
// edit list kept, the fragments of a fragmented file gathered into one
// sample table per track.
Result<EditReport> remux(const std::string& input, const std::string& output,
                         const EditOptions& options = {});

}  // namespace mp4stbl
