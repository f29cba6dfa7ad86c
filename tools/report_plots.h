// The data of mp4stbl report's plots: each track walked once, then every
// plot cut down to at most kColumns columns.
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <mp4stbl/box/mp4file.h>
#include <mp4stbl/box/result.h>
#include <mp4stbl/media/track.h>

namespace mp4stbl::cli {

// Columns a plot holds at most: about one a pixel of its width.
constexpr std::size_t kColumns = 1000;

struct WalkedSample {
  double seconds = 0;  // presentation time
  uint64_t offset = 0;
  uint32_t size = 0;
  bool sync = false;
};

struct WalkedTrack {
  const Track* track = nullptr;
  std::vector<WalkedSample> samples;  // in decode order
  // When the first sample shows and when the last shown ends, in seconds.
  double start = 0;
  double end = 0;
  // The section heading of the track's plots: its id, kind and coding, and
  // the names its file gives it (hdlr, the sample entry's compressor).
  std::string section;
};

// A failure names the track and why its walk stopped.
Result<WalkedTrack> walkTrack(Mp4File& file, const Track& track);

// The plots of the walked tracks, in the order the page shows them; each
// {"id", "section", "title", "x", "y", "series": [{"label", "color",
// "style"}], "data": [xs, ys...], "note"}, style one of "line", "steps",
// "points", "dashed" and "bars", a missing value null.
nlohmann::json plotsOf(Mp4File& file, const std::vector<WalkedTrack>& tracks);

}  // namespace mp4stbl::cli
