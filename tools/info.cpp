// mp4stbl info: one summary line per track.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "box/table_reason.h"
#include "command.h"
#include "table.h"

namespace mp4stbl::cli {

namespace {

using nlohmann::json;

struct ChunkGrouping {
  uint32_t least = 0;
  uint32_t most = 0;
};

ChunkGrouping groupingOf(const Track& track) {
  ChunkGrouping grouping;
  for (const StscEntry& run : track.stsc().entries) {
    grouping.least = grouping.least == 0 ? run.samplesPerChunk
                                         : std::min(grouping.least, run.samplesPerChunk);
    grouping.most = std::max(grouping.most, run.samplesPerChunk);
  }
  return grouping;
}

json trackSummary(const Track& track) {
  const uint64_t duration = track.stts().totalDuration();
  const double length = seconds(duration, track.timescale());
  const uint64_t bytes = track.totalSampleBytes();
  const ChunkGrouping grouping = groupingOf(track);
  json summary = {
      {"id", track.id()},
      {"handler", track.kind()},
      {"entry", printable(track.entryType())},
      {"timescale", track.timescale()},
      {"samples", track.sampleCount()},
      {"duration", duration},
      {"seconds", length},
      {"bytes", bytes},
      {"bitrate", length > 0 ? std::round(static_cast<double>(bytes) * 8 / length) : 0.0},
      {"chunks", track.chunkCount()},
      {"offsets", track.stco() != nullptr ? "stco" : "co64"},
      {"samplesPerChunk", {{"min", grouping.least}, {"max", grouping.most}}},
      {"sampleSize", track.constantSampleSize() != 0 ? json(track.constantSampleSize())
                                                     : json("table")},
  };
  summary["keyFrames"] =
      track.stss() != nullptr ? json(track.stss()->entries.size()) : json("all");
  return summary;
}

void printTracks(const json& tracks) {
  TextTable table({"track", "handler", "entry", "timescale", "samples", "duration", "seconds",
                   "bytes", "kbit/s", "key frames", "chunks", "offsets", "samples/chunk",
                   "sample size"});
  for (const json& t : tracks) {
    const auto least = t["samplesPerChunk"]["min"].get<uint32_t>();
    const auto most = t["samplesPerChunk"]["max"].get<uint32_t>();
    table.add({t["id"].dump(), t["handler"], t["entry"], t["timescale"].dump(),
               t["samples"].dump(), t["duration"].dump(),
               format("%.3f", t["seconds"].get<double>()), t["bytes"].dump(),
               format("%.1f", t["bitrate"].get<double>() / 1000),
               t["keyFrames"].is_string() ? "all samples are sync" : t["keyFrames"].dump(),
               t["chunks"].dump(), t["offsets"],
               least == most ? std::to_string(least) : format("%u-%u", least, most),
               t["sampleSize"].is_string() ? "table" : "all " + t["sampleSize"].dump()});
  }
  table.print(stdout);
}

}  // namespace

int info(const Options& options) {
  const auto opened = open(options);
  if (!opened) return kFailure;
  json tracks = json::array();
  for (const Track& track : opened->tracks) tracks.push_back(trackSummary(track));
  const uint64_t length = opened->file.length();
  for (const std::string& reason : opened->unreadable) report(options, reason);
  if (options.json) {
    printJson({{"file", options.file}, {"bytes", length}, {"tracks", tracks},
               {"unreadable", opened->unreadable}});
    return 0;
  }
  std::printf("%s: %llu bytes, %zu tracks\n", options.file.c_str(),
              static_cast<unsigned long long>(length), opened->tracks.size());
  printTracks(tracks);
  return 0;
}

}  // namespace mp4stbl::cli
