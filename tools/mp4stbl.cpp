// mp4stbl: inspect, list, seek and verify the sample tables of MP4 files.
//
// Exit status: 0 on success, 1 when a file cannot be read or a check
// fails, 2 on a usage error.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "box/log.h"
#include "box/mp4file.h"
#include "media/track.h"
#include "stbl.h"
#include "table.h"

using nlohmann::json;

namespace {

constexpr int kFailure = 1;

struct Options {
  std::string file;
  bool json = false;
  bool verbose = false;
  std::string entries = "5";
  uint32_t track = 0;
  double time = -1;
  uint32_t sample = 0;
  double endTime = -1;
  uint32_t endSample = 0;
};

// The library logs why a read failed; the command repeats the last failure
// in its own message, and shows every line with --verbose.
std::string lastFailure;
bool showLog = false;

void onLog(const char* tag, int level, const char* text) {
  if (level >= 3) {
    lastFailure = text;
    while (!lastFailure.empty() && (lastFailure.back() == '\n' || lastFailure.back() == ' ')) {
      lastFailure.pop_back();
    }
  }
  if (showLog) std::fprintf(stderr, "[%s %d] %s", tag, level, text);
}

int fail(const Options& options, const std::string& what) {
  std::fprintf(stderr, "mp4stbl: %s: %s\n", options.file.c_str(), what.c_str());
  return kFailure;
}

// An opened file with its tracks.
struct Opened {
  FileStream probe;
  Mp4File file;
  std::vector<Track> tracks;
  uint64_t length = 0;
};

int open(const Options& options, Opened& opened) {
  if (opened.probe.open(options.file, FileStream::Mode::Read) != 0) {
    return fail(options, "cannot open the file");
  }
  opened.length = static_cast<uint64_t>(opened.probe.getLength());
  opened.probe.close();
  if (opened.file.open(options.file) != 0) {
    const bool atStart = opened.file.root.children.empty();
    return fail(options, std::string(atStart ? "not an MP4 file" : "cannot be read") +
                             (lastFailure.empty() ? "" : " (" + lastFailure + ")"));
  }
  if (opened.file.find("moov").empty()) return fail(options, "not an MP4 file (no moov box)");
  std::string error;
  if (findTracks(opened.file, opened.length, &opened.tracks, &error) != 0) {
    return fail(options, error);
  }
  return 0;
}

// The track asked for; without --track, the first video track, else the
// first track.
const Track* findTrack(const Options& options, const Opened& opened) {
  for (const Track& track : opened.tracks) {
    if (track.id == options.track) return &track;
  }
  if (options.track == 0) {
    for (const Track& track : opened.tracks) {
      if (track.handler == "vide") return &track;
    }
    if (!opened.tracks.empty()) return &opened.tracks.front();
  }
  fail(options, "no track " + std::to_string(options.track));
  return nullptr;
}

double seconds(uint64_t units, uint32_t timescale) {
  return timescale == 0 ? 0.0 : static_cast<double>(units) / timescale;
}

void printJson(const json& document) { std::printf("%s\n", document.dump(2).c_str()); }

// ---- info ----

struct ChunkGrouping {
  uint32_t least = 0;
  uint32_t most = 0;
};

ChunkGrouping groupingOf(const Track& track) {
  ChunkGrouping grouping;
  for (const StscEntry& run : track.stsc->entries) {
    grouping.least = grouping.least == 0 ? run.samplesPerChunk
                                         : std::min(grouping.least, run.samplesPerChunk);
    grouping.most = std::max(grouping.most, run.samplesPerChunk);
  }
  return grouping;
}

json trackSummary(const Track& track) {
  const uint64_t duration = track.stts->totalDuration();
  const double length = seconds(duration, track.timescale);
  const uint64_t bytes = track.stsz->TotalSampleSize();
  const ChunkGrouping grouping = groupingOf(track);
  json summary = {
      {"id", track.id},
      {"handler", track.kind()},
      {"entry", track.entryType()},
      {"timescale", track.timescale},
      {"samples", track.sampleCount()},
      {"duration", duration},
      {"seconds", length},
      {"bytes", bytes},
      {"bitrate", length > 0 ? std::round(static_cast<double>(bytes) * 8 / length) : 0.0},
      {"chunks", track.chunkCount()},
      {"offsets", track.stco != nullptr ? "stco" : "co64"},
      {"samplesPerChunk", {{"min", grouping.least}, {"max", grouping.most}}},
  };
  summary["keyFrames"] = track.stss != nullptr ? json(track.stss->entries.size()) : json("all");
  return summary;
}

int info(const Options& options) {
  Opened opened;
  if (int status = open(options, opened)) return status;
  json tracks = json::array();
  for (const Track& track : opened.tracks) tracks.push_back(trackSummary(track));
  if (options.json) {
    printJson({{"file", options.file}, {"bytes", opened.length}, {"tracks", tracks}});
    return 0;
  }
  std::printf("%s: %llu bytes, %zu tracks\n", options.file.c_str(),
              static_cast<unsigned long long>(opened.length), opened.tracks.size());
  TextTable table({"track", "handler", "entry", "timescale", "samples", "duration", "seconds",
                   "bytes", "kbit/s", "key frames", "chunks", "offsets", "samples/chunk"});
  for (const json& t : tracks) {
    const auto least = t["samplesPerChunk"]["min"].get<uint32_t>();
    const auto most = t["samplesPerChunk"]["max"].get<uint32_t>();
    table.add({std::to_string(t["id"].get<uint32_t>()), t["handler"], t["entry"],
               std::to_string(t["timescale"].get<uint32_t>()), t["samples"].dump(),
               t["duration"].dump(), format("%.3f", t["seconds"].get<double>()),
               t["bytes"].dump(), format("%.1f", t["bitrate"].get<double>() / 1000),
               t["keyFrames"].is_string() ? "all samples are sync" : t["keyFrames"].dump(),
               t["chunks"].dump(), t["offsets"],
               least == most ? std::to_string(least) : format("%u-%u", least, most)});
  }
  table.print(stdout);
  return 0;
}

// ---- dump ----

size_t entryLimit(const Options& options) {
  return options.entries == "all" ? SIZE_MAX : std::stoul(options.entries);
}

template <class Entries, class Show>
json firstEntries(const Entries& entries, size_t limit, Show show) {
  json shown = json::array();
  for (size_t i = 0; i < entries.size() && i < limit; ++i) shown.push_back(show(entries[i]));
  return shown;
}

// The fields and first entries of the sample-table boxes.
json describe(const Atom& box, size_t limit) {
  auto number = [](auto value) { return json(value); };
  auto table = [&](const auto& t, json entries) {
    return json{{"version", t.version}, {"flags", t.flags}, {"count", t.entries.size()},
                {"entries", std::move(entries)}};
  };
  if (const auto* t = dynamic_cast<const SttsAtom*>(&box)) {
    return table(*t, firstEntries(t->entries, limit, [](const SttsEntry& e) {
      return json::array({e.sampleCount, e.sampleDelta});
    }));
  }
  if (const auto* t = dynamic_cast<const StscAtom*>(&box)) {
    return table(*t, firstEntries(t->entries, limit, [](const StscEntry& e) {
      return json::array({e.firstChunk, e.samplesPerChunk, e.sampleDescriptionIndex});
    }));
  }
  if (const auto* t = dynamic_cast<const StszAtom*>(&box)) {
    json fields = table(*t, firstEntries(t->entries, limit, number));
    fields["sample_size"] = t->sample_size;
    fields["sample_count"] = t->sample_count;
    return fields;
  }
  if (const auto* t = dynamic_cast<const StssAtom*>(&box)) {
    return table(*t, firstEntries(t->entries, limit, number));
  }
  if (const auto* t = dynamic_cast<const StcoAtom*>(&box)) {
    return table(*t, firstEntries(t->entries, limit, number));
  }
  if (const auto* t = dynamic_cast<const Co64Atom*>(&box)) {
    return table(*t, firstEntries(t->entries, limit, number));
  }
  if (const auto* t = dynamic_cast<const StsdAtom*>(&box)) {
    return {{"version", t->version}, {"flags", t->flags}, {"count", t->children.size()}};
  }
  return nullptr;
}

json tree(const Atom& box, size_t limit) {
  json node = {{"type", box.header.type},
               {"size", box.header.boxLength()},
               {"offset", box.header.headerOffset}};
  json fields = describe(box, limit);
  if (!fields.is_null()) node["fields"] = fields;
  if (!box.children.empty()) {
    node["children"] = json::array();
    for (const Atom* child : box.children) node["children"].push_back(tree(*child, limit));
  }
  return node;
}

void printTree(const json& node, unsigned depth) {
  std::string line = format("%*s%s", static_cast<int>(2 * depth), "",
                            node["type"].get<std::string>().c_str());
  line += format("  size %s  offset %s", node["size"].dump().c_str(),
                 node["offset"].dump().c_str());
  if (node.contains("fields")) {
    json fields = node["fields"];
    json entries = fields.contains("entries") ? fields["entries"] : json();
    fields.erase("entries");
    for (const auto& [name, value] : fields.items()) line += "  " + name + " " + value.dump();
    if (!entries.is_null()) {
      line += "  [";
      for (size_t i = 0; i < entries.size(); ++i) line += (i ? " " : "") + entries[i].dump();
      if (entries.size() < fields["count"].get<size_t>()) line += " ...";
      line += "]";
    }
  }
  std::printf("%s\n", line.c_str());
  if (node.contains("children")) {
    for (const json& child : node["children"]) printTree(child, depth + 1);
  }
}

int dump(const Options& options) {
  Opened opened;
  if (int status = open(options, opened)) return status;
  const size_t limit = entryLimit(options);
  json boxes = json::array();
  for (const Atom* box : opened.file.root.children) boxes.push_back(tree(*box, limit));
  if (options.json) {
    printJson({{"file", options.file}, {"boxes", boxes}});
    return 0;
  }
  for (const json& box : boxes) printTree(box, 0);
  return 0;
}

// ---- samples ----

int samples(const Options& options) {
  Opened opened;
  if (int status = open(options, opened)) return status;
  const Track* track = findTrack(options, opened);
  if (track == nullptr) return kFailure;
  SampleWalker walker(*track);
  SampleInfo s;
  // Rows are streamed: a long recording holds millions of samples.
  if (options.json) {
    std::printf("{\"file\": %s, \"track\": %u, \"timescale\": %u, \"samples\": [",
                json(options.file).dump().c_str(), track->id, track->timescale);
  } else {
    std::printf("%10s %8s %14s %10s %14s %10s %5s\n", "sample", "chunk", "offset", "size",
                "decode time", "duration", "sync");
  }
  for (bool first = true; walker.next(&s); first = false) {
    if (options.json) {
      std::printf("%s\n  {\"number\": %u, \"chunk\": %u, \"offset\": %llu, \"size\": %u, "
                  "\"decodeTime\": %llu, \"duration\": %u, \"sync\": %s}",
                  first ? "" : ",", s.number, s.chunk, static_cast<unsigned long long>(s.offset),
                  s.size, static_cast<unsigned long long>(s.decodeTime), s.duration,
                  s.sync ? "true" : "false");
    } else {
      std::printf("%10u %8u %14llu %10u %14llu %10u %5s\n", s.number, s.chunk,
                  static_cast<unsigned long long>(s.offset), s.size,
                  static_cast<unsigned long long>(s.decodeTime), s.duration,
                  s.sync ? "yes" : "");
    }
  }
  if (options.json) std::printf("\n]}\n");
  if (!walker.error().empty()) return fail(options, walker.error());
  return 0;
}

// ---- seek ----

// Walks to sample `number`; false with a message when it cannot be reached.
bool sampleAt(const Options& options, const Track& track, uint32_t number, SampleInfo* found) {
  SampleWalker walker(track);
  while (walker.next(found)) {
    if (found->number == number) return true;
  }
  fail(options, walker.error().empty() ? "no sample " + std::to_string(number) : walker.error());
  return false;
}

uint32_t sampleFor(const Track& track, double time, uint32_t sample) {
  if (time < 0) return sample;
  return sampleAtTime(track, static_cast<uint64_t>(std::llround(time * track.timescale)));
}

int seek(const Options& options) {
  Opened opened;
  if (int status = open(options, opened)) return status;
  const Track* track = findTrack(options, opened);
  if (track == nullptr) return kFailure;
  const uint32_t asked = sampleFor(*track, options.time, options.sample);
  if (asked == 0 || asked > track->sampleCount()) return fail(options, "no such sample");
  uint32_t key = asked;
  if (track->stss != nullptr) track->stss->getIFrameNumber(&key);
  SampleInfo start, end;
  if (!sampleAt(options, *track, key, &start)) return kFailure;
  if (!start.sync) return fail(options, "no key frame at or after sample " + std::to_string(asked));
  uint32_t last = sampleFor(*track, options.endTime, options.endSample);
  last = last == 0 ? track->sampleCount() : std::min(last, track->sampleCount());
  if (!sampleAt(options, *track, std::max(last, key), &end)) return kFailure;

  // From the first byte of the key frame's chunk to the last byte of the
  // end sample; the chunk distance comes from the offset table.
  unsigned long long chunkStart = 0;
  uint64_t chunkDistance = 0;
  if (track->stco != nullptr) {
    uint32_t distance = 0;
    track->stco->getFramePos(start.chunk, end.chunk, &chunkStart, &distance);
    chunkDistance = distance;
  } else {
    unsigned long long endChunk = 0;
    track->co64->getPosByNO(start.chunk, &chunkStart);
    track->co64->getPosByNO(end.chunk, &endChunk);
    chunkDistance = endChunk - chunkStart;
  }
  const uint64_t rangeEnd = end.offset + end.size;
  const json result = {
      {"file", options.file},
      {"track", track->id},
      {"requestedSample", asked},
      {"keyFrame", key},
      {"keyFrameTime", seconds(start.decodeTime, track->timescale)},
      {"chunk", start.chunk},
      {"offset", start.offset},
      {"chunkOffset", chunkStart},
      {"chunkDistance", chunkDistance},
      {"endSample", end.number},
      {"rangeStart", chunkStart},
      {"rangeLength", rangeEnd - chunkStart},
  };
  if (options.json) {
    printJson(result);
    return 0;
  }
  std::printf("track %u: sample %u -> key frame %u at %.3f s, chunk %u, offset %llu\n", track->id,
              asked, key, result["keyFrameTime"].get<double>(), start.chunk,
              static_cast<unsigned long long>(start.offset));
  std::printf("read bytes %llu..%llu (%llu bytes) to play through sample %u\n", chunkStart,
              static_cast<unsigned long long>(rangeEnd),
              static_cast<unsigned long long>(rangeEnd - chunkStart), end.number);
  return 0;
}

// ---- verify ----

// The innermost box whose bytes hold `offset`.
std::string boxAt(const Atom& parent, uint64_t offset, const std::string& path) {
  for (const Atom* box : parent.children) {
    const uint64_t start = box->header.headerOffset;
    if (offset >= start && offset - start < box->header.boxLength()) {
      return boxAt(*box, offset, path.empty() ? box->header.type : path + "/" + box->header.type);
    }
  }
  return path;
}

int verify(const Options& options) {
  Opened opened;
  if (int status = open(options, opened)) return status;
  MemoryStream written;
  if (opened.file.write(&written) != 0) return fail(options, "cannot be written back");
  FileStream original;
  if (original.open(options.file, FileStream::Mode::Read) != 0) {
    return fail(options, "cannot open the file");
  }
  const std::vector<unsigned char>& copy = written.data();
  std::vector<unsigned char> block(1 << 20);
  uint64_t at = 0;
  uint64_t mismatch = UINT64_MAX;
  while (mismatch == UINT64_MAX && at < opened.length) {
    const int got = original.readBytes(block.data(), static_cast<unsigned>(block.size()));
    if (got <= 0) break;
    for (int i = 0; i < got && mismatch == UINT64_MAX; ++i, ++at) {
      if (at >= copy.size() || copy[at] != block[static_cast<size_t>(i)]) mismatch = at;
    }
  }
  if (mismatch == UINT64_MAX && copy.size() != opened.length) mismatch = at;
  const bool same = mismatch == UINT64_MAX;
  const std::string box = same ? "" : boxAt(opened.file.root, mismatch, "");
  if (options.json) {
    json result = {{"file", options.file}, {"identical", same}, {"bytes", opened.length}};
    if (!same) {
      result["firstDifference"] = mismatch;
      result["box"] = box;
    }
    printJson(result);
  } else if (same) {
    std::printf("%s: identical when written back (%llu bytes)\n", options.file.c_str(),
                static_cast<unsigned long long>(opened.length));
  } else {
    std::printf("%s: differs when written back, first at offset %llu, in %s\n",
                options.file.c_str(), static_cast<unsigned long long>(mismatch),
                box.empty() ? "no box" : box.c_str());
  }
  return same ? 0 : kFailure;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Inspect, list, seek and verify the sample tables of MP4 files."};
  app.set_version_flag("--version", "mp4stbl " MP4STBL_VERSION);
  app.require_subcommand(1);
  Options options;

  auto command = [&](const char* name, const char* about) {
    CLI::App* sub = app.add_subcommand(name, about);
    sub->add_option("FILE", options.file, "MP4 or QuickTime file")->required();
    sub->add_flag("--json", options.json, "one JSON document on stdout");
    sub->add_flag("-v,--verbose", options.verbose, "show the library's log lines");
    return sub;
  };
  auto trackOption = [&](CLI::App* sub, bool required) {
    sub->add_option("--track", options.track, required ? "track id" : "track id (default: the first video track)")
        ->required(required)
        ->check(CLI::PositiveNumber);
  };

  CLI::App* infoCommand = command("info", "per-track summary of the sample tables");
  CLI::App* dumpCommand = command("dump", "box tree with the fields and first entries of tables");
  dumpCommand->add_option("--entries", options.entries, "entries shown per table, or all")
      ->check(CLI::Validator(
          [](std::string& value) -> std::string {
            char* end = nullptr;
            const bool positive = std::isdigit(static_cast<unsigned char>(value[0])) &&
                                  std::strtoul(value.c_str(), &end, 10) > 0 && *end == '\0';
            return positive || value == "all" ? "" : "expects a positive number or all";
          },
          "N|all"));
  CLI::App* samplesCommand = command("samples", "one row per sample of a track");
  trackOption(samplesCommand, true);
  CLI::App* seekCommand = command("seek", "the key frame to start playing from");
  trackOption(seekCommand, false);
  auto* at = seekCommand->add_option_group("position")->require_option(1);
  at->add_option("--time", options.time, "seconds")->check(CLI::NonNegativeNumber);
  at->add_option("--sample", options.sample, "1-based sample number")->check(CLI::PositiveNumber);
  auto* to = seekCommand->add_option_group("end")->require_option(0, 1);
  to->add_option("--end-time", options.endTime, "play through this time (seconds)")
      ->check(CLI::NonNegativeNumber);
  to->add_option("--end-sample", options.endSample, "play through this sample")
      ->check(CLI::PositiveNumber);
  CLI::App* verifyCommand = command("verify", "write the file back and compare the bytes");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? 0 : 2;
  }

  showLog = options.verbose;
  QX_LOG_SetHandler(&onLog);
  if (infoCommand->parsed()) return info(options);
  if (dumpCommand->parsed()) return dump(options);
  if (samplesCommand->parsed()) return samples(options);
  if (seekCommand->parsed()) return seek(options);
  if (verifyCommand->parsed()) return verify(options);
  return 2;
}
