// mp4stbl info: one summary line per track.
#include <algorithm>
#include <cmath>
#include <cstdio>

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
  // Each run of a fragment is a chunk.
  for (const FragmentRun& run : track.fragments().runs) {
    const uint32_t count = run.trun->sampleCount;
    grouping.least = grouping.least == 0 ? count : std::min(grouping.least, count);
    grouping.most = std::max(grouping.most, count);
  }
  return grouping;
}

json trackSummary(const Track& track) {
  const uint64_t duration =
      track.fragmented() ? track.fragments().endTime : track.stts().totalDuration();
  const double length = seconds(duration, track.timescale());
  const uint64_t bytes = track.totalSampleBytes();
  const ChunkGrouping grouping = groupingOf(track);
  json summary = {
      {"id", track.id()},
      {"handler", track.kind()},
      {"entry", track.entryType()},
      {"timescale", track.timescale()},
      {"samples", track.sampleCount()},
      {"duration", duration},
      {"seconds", length},
      {"bytes", bytes},
      {"bitrate", length > 0 ? std::round(static_cast<double>(bytes) * 8 / length) : 0.0},
      {"chunks", track.chunkCount() + track.fragments().runs.size()},
      {"offsets", track.stco() != nullptr ? "stco" : "co64"},
      {"samplesPerChunk", {{"min", grouping.least}, {"max", grouping.most}}},
      {"sampleSize", track.constantSampleSize() != 0 ? json(track.constantSampleSize())
                                                     : json("table")},
  };
  const uint64_t keys = (track.stss() != nullptr ? track.stss()->entries.size()
                                                 : track.tableSampleCount()) +
                        track.fragments().syncSamples;
  const bool allSync = track.stss() == nullptr &&
                       track.fragments().syncSamples == track.fragments().samples;
  summary["keyFrames"] = allSync ? json("all") : json(keys);
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
  const size_t fragments = opened->file.find("moof").size();
  for (const std::string& reason : opened->unreadable) {
    std::fprintf(stderr, "mp4stbl: %s: %s\n", options.file.c_str(), reason.c_str());
  }
  if (options.json) {
    printJson({{"file", options.file}, {"bytes", length}, {"fragmented", fragments > 0},
               {"tracks", tracks}, {"unreadable", opened->unreadable}});
    return 0;
  }
  const std::string fragmented =
      fragments > 0 ? ", fragmented: " + std::to_string(fragments) + " movie fragments" : "";
  std::printf("%s: %llu bytes, %zu tracks%s\n", options.file.c_str(),
              static_cast<unsigned long long>(length), opened->tracks.size(), fragmented.c_str());
  printTracks(tracks);
  return 0;
}

}  // namespace mp4stbl::cli
