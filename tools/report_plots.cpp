#include "report_plots.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <string>

#include <mp4stbl/box/movie_boxes.h>
#include <mp4stbl/box/sample_entry.h>
#include <mp4stbl/box/table_reason.h>
#include "command.h"
#include "table.h"

namespace mp4stbl::cli {

namespace {

using nlohmann::json;
using Values = std::vector<std::optional<double>>;

constexpr const char* kKeyColor = "#d62728";
constexpr const char* kFrameColor = "#1f77b4";
constexpr const char* kAverageColor = "#2ca02c";
constexpr const char* kTrackColors[] = {"#1f77b4", "#ff7f0e", "#2ca02c", "#9467bd",
                                        "#8c564b", "#e377c2", "#7f7f7f", "#bcbd22"};
// Edits drawn at most; a longer list is cut with a note.
constexpr size_t kMostEdits = kColumns / 2;

// Signed time-scale units in seconds; 0 in a time scale of 0.
double signedSeconds(int64_t units, uint32_t timescale) {
  return timescale == 0 ? 0.0 : static_cast<double>(units) / timescale;
}

const char* trackColor(size_t index) {
  return kTrackColors[index % (sizeof(kTrackColors) / sizeof(kTrackColors[0]))];
}

// Positions gathered into columns of equal width.
struct Grid {
  double from = 0;
  double width = 1;
  size_t count = 1;

  size_t column(double at) const {
    const double index = std::floor((at - from) / width);
    return index <= 0 ? 0 : std::min(count - 1, static_cast<size_t>(index));
  }
  double start(size_t column) const { return from + static_cast<double>(column) * width; }
};

// Whole positions first..last, as many to a column as keep kColumns.
Grid wholeGrid(int64_t first, int64_t last) {
  const uint64_t span = static_cast<uint64_t>(last - first) + 1;
  const uint64_t width = (span + kColumns - 1) / kColumns;
  return {static_cast<double>(first), static_cast<double>(width),
          static_cast<size_t>((span + width - 1) / width)};
}

Grid timeGrid(double from, double to) {
  return {from, to > from ? (to - from) / kColumns : 1.0, kColumns};
}

// The least and most value of each column.
struct Extremes {
  explicit Extremes(size_t columns) : least(columns), most(columns) {}
  void add(size_t column, double value) {
    least[column] = least[column] ? std::min(*least[column], value) : value;
    most[column] = most[column] ? std::max(*most[column], value) : value;
  }
  Values least;
  Values most;
};

struct Series {
  std::string label;
  std::string color;
  std::string style;
  Values values;
};

struct PlotTitle {
  std::string id;
  std::string section;
  std::string title;
  std::string x;
  std::string y;
};

// A plot's JSON; the columns where every series is empty are left out.
json makePlot(const PlotTitle& title, const Grid& grid, const std::vector<Series>& series,
              const std::string& note = "") {
  json xs = json::array();
  std::vector<json> ys(series.size(), json::array());
  for (size_t column = 0; column < grid.count; ++column) {
    const bool empty = std::none_of(series.begin(), series.end(), [&](const Series& s) {
      return s.values[column].has_value();
    });
    if (empty) continue;
    xs.push_back(grid.start(column));
    for (size_t i = 0; i < series.size(); ++i) {
      const std::optional<double>& value = series[i].values[column];
      ys[i].push_back(value ? json(*value) : json());
    }
  }
  json plot = {{"id", title.id}, {"section", title.section}, {"title", title.title},
               {"x", title.x},   {"y", title.y},             {"note", note},
               {"series", json::array()}, {"data", json::array({xs})}};
  for (size_t i = 0; i < series.size(); ++i) {
    plot["series"].push_back(
        {{"label", series[i].label}, {"color", series[i].color}, {"style", series[i].style}});
    plot["data"].push_back(std::move(ys[i]));
  }
  return plot;
}

// "Track 1 (video, avc1): VideoHandler, Lavc libx264": the names as the
// file gives them, the page escaping them.
std::string sectionOf(Mp4File& file, const Track& track) {
  std::string section = "Track " + std::to_string(track.id()) + " (" + track.kind() + ", " +
                        printable(track.entryType()) + ")";
  std::vector<std::string> names;
  if (const auto* hdlr = dynamic_cast<const HdlrAtom*>(
          childOf(childOf(trakOf(file, track), "mdia"), "hdlr"))) {
    names.push_back(hdlr->name());
  }
  if (!track.stsd().children.empty()) {
    if (const auto* visual = dynamic_cast<const VisualSampleEntry*>(track.stsd().children.front())) {
      names.push_back(visual->compressor());
    }
  }
  std::string named;
  for (const std::string& name : names) {
    if (!name.empty()) named += (named.empty() ? ": " : ", ") + printable(name);
  }
  return section + named;
}

std::string idOf(const char* plot, const Track& track) {
  return std::string(plot) + "-" + std::to_string(track.id());
}

// Whether the track marks its key frames: a track of only sync samples
// (sound, most often) has nothing to mark.
bool marksKeyFrames(const WalkedTrack& walked) {
  return std::any_of(walked.samples.begin(), walked.samples.end(),
                     [](const WalkedSample& s) { return !s.sync; });
}

// One second of presentation time that holds samples.
struct Window {
  int64_t start = 0;  // seconds
  uint64_t bytes = 0;
  bool keyed = false;
};

// The windows that hold samples, in time order: counted in place when they
// are no more than the samples, else (a track with long gaps) by a map.
std::vector<Window> windowsOf(const WalkedTrack& walked) {
  const auto windowOf = [](const WalkedSample& s) {
    return static_cast<int64_t>(std::floor(s.seconds));
  };
  int64_t first = windowOf(walked.samples.front()), last = first;
  for (const WalkedSample& s : walked.samples) {
    first = std::min(first, windowOf(s));
    last = std::max(last, windowOf(s));
  }
  std::vector<Window> windows;
  if (static_cast<uint64_t>(last - first) < walked.samples.size()) {
    windows.resize(static_cast<size_t>(last - first) + 1);
    for (const WalkedSample& s : walked.samples) {
      Window& window = windows[static_cast<size_t>(windowOf(s) - first)];
      window.bytes += s.size;
      window.keyed = window.keyed || s.sync;
    }
    for (size_t i = 0; i < windows.size(); ++i) windows[i].start = first + static_cast<int64_t>(i);
    windows.erase(std::remove_if(windows.begin(), windows.end(),
                                 [](const Window& w) { return w.bytes == 0 && !w.keyed; }),
                  windows.end());
    return windows;
  }
  std::map<int64_t, Window> sparse;
  for (const WalkedSample& s : walked.samples) {
    Window& window = sparse[windowOf(s)];
    window.start = windowOf(s);
    window.bytes += s.size;
    window.keyed = window.keyed || s.sync;
  }
  for (const auto& [start, window] : sparse) windows.push_back(window);
  return windows;
}

// The seconds of the window from `start` that the track lasts: a whole
// one, less where the track starts late in it or ends early.
double windowLength(const WalkedTrack& walked, int64_t start) {
  const auto from = static_cast<double>(start);
  const double length = std::min(from + 1, walked.end) - std::max(from, walked.start);
  return length > 0 && length < 1 ? length : 1.0;
}

// kbit/s over one-second windows of presentation time (the first and last
// over the part the track lasts), a window with no sample at 0; the
// average over the media's seconds as info gives it.
json bitratePlot(const WalkedTrack& walked) {
  const Track& track = *walked.track;
  const std::vector<Window> windows = windowsOf(walked);
  const int64_t first = windows.front().start;
  const int64_t last = windows.back().start;
  const Grid grid = wholeGrid(first, last);
  Extremes rate(grid.count);
  std::vector<uint64_t> filled(grid.count);
  for (const Window& window : windows) {
    const size_t column = grid.column(static_cast<double>(window.start));
    rate.add(column,
             static_cast<double>(window.bytes) * 8 / 1000 / windowLength(walked, window.start));
    ++filled[column];
  }
  Values keys(grid.count), average(grid.count);
  const double length = seconds(track.mediaDuration(), track.timescale());
  const double mean =
      length > 0 ? std::round(static_cast<double>(track.totalSampleBytes()) * 8 / length) / 1000
                 : 0.0;
  for (size_t column = 0; column < grid.count; ++column) {
    const double end = std::min(grid.start(column) + grid.width, static_cast<double>(last) + 1);
    if (static_cast<double>(filled[column]) < end - grid.start(column)) rate.add(column, 0);
    average[column] = mean;
  }
  if (marksKeyFrames(walked)) {
    for (const Window& window : windows) {
      const size_t column = grid.column(static_cast<double>(window.start));
      if (window.keyed) keys[column] = rate.most[column];
    }
  }
  // Steps hold each column's value up to the next column: one more closes
  // the last.
  Grid closed = grid;
  ++closed.count;
  for (Values* values : {&rate.most, &rate.least, &average}) values->push_back(values->back());
  keys.emplace_back();
  std::vector<Series> series{{grid.width > 1 ? "kbit/s (most)" : "kbit/s", kFrameColor,
                              "steps", rate.most}};
  if (grid.width > 1) series.push_back({"kbit/s (least)", kFrameColor, "steps", rate.least});
  series.push_back({"average", kAverageColor, "dashed", average});
  if (marksKeyFrames(walked)) series.push_back({"key frames", kKeyColor, "points", keys});
  return makePlot({idOf("bitrate", track), walked.section, "Bit rate, one-second windows",
                   "seconds", "kbit/s"},
                  closed, series, marksKeyFrames(walked) ? "" : "all samples are key frames");
}

// Sizes in decode order, key frames apart.
json frameSizePlot(const WalkedTrack& walked) {
  const Track& track = *walked.track;
  const Grid grid = wholeGrid(1, static_cast<int64_t>(walked.samples.size()));
  Extremes frames(grid.count), keys(grid.count);
  for (size_t i = 0; i < walked.samples.size(); ++i) {
    const WalkedSample& s = walked.samples[i];
    const size_t column = grid.column(static_cast<double>(i + 1));
    (s.sync ? keys : frames).add(column, s.size);
  }
  const bool cut = grid.width > 1;
  std::vector<Series> series{
      {cut ? "other frames (most)" : "other frames", kFrameColor, cut ? "line" : "points",
       frames.most}};
  if (cut) series.push_back({"other frames (least)", kFrameColor, "line", frames.least});
  series.push_back({"key frames", kKeyColor, "points", keys.most});
  return makePlot({idOf("frames", track), walked.section, "Frame sizes in decode order",
                   "sample", "bytes"},
                  grid, series);
}

// How many samples each key frame starts before the next (the last up to
// the end), counted by length.
json gopPlot(const WalkedTrack& walked) {
  const Track& track = *walked.track;
  std::vector<uint64_t> lengths;
  size_t previous = 0;
  bool seen = false;
  for (size_t i = 0; i < walked.samples.size(); ++i) {
    if (!walked.samples[i].sync) continue;
    if (seen) lengths.push_back(i - previous);
    previous = i;
    seen = true;
  }
  if (!seen) return nullptr;
  lengths.push_back(walked.samples.size() - previous);
  const uint64_t longest = *std::max_element(lengths.begin(), lengths.end());
  const Grid grid = wholeGrid(1, static_cast<int64_t>(longest));
  std::vector<double> counts(grid.count);
  for (const uint64_t length : lengths) counts[grid.column(static_cast<double>(length))] += 1;
  Values bars(grid.count);
  for (size_t column = 0; column < grid.count; ++column) {
    if (counts[column] > 0) bars[column] = counts[column];
  }
  return makePlot({idOf("gop", track), walked.section, "GOP lengths (key frame intervals)",
                   "samples from one key frame to the next", "GOPs"},
                  grid, {{"GOPs", kKeyColor, "bars", bars}},
                  std::to_string(lengths.size()) + " GOPs, longest " + std::to_string(longest) +
                      " samples");
}

// Each edit from where it starts on the presentation timeline to where it
// ends, at the media time it shows (an empty edit at 0).
json editPlot(const WalkedTrack& walked) {
  const Track& track = *walked.track;
  const std::vector<ElstEntry>& edits = track.elst()->entries;
  const size_t shown = std::min(edits.size(), kMostEdits);
  std::vector<double> starts;
  Values media, empty;
  double at = 0;
  std::string note;
  for (size_t i = 0; i < shown; ++i) {
    const ElstEntry& edit = edits[i];
    double length = seconds(edit.segmentDuration, track.movieTimescale());
    const double from = signedSeconds(edit.mediaTime, track.timescale());
    // A fragmented track's edit of length 0 lasts to the end of its samples.
    if (edit.segmentDuration == 0 && track.fragmented()) {
      length = std::max(0.0, seconds(track.presentationDuration(), track.movieTimescale()) - at);
    }
    for (const double point : {at, at + length}) {
      starts.push_back(point);
      const bool isEmpty = edit.mediaTime == -1;
      media.push_back(isEmpty ? std::nullopt : std::optional<double>(from + point - at));
      empty.push_back(isEmpty ? std::optional<double>(0.0) : std::nullopt);
    }
    if (i < 8) {
      note += (note.empty() ? "" : "; ") +
              (edit.mediaTime == -1 ? format("empty for %.3f s", length)
                                    : format("media from %.3f s for %.3f s", from, length));
    }
    at += length;
  }
  if (shown < edits.size()) note += format("; %zu edits, the first %zu drawn", edits.size(), shown);
  // One column a point: the grid only numbers them.
  Grid grid{0, 1, starts.size()};
  json plot = makePlot({idOf("edits", track), walked.section, "Edit list",
                        "presentation seconds", "media seconds"},
                       grid,
                       {{"media time shown", kFrameColor, "line", media},
                        {"empty edit", kKeyColor, "line", empty}},
                       note);
  plot["data"][0] = starts;
  return plot;
}

// Byte offset against presentation time, every track on one timeline, and
// where each movie box lies.
json layoutPlot(Mp4File& file, const std::vector<WalkedTrack>& tracks) {
  double from = 0, to = 0;
  bool any = false;
  for (const WalkedTrack& walked : tracks) {
    for (const WalkedSample& s : walked.samples) {
      from = any ? std::min(from, s.seconds) : s.seconds;
      to = any ? std::max(to, s.seconds) : s.seconds;
      any = true;
    }
  }
  if (!any) return nullptr;
  const Grid grid = timeGrid(from, to);
  std::vector<Series> series;
  for (size_t t = 0; t < tracks.size(); ++t) {
    Extremes offsets(grid.count);
    for (const WalkedSample& s : tracks[t].samples) {
      offsets.add(grid.column(s.seconds), static_cast<double>(s.offset));
    }
    const std::string name = "track " + std::to_string(tracks[t].track->id());
    series.push_back({name, trackColor(t), "points", offsets.most});
    series.push_back({name + " (least)", trackColor(t), "points", offsets.least});
  }
  // A line across the plot: its ends are enough.
  for (const Atom* moov : file.find("moov")) {
    Values line(grid.count);
    line.front() = line.back() = static_cast<double>(moov->header.headerOffset);
    series.push_back({"moov", "#000000", "dashed", line});
  }
  return makePlot({"layout", "File", "File layout: where each sample lies",
                   "presentation seconds", "byte offset"},
                  grid, series);
}

// Each run of samples of each fragment, by when it starts, as kilobytes.
json fragmentPlot(Mp4File& file, const std::vector<WalkedTrack>& tracks) {
  double from = 0, to = 0;
  bool any = false;
  size_t runs = 0;
  for (const WalkedTrack& walked : tracks) {
    const Track& track = *walked.track;
    for (const FragmentRun& run : track.fragments().runs) {
      const double start = signedSeconds(
          static_cast<int64_t>(run.decodeStart) + track.presentationShift(), track.timescale());
      from = any ? std::min(from, start) : start;
      to = any ? std::max(to, start) : start;
      any = true;
      ++runs;
    }
  }
  if (!any) return nullptr;
  const Grid grid = timeGrid(from, to);
  std::vector<Series> series;
  for (size_t t = 0; t < tracks.size(); ++t) {
    const Track& track = *tracks[t].track;
    Extremes kilobytes(grid.count);
    for (const FragmentRun& run : track.fragments().runs) {
      const double start = signedSeconds(
          static_cast<int64_t>(run.decodeStart) + track.presentationShift(), track.timescale());
      kilobytes.add(grid.column(start), static_cast<double>(run.bytes) / 1000);
    }
    series.push_back({"track " + std::to_string(track.id()), trackColor(t), "points",
                      kilobytes.most});
  }
  const size_t moofs = file.find("moof").size();
  return makePlot({"fragments", "File", "Fragments: each run of samples as it starts",
                   "presentation seconds", "kB"},
                  grid, series,
                  std::to_string(moofs) + " movie fragments, " + std::to_string(runs) + " runs");
}

}  // namespace

Result<WalkedTrack> walkTrack(Mp4File& file, const Track& track) {
  // Every sample is kept: a track claiming more samples than its file has
  // bytes (empty ones, or tables out of bounds) would take memory without end.
  if (track.sampleCount() > track.fileLength()) {
    return track.fail(format("claims %u samples, more than the %llu bytes of the file",
                             track.sampleCount(),
                             static_cast<unsigned long long>(track.fileLength())));
  }
  WalkedTrack walked;
  walked.track = &track;
  walked.section = sectionOf(file, track);
  walked.samples.reserve(track.sampleCount());
  SampleWalker walker(track);
  Result<const SampleInfo*> step = walker.next();
  for (; step.ok() && *step != nullptr; step = walker.next()) {
    const SampleInfo& s = **step;
    const double shown = signedSeconds(s.presentationTime, track.timescale());
    const double ends = shown + seconds(s.duration, track.timescale());
    walked.start = walked.samples.empty() ? shown : std::min(walked.start, shown);
    walked.end = walked.samples.empty() ? ends : std::max(walked.end, ends);
    walked.samples.push_back({shown, s.offset, s.size, s.sync});
  }
  if (!step.ok()) return Status::failure(step.message());
  return walked;
}

json plotsOf(Mp4File& file, const std::vector<WalkedTrack>& tracks) {
  json plots = json::array();
  const auto add = [&plots](json plot) {
    if (!plot.is_null()) plots.push_back(std::move(plot));
  };
  for (const WalkedTrack& walked : tracks) {
    if (walked.samples.empty()) continue;
    add(bitratePlot(walked));
    if (walked.track->handler() == "vide") {
      add(frameSizePlot(walked));
      if (marksKeyFrames(walked)) add(gopPlot(walked));
    }
    if (walked.track->elst() != nullptr && !walked.track->elst()->entries.empty()) {
      add(editPlot(walked));
    }
  }
  add(layoutPlot(file, tracks));
  add(fragmentPlot(file, tracks));
  return plots;
}

}  // namespace mp4stbl::cli
