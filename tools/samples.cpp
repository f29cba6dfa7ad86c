// mp4stbl samples: one row per sample of a track.
#include <cstdio>

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

}  // namespace

int samples(const Options& options) {
  const auto opened = open(options);
  if (!opened) return kFailure;
  const Track* track = findTrack(options, *opened);
  if (track == nullptr) return kFailure;
  // Rows are streamed: a long recording holds millions of samples.
  if (options.json) {
    std::printf("{\"file\": %s, \"track\": %u, \"timescale\": %u, \"samples\": [",
                nlohmann::json(options.file).dump(-1, ' ', false,
                                                  nlohmann::json::error_handler_t::replace)
                    .c_str(),
                track->id(), track->timescale());
  } else {
    std::printf("%10s %8s %14s %10s %14s %10s %10s %14s %12s %5s\n", "sample", "chunk", "offset",
                "size", "decode time", "duration", "comp. off.", "presentation", "seconds",
                "sync");
  }
  SampleWalker walker(*track);
  Result<const SampleInfo*> step = walker.next();
  for (bool first = true; step.ok() && *step != nullptr; step = walker.next(), first = false) {
    printRow(**step, track->timescale(), options.json, first);
  }
  if (!options.json) return step.ok() ? 0 : fail(options, step.message());
  // A walk that fails ends the one document with the error.
  std::printf("\n]");
  if (!step.ok()) {
    const nlohmann::json failure = failureDocument(step.message(), options.file);
    std::printf(", \"error\": %s", failure["error"].dump(-1, ' ', false,
                                                         nlohmann::json::error_handler_t::replace)
                                       .c_str());
  }
  std::printf("}\n");
  return step.ok() ? 0 : kFailure;
}

}  // namespace mp4stbl::cli
