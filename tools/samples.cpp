// mp4stbl samples: one row per sample of a track.
#include <cstdio>

#include <mp4stbl/box/table_reason.h>
#include "command.h"

namespace mp4stbl::cli {

namespace {

void printRow(const SampleInfo& s, uint32_t timescale, bool json, bool first) {
  // Negative before the presentation starts.
  const double shown = timescale == 0 ? 0.0 : static_cast<double>(s.presentationTime) / timescale;
  if (json) {
    std::printf("%s\n  {\"number\": %u, \"chunk\": %u, \"offset\": %llu, \"size\": %u, "
                "\"decodeTime\": %llu, \"duration\": %u, \"compositionOffset\": %lld, "
                "\"presentationTime\": %lld, \"presentationSeconds\": %s, \"sync\": %s%s}",
                first ? "" : ",", s.number, s.chunk, static_cast<unsigned long long>(s.offset),
                s.size, static_cast<unsigned long long>(s.decodeTime), s.duration,
                static_cast<long long>(s.compositionOffset),
                static_cast<long long>(s.presentationTime), nlohmann::json(shown).dump().c_str(),
                s.sync ? "true" : "false", s.missing ? ", \"missing\": true" : "");
  } else {
    std::printf("%10u %8u %14llu %10u %14llu %10u %10lld %14lld %12.6f %5s%s\n", s.number,
                s.chunk, static_cast<unsigned long long>(s.offset), s.size,
                static_cast<unsigned long long>(s.decodeTime), s.duration,
                static_cast<long long>(s.compositionOffset),
                static_cast<long long>(s.presentationTime), shown, s.sync ? "yes" : "",
                s.missing ? "  missing" : "");
  }
}

std::string jsonText(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// Streams the rows of a track (a JSON array's elements, or a table under
// its heading); the walk's failure, if any. A long recording holds
// millions of samples.
Status printRows(const Track& track, bool json) {
  if (!json) {
    std::printf("%10s %8s %14s %10s %14s %10s %10s %14s %12s %5s\n", "sample", "chunk", "offset",
                "size", "decode time", "duration", "comp. off.", "presentation", "seconds",
                "sync");
  }
  SampleWalker walker(track);
  Result<const SampleInfo*> step = walker.next();
  for (bool first = true; step.ok() && *step != nullptr; step = walker.next(), first = false) {
    printRow(**step, track.timescale(), json, first);
  }
  if (json) std::printf("\n]");
  return step.ok() ? Status() : step.status();
}

// Ends the one JSON document, with the error of a walk that failed part
// way; in text, the error goes to stderr.
int finish(const Options& options, const Status& walked) {
  if (!options.json) return walked.ok() ? 0 : fail(options, walked.message());
  if (!walked.ok()) {
    std::printf(", \"error\": %s",
                jsonText(failureDocument(walked.message(), options.file)["error"]).c_str());
  }
  std::printf("}\n");
  return walked.ok() ? 0 : kFailure;
}

int oneTrack(const Options& options, const Track& track) {
  if (options.json) {
    std::printf("{\"schema\": %d, \"file\": %s, \"track\": %u, \"timescale\": %u, \"samples\": [",
                kJsonSchema, jsonText(options.file).c_str(), track.id(), track.timescale());
  }
  return finish(options, printRows(track, options.json));
}

// Every readable track, one after the other: in text a heading line and
// the table for each, in JSON one object each in "tracks".
int everyTrack(const Options& options, const Opened& opened) {
  if (options.json) {
    std::printf("{\"schema\": %d, \"file\": %s, \"tracks\": [", kJsonSchema,
                jsonText(options.file).c_str());
  }
  Status walked;
  for (size_t i = 0; i < opened.tracks.size() && walked.ok(); ++i) {
    const Track& track = opened.tracks[i];
    if (options.json) {
      std::printf("%s\n {\"track\": %u, \"timescale\": %u, \"samples\": [", i == 0 ? "" : ",",
                  track.id(), track.timescale());
    } else {
      std::printf("%strack %u (%s, %s): %u samples\n", i == 0 ? "" : "\n", track.id(),
                  track.kind(), printable(track.entryType()).c_str(), track.sampleCount());
    }
    walked = printRows(track, options.json);
    if (options.json) std::printf("}");
  }
  if (options.json) {
    std::printf("\n], \"unreadable\": %s", jsonText(opened.unreadable).c_str());
  } else {
    for (const std::string& reason : opened.unreadable) report(options, reason);
  }
  return finish(options, walked);
}

}  // namespace

int samples(const Options& options) {
  const auto opened = open(options);
  if (!opened) return kFailure;
  if (options.track.empty() && !opened->tracks.empty()) return everyTrack(options, *opened);
  const Track* track = findTrack(options, *opened);
  if (track == nullptr) return kFailure;
  return oneTrack(options, *track);
}

}  // namespace mp4stbl::cli
