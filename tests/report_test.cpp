// mp4stbl report: the page opened in headless Chromium draws every plot with
// no console error and shows the numbers of info --json; the plots' data,
// column by column, is what samples --json lists of files made by ffmpeg;
// bad input fails as info fails and writes nothing.
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include <cmath>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "support/process.h"
#include "support/test.h"

using nlohmann::json;

namespace {

const ScratchDir kScratch("mp4stbl_report_");
std::string scratch(const std::string& name) { return kScratch / name; }
std::string shipped(const std::string& name) { return std::string(MP4STBL_TEST_DATA) + "/" + name; }

// Runs a shell command line, stdout through a pipe and stderr through a file.
Outcome shell(const std::string& line) { return shellIn(line, scratch("stderr")); }

Outcome cli(const std::vector<std::string>& args) { return shell(commandLine(MP4STBL_CLI, args)); }

json infoOf(const std::string& path) {
  const Outcome info = cli({"info", path, "--json"});
  EXPECT_EQ(info.status, 0) << info.err;
  return json::parse(info.out);
}

std::string unescaped(std::string text) {
  for (const auto& [entity, c] : std::vector<std::pair<std::string, std::string>>{
           {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&amp;", "&"}}) {
    for (size_t at = text.find(entity); at != std::string::npos; at = text.find(entity, at + 1)) {
      text.replace(at, entity.size(), c);
    }
  }
  return text;
}

bool haveChromium() { return shell("command -v chromium").status == 0; }

// The page as Chromium leaves it once its scripts ran, and the lines of its
// console (Chromium logs each as "...:CONSOLE(line)] ...").
struct Rendered {
  std::string dom;
  std::vector<std::string> console;
  json summary;  // what the page's script wrote of its plots
};

Rendered render(const std::string& html) {
  const Outcome run = shell(
      "timeout 120 chromium --headless --disable-gpu --no-sandbox --virtual-time-budget=5000 "
      "--window-size=1280,900 --enable-logging=stderr --v=0 --dump-dom 'file://" + html + "'");
  Rendered page;
  page.dom = run.out;
  std::istringstream lines(run.err);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(":CONSOLE") != std::string::npos) page.console.push_back(line);
  }
  std::smatch found;
  if (std::regex_search(page.dom, found, std::regex("<pre id=\"summary\">([^<]*)</pre>"))) {
    page.summary = json::parse(unescaped(found[1]), nullptr, false);
  }
  return page;
}

// The overview's cells: value by track id and field.
std::map<std::pair<int, std::string>, json> overviewCells(const std::string& dom) {
  std::map<std::pair<int, std::string>, json> cells;
  const std::regex cell("data-track=\"(\\d+)\" data-field=\"(\\w+)\" data-value=\"([^\"]*)\"");
  for (std::sregex_iterator it(dom.begin(), dom.end(), cell), end; it != end; ++it) {
    cells[{std::stoi((*it)[1]), (*it)[2]}] = json::parse(unescaped((*it)[3]));
  }
  return cells;
}

// The plots' data as the report holds it, by plot id.
std::map<std::string, json> plotsIn(const std::string& html) {
  const std::string text = slurp(html);
  const std::string open = "<script type=\"application/json\" id=\"report-data\">";
  const size_t from = text.find(open) + open.size();
  std::map<std::string, json> plots;
  for (json& plot : json::parse(text.substr(from, text.find("</script>", from) - from))) {
    plots[plot["id"]] = plot;
  }
  return plots;
}

// The plots a file's report holds, from what info says of it.
std::set<std::string> expectedPlots(const json& info) {
  std::set<std::string> ids{"layout"};
  for (const json& track : info["tracks"]) {
    const std::string id = track["id"].dump();
    if (track["samples"] == 0) continue;
    ids.insert("bitrate-" + id);
    if (track["handler"] == "video") ids.insert("frames-" + id);
    if (track["handler"] == "video" && !track["allSync"].get<bool>()) ids.insert("gop-" + id);
    if (!track["presentationDuration"].is_null()) ids.insert("edits-" + id);
  }
  if (info["fragmented"]) ids.insert("fragments");
  return ids;
}

void expectDrawn(const Rendered& page, const std::set<std::string>& ids, const std::string& file) {
  SCOPED_TRACE(file);
  EXPECT_EQ(page.console, std::vector<std::string>{});
  ASSERT_TRUE(page.summary.is_object()) << page.dom.substr(0, 2000);
  EXPECT_EQ(page.summary["errors"], json::array());
  std::set<std::string> drawn;
  for (const json& plot : page.summary["plots"]) {
    SCOPED_TRACE(plot.dump());
    drawn.insert(plot["id"].get<std::string>());
    EXPECT_TRUE(plot["canvas"]);
    EXPECT_GT(plot["width"], 0);
    EXPECT_GT(plot["points"], 0);
    EXPECT_GT(plot["painted"], 0);
  }
  EXPECT_EQ(drawn, ids);
  // The page fits its window, the overview its column: nothing scrolls sideways.
  EXPECT_LE(page.summary["scrollWidth"], page.summary["clientWidth"]);
  EXPECT_EQ(page.summary["tablesPastBody"], 0);
}

// Every shipped file: each plot drawn, and the overview says what info says.
TEST(ReportInChromium, ShippedFilesDrawEveryPlotWithTheNumbersOfInfo) {
  if (!haveChromium()) GTEST_SKIP() << "chromium is not installed";
  for (const std::string& file : filesIn(MP4STBL_TEST_DATA, ".*\\.(mp4|mov)")) {
    const std::string html = scratch(fs::path(file).filename().string() + ".html");
    const Outcome made = cli({"report", file, "-o", html, "-y"});
    ASSERT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(made.err, "");
    const json info = infoOf(file);
    const Rendered page = render(html);
    expectDrawn(page, expectedPlots(info), file);
    const auto cells = overviewCells(page.dom);
    for (const json& track : info["tracks"]) {
      for (const char* field : {"samples", "duration", "seconds", "bytes", "bitrate", "keyFrames",
                                "chunks", "timescale", "entry"}) {
        const auto cell = cells.find({track["id"].get<int>(), field});
        ASSERT_NE(cell, cells.end()) << file << " track " << track["id"] << " " << field;
        EXPECT_EQ(cell->second, track[field]) << file << " track " << track["id"] << " " << field;
      }
    }
    const std::regex bytes("<span data-field=\"bytes\">(\\d+)</span>");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(page.dom, found, bytes)) << file;
    EXPECT_EQ(std::stoull(found[1]), info["bytes"].get<uint64_t>()) << file;
  }
}

// A clip whose video track's stsz claims 1000 samples: the sound is drawn,
// the page and stderr say why the video is not.
TEST(ReportInChromium, AnUnreadableTrackIsNamedAndTheOthersDrawn) {
  if (!haveChromium()) GTEST_SKIP() << "chromium is not installed";
  std::string data = slurp(shipped("h264_aac.mp4"));
  data.replace(data.find("stsz") + 12, 4, std::string("\0\0\x03\xe8", 4));
  const std::string broken = scratch("broken.mp4"), html = scratch("broken.html");
  std::ofstream(broken, std::ios::binary) << data;
  const Outcome made = cli({"report", broken, "-o", html, "-y"});
  ASSERT_EQ(made.status, 0) << made.err;
  const std::string reason = "track 1 (vide, avc1): stsz lists 1000 entries";
  EXPECT_NE(made.err.find("mp4stbl: " + broken + ": " + reason), std::string::npos) << made.err;
  const Rendered page = render(html);
  expectDrawn(page, {"bitrate-2", "edits-2", "layout"}, broken);
  EXPECT_NE(page.dom.find("not shown: " + reason), std::string::npos);
}

// Names from the file reach the page's data (the section headings): one
// that closes the script element and opens another is shown as text, the
// page's three scripts alone run.
TEST(ReportInChromium, NamesFromTheFileStayText) {
  if (!haveChromium()) GTEST_SKIP() << "chromium is not installed";
  const std::string name = "</script><script>alert(1)</script><!-- & \\u003c";
  const std::string made = scratch("named.mp4"), html = scratch("named.html");
  ASSERT_EQ(shell("ffmpeg -v error -y -f lavfi -i testsrc=size=96x64:rate=25 -t 2 -c:v libx264 "
                  "-pix_fmt yuv420p -g 10 -metadata:s:v:0 handler_name='" + name + "' '" + made +
                  "'").status, 0);
  ASSERT_EQ(cli({"report", made, "-o", html, "-y"}).status, 0);
  ASSERT_NE(slurp(html).find("\\u003c/script>\\u003cscript>alert(1)"), std::string::npos);
  const Rendered page = render(html);
  expectDrawn(page, expectedPlots(infoOf(made)), made);
  EXPECT_NE(page.dom.find("<h2>Track 1 (video, avc1): &lt;/script&gt;&lt;script&gt;alert(1)"
                          "&lt;/script&gt;&lt;!-- &amp; \\u003c, Lavc"),
            std::string::npos) << page.dom.substr(0, 4000);
  size_t scripts = 0;
  for (size_t at = page.dom.find("<script"); at != std::string::npos; at = page.dom.find("<script", at + 1)) {
    ++scripts;
  }
  EXPECT_EQ(scripts, 3u);
}

// A file that cannot be read fails with info's message and status and
// leaves no report; so do a missing track and an output that cannot be made.
TEST(ReportRuns, BadInputFailsAsInfoDoesAndWritesNothing) {
  const std::string text = scratch("notes.txt"), html = scratch("bad.html");
  std::ofstream(text) << "these are not the boxes you are looking for\n";
  const std::string noMoov = scratch("nomoov.mp4");
  std::ofstream(noMoov, std::ios::binary) << std::string("\0\0\0\x10" "ftypisom\0\0\0\0", 16);
  for (const std::string& file : {text, noMoov, scratch("missing.mp4")}) {
    for (const bool json : {false, true}) {
      std::vector<std::string> args{"report", file, "-o", html, "-y"};
      std::vector<std::string> asInfo{"info", file};
      if (json) args.push_back("--json"), asInfo.push_back("--json");
      const Outcome report = cli(args), info = cli(asInfo);
      EXPECT_EQ(report.status, 1) << file;
      EXPECT_EQ(report.status, info.status) << file;
      EXPECT_EQ(report.err, info.err) << file;
      EXPECT_EQ(report.out, info.out) << file;
      EXPECT_FALSE(fs::exists(html)) << file;
    }
  }
  const std::string clip = shipped("h264_aac.mp4");
  const Outcome noTrack = cli({"report", clip, "-o", html, "-y", "--track", "5"});
  EXPECT_EQ(noTrack.status, 1);
  EXPECT_EQ(noTrack.err, "mp4stbl: " + clip + ": no track 5; the tracks are 1, 2\n");
  EXPECT_FALSE(fs::exists(html));
  const std::string nowhere = scratch("missing/dir/report.html");
  const Outcome unwritable = cli({"report", clip, "-o", nowhere});
  EXPECT_EQ(unwritable.status, 1);
  EXPECT_EQ(unwritable.err, "mp4stbl: " + nowhere + ": cannot be written\n");
  const Outcome usage = cli({"report", clip});
  EXPECT_EQ(usage.status, 2);
}

// The clip's sound made to claim 20000 samples of one byte (stts, stsc and
// stsz agreeing) in a file of 15234 bytes: kept in memory sample by sample,
// such a claim grows without end, so the track is left out and named.
TEST(ReportRuns, ATrackClaimingMoreSamplesThanBytesIsLeftOut) {
  std::string data = slurp(shipped("h264_aac.mp4"));
  const auto put = [&data](size_t at, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) data[at + i] = static_cast<char>(value >> (24 - 8 * i));
  };
  put(14906 + 16, 19999);     // stts: 19999 samples of 1024, then one of 628
  put(14938 + 20, 2000);      // stsc: 2000 samples a chunk, 10 chunks
  put(14966 + 12, 1);         // stsz: every sample 1 byte...
  put(14966 + 16, 20000);     // ...20000 of them
  const std::string claims = scratch("claims.mp4"), html = scratch("claims.html");
  std::ofstream(claims, std::ios::binary) << data;
  const Outcome made = cli({"report", claims, "-o", html, "-y", "--json"});
  ASSERT_EQ(made.status, 0) << made.err;
  const std::string reason =
      "track 2 (soun, mp4a): claims 20000 samples, more than the 15234 bytes of the file";
  EXPECT_EQ(json::parse(made.out)["unreadable"], json::array({reason}));
  EXPECT_EQ(made.err, "mp4stbl: " + claims + ": " + reason + "\n");
  const auto plots = plotsIn(html);
  EXPECT_EQ(plots.count("bitrate-1"), 1u);
  EXPECT_EQ(plots.count("bitrate-2"), 0u);
}

json samplesOf(const std::string& path, int track) {
  const Outcome listed = cli({"samples", path, "--track", std::to_string(track), "--json"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  return json::parse(listed.out)["samples"];
}

// The least and most of values grouped `width` positions to a column from
// `first`, keyed by where the column starts.
struct Column {
  double least = INFINITY;
  double most = -INFINITY;
};
using Columns = std::map<double, Column>;

void put(Columns& columns, double start, double value) {
  Column& column = columns[start];
  column.least = std::min(column.least, value);
  column.most = std::max(column.most, value);
}

// A series of a plot as column start -> value, nulls left out.
std::map<double, double> seriesOf(const json& plot, const std::string& label) {
  std::map<double, double> values;
  for (size_t i = 0; i < plot["series"].size(); ++i) {
    if (plot["series"][i]["label"] != label) continue;
    for (size_t at = 0; at < plot["data"][0].size(); ++at) {
      const json& value = plot["data"][i + 1][at];
      if (!value.is_null()) values[plot["data"][0][at]] = value;
    }
    return values;
  }
  ADD_FAILURE() << "no series " << label << " in " << plot["id"];
  return values;
}

std::map<double, double> leastOf(const Columns& columns) {
  std::map<double, double> values;
  for (const auto& [start, column] : columns) values[start] = column.least;
  return values;
}

std::map<double, double> mostOf(const Columns& columns) {
  std::map<double, double> values;
  for (const auto& [start, column] : columns) values[start] = column.most;
  return values;
}

void expectNear(const std::map<double, double>& got, const std::map<double, double>& want,
                const std::string& what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  for (auto g = got.begin(), w = want.begin(); g != got.end(); ++g, ++w) {
    EXPECT_NEAR(g->first, w->first, 1e-9) << what;
    EXPECT_NEAR(g->second, w->second, 1e-9) << what << " at " << g->first;
  }
}

// Bit rate in one-second windows, `width` windows to a column (windows
// with no sample at 0), and the columns holding a key frame.
// The first and last window count only the part the track lasts: from
// its first sample shown to the end of its last.
void expectBitRate(const json& plot, const json& samples, const json& track, bool keyed) {
  std::map<int64_t, double> windows;
  std::set<int64_t> keyWindows;
  double start = INFINITY, end = -INFINITY;
  for (const json& s : samples) {
    const double shown = s["presentationSeconds"];
    start = std::min(start, shown);
    end = std::max(end, shown + s["duration"].get<double>() / track["timescale"].get<double>());
    const auto window = static_cast<int64_t>(std::floor(shown));
    windows[window] += s["size"].get<double>() * 8 / 1000;
    if (s["sync"]) keyWindows.insert(window);
  }
  for (auto& [window, rate] : windows) {
    const auto from = static_cast<double>(window);
    const double length = std::min(from + 1, end) - std::max(from, start);
    if (length < 1) rate /= length;
  }
  const int64_t first = windows.begin()->first, last = windows.rbegin()->first;
  const int64_t width = (last - first + 1 + 999) / 1000;
  Columns columns;
  std::map<double, double> keys;
  for (int64_t window = first; window <= last; ++window) {
    const double start = static_cast<double>(first + (window - first) / width * width);
    put(columns, start, windows.count(window) ? windows[window] : 0.0);
  }
  for (const int64_t window : keyWindows) {
    const double start = static_cast<double>(first + (window - first) / width * width);
    keys[start] = columns[start].most;
  }
  // The steps close with the last column's value one column on.
  columns[static_cast<double>(first + ((last - first) / width + 1) * width)] =
      columns.rbegin()->second;
  const std::string id = plot["id"];
  expectNear(seriesOf(plot, width > 1 ? "kbit/s (most)" : "kbit/s"), mostOf(columns), id);
  if (width > 1) expectNear(seriesOf(plot, "kbit/s (least)"), leastOf(columns), id);
  if (keyed) expectNear(seriesOf(plot, "key frames"), keys, id + " key frames");
  EXPECT_EQ(plot["note"], keyed ? "" : "all samples are key frames") << id;
  for (const auto& [start, average] : seriesOf(plot, "average")) {
    EXPECT_DOUBLE_EQ(average, track["bitrate"].get<double>() / 1000) << id;
  }
}

// Frame sizes, `width` samples to a column, and the GOP lengths.
void expectFrames(const std::map<std::string, json>& plots, const json& samples, int id) {
  const json& plot = plots.at("frames-" + std::to_string(id));
  const size_t width = (samples.size() + 999) / 1000;
  Columns frames, keys;
  std::map<double, double> gops;
  size_t previous = 0;
  for (size_t i = 0; i < samples.size(); ++i) {
    const double start = 1 + static_cast<double>(i / width * width);
    put(samples[i]["sync"] ? keys : frames, start, samples[i]["size"]);
    if (!samples[i]["sync"]) continue;
    if (i > 0) gops[static_cast<double>(i - previous)] += 1;
    previous = i;
  }
  gops[static_cast<double>(samples.size() - previous)] += 1;
  const std::string cut = width > 1 ? " (most)" : "";
  expectNear(seriesOf(plot, "other frames" + cut), mostOf(frames), "frames");
  if (width > 1) expectNear(seriesOf(plot, "other frames (least)"), leastOf(frames), "frames");
  expectNear(seriesOf(plot, "key frames"), mostOf(keys), "key frames");
  expectNear(seriesOf(plots.at("gop-" + std::to_string(id)), "GOPs"), gops, "GOPs");
}

// Each track's least and most offset on the layout's timeline.
void expectLayout(const json& plot, const json& samples, int id) {
  double least = INFINITY, most = -INFINITY;
  for (const json& s : samples) {
    least = std::min(least, s["offset"].get<double>());
    most = std::max(most, s["offset"].get<double>());
  }
  const std::string name = "track " + std::to_string(id);
  const auto lows = seriesOf(plot, name + " (least)"), highs = seriesOf(plot, name);
  EXPECT_EQ(std::min_element(lows.begin(), lows.end(), [](auto a, auto b) {
              return a.second < b.second;
            })->second, least) << name;
  EXPECT_EQ(std::max_element(highs.begin(), highs.end(), [](auto a, auto b) {
              return a.second < b.second;
            })->second, most) << name;
}

// Files made by ffmpeg, long enough that the frame sizes (1500 frames) and
// the bit rate (1100 one-second windows) are cut into columns: every plot
// against the samples that samples --json lists.
TEST(ReportData, PlotsHoldTheSamplesOfMadeFiles) {
  const std::string made = scratch("made.mp4"), sound = scratch("long.m4a");
  ASSERT_EQ(shell("ffmpeg -v error -y -f lavfi -i testsrc=size=96x64:rate=25 -f lavfi -i "
                  "sine=r=8000 -t 60 -c:v libx264 -pix_fmt yuv420p -preset ultrafast -g 12 "
                  "-keyint_min 12 -sc_threshold 0 -bf 2 -c:a aac -b:a 16k '" + made + "'")
                .status, 0);
  ASSERT_EQ(shell("ffmpeg -v error -y -f lavfi -i sine=r=8000:d=1100 -c:a aac -b:a 8k '" +
                  sound + "'").status, 0);
  for (const std::string& file : {made, sound, shipped("frag_h264_aac.mp4"),
                                  shipped("bframes_late.mp4"), shipped("h264_aac.mp4")}) {
    SCOPED_TRACE(file);
    const std::string html = scratch("made.html");
    ASSERT_EQ(cli({"report", file, "-o", html, "-y"}).status, 0);
    const auto plots = plotsIn(html);
    const json info = infoOf(file);
    for (const json& track : info["tracks"]) {
      const int id = track["id"];
      const json samples = samplesOf(file, id);
      const bool video = track["handler"] == "video";
      expectBitRate(plots.at("bitrate-" + std::to_string(id)), samples, track, video);
      if (video) expectFrames(plots, samples, id);
      expectLayout(plots.at("layout"), samples, id);
      if (track["presentationDuration"].is_null()) continue;
      const json& edits = plots.at("edits-" + std::to_string(id));
      EXPECT_NEAR(edits["data"][0].back().get<double>(), track["presentationSeconds"], 1e-9);
    }
  }
}

// The shipped clip lasts 0.4 s: its one window holds the bytes of 0.4 s,
// the video's 11587 bytes at 231.74 kbit/s, its average.
TEST(ReportData, AWindowCutByTheTracksEndIsCountedOverItsLength) {
  const std::string html = scratch("clip.html");
  ASSERT_EQ(cli({"report", shipped("h264_aac.mp4"), "-o", html, "-y"}).status, 0);
  const json plot = plotsIn(html).at("bitrate-1");
  EXPECT_NEAR(seriesOf(plot, "kbit/s").at(0), 231.74, 1e-9);
  EXPECT_NEAR(seriesOf(plot, "average").at(0), 231.74, 1e-9);
}

// Each run of a fragment (a chunk in samples --json) at the kilobytes it holds.
TEST(ReportData, FragmentsAreTheRunsOfEachTrack) {
  const std::string file = shipped("frag_h264_aac.mp4"), html = scratch("frag.html");
  ASSERT_EQ(cli({"report", file, "-o", html, "-y"}).status, 0);
  const json plot = plotsIn(html).at("fragments");
  EXPECT_EQ(plot["note"], "3 movie fragments, 6 runs");
  for (const int id : {1, 2}) {
    std::map<int, uint64_t> runs;
    for (const json& s : samplesOf(file, id)) runs[s["chunk"]] += s["size"].get<uint64_t>();
    std::multiset<double> want, got;
    for (const auto& [chunk, bytes] : runs) want.insert(static_cast<double>(bytes) / 1000);
    for (const auto& [start, kilobytes] : seriesOf(plot, "track " + std::to_string(id))) {
      got.insert(kilobytes);
    }
    EXPECT_EQ(got, want) << "track " << id;
  }
}

}  // namespace
