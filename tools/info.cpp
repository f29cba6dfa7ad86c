// mp4stbl info: the file's brands and layout, one summary line per track
// and one line of what it holds (picture size, frame rate, profile, sound).
#include <algorithm>
#include <cmath>
#include <cstdio>

#include <mp4stbl/box/codec_config.h>
#include <mp4stbl/box/movie_boxes.h>
#include <mp4stbl/box/table_reason.h>
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

}  // namespace

double playingSeconds(const Track& track) {
  const bool edited = track.elst() != nullptr && track.movieTimescale() != 0;
  return edited ? seconds(track.presentationDuration(), track.movieTimescale())
                : seconds(track.mediaDuration(), track.timescale());
}

namespace {

json trackSummary(const Track& track) {
  const uint64_t duration = track.mediaDuration();
  const double length = seconds(duration, track.timescale());
  // Players report the edit list's length where there is one.
  const bool edited = track.elst() != nullptr && track.movieTimescale() != 0;
  const uint64_t presented = track.presentationDuration();
  const double presentedSeconds = seconds(presented, track.movieTimescale());
  const uint64_t bytes = track.totalSampleBytes();
  const ChunkGrouping grouping = groupingOf(track);
  json summary = {
      {"id", track.id()},
      {"handler", track.kind()},
      {"entry", printable(track.entryType())},
      {"timescale", track.timescale()},
      {"samples", track.sampleCount()},
      {"duration", duration},
      {"seconds", edited ? presentedSeconds : length},
      {"mediaDuration", duration},
      {"mediaSeconds", length},
      {"presentationDuration", edited ? json(presented) : json()},
      {"presentationSeconds", edited ? json(presentedSeconds) : json()},
      {"bytes", bytes},
      {"bitrate", length > 0 ? std::round(static_cast<double>(bytes) * 8 / length) : 0.0},
      {"chunks", track.chunkCount() + track.fragments().runs.size()},
      {"offsets", track.stco() != nullptr ? "stco" : "co64"},
      {"samplesPerChunk", {{"min", grouping.least}, {"max", grouping.most}}},
      {"sampleSize", track.constantSampleSize()},  // 0: each sample's size in a table
  };
  const uint64_t keys = (track.stss() != nullptr ? track.stss()->entries.size()
                                                 : track.tableSampleCount()) +
                        track.fragments().syncSamples;
  const bool allSync = track.stss() == nullptr &&
                       track.fragments().syncSamples == track.fragments().samples;
  summary["keyFrames"] = keys;
  summary["allSync"] = allSync;
  return summary;
}

// The brands, whether moov comes before the media data (a player can
// start before the whole file arrives) and whether movie fragments follow.
json fileSummary(const Mp4File& file) {
  json summary = {{"majorBrand", nullptr}, {"compatibleBrands", json::array()}};
  bool moovSeen = false, mdatSeen = false, fastStart = false, fragmented = false;
  for (const Atom* box : file.root.children) {
    const std::string& type = box->header.type;
    if (const auto* ftyp = dynamic_cast<const FtypAtom*>(box); ftyp && ftyp->parsed) {
      summary["majorBrand"] = ftyp->majorBrand;
      summary["minorVersion"] = ftyp->minorVersion;
      summary["compatibleBrands"] = ftyp->compatibleBrands;
    }
    if (type == "moov") {
      fastStart = fastStart || (!moovSeen && !mdatSeen);
      moovSeen = true;
      for (const Atom* child : box->children) {
        fragmented = fragmented || child->header.type == "mvex";
      }
    }
    mdatSeen = mdatSeen || type == "mdat";
    fragmented = fragmented || type == "moof";
  }
  summary["fastStart"] = fastStart;
  summary["fragmented"] = fragmented;
  return summary;
}

}  // namespace

const Atom* childOf(const Atom* parent, const char* type) {
  if (parent == nullptr) return nullptr;
  for (const Atom* child : parent->children) {
    if (child->header.type == type) return child;
  }
  return nullptr;
}

const Atom* trakOf(Mp4File& file, const Track& track) {
  for (const Atom* trak : file.find("moov/trak")) {
    const auto* tkhd = dynamic_cast<const TkhdAtom*>(childOf(trak, "tkhd"));
    if (tkhd != nullptr && tkhd->trackId == track.id()) return trak;
  }
  return nullptr;
}

namespace {

json codecOf(const Atom& entry) {
  for (const Atom* child : entry.children) {
    if (const auto* avc = dynamic_cast<const AvcConfigAtom*>(child)) {
      return {{"profile", avc->profileName()}, {"level", avc->levelName()},
              {"profileIdc", avc->profile}, {"levelIdc", avc->level}};
    }
    if (const auto* hevc = dynamic_cast<const HevcConfigAtom*>(child)) {
      return {{"profile", hevc->profileName()}, {"level", hevc->levelName()},
              {"profileIdc", hevc->profile}, {"levelIdc", hevc->level}};
    }
  }
  return nullptr;
}

// Samples a second over the whole track, and whether every sample lasts
// as long (one duration in stts).
void addFrameRate(const Track& track, json& media) {
  const uint64_t duration = track.mediaDuration();
  if (duration == 0 || track.sampleCount() == 0) return;
  media["frameRate"] = static_cast<double>(track.sampleCount()) * track.timescale() / duration;
  bool constant = true;
  for (const SttsEntry& run : track.stts().entries) {
    constant = constant && run.sampleDelta == track.stts().entries.front().sampleDelta;
  }
  media["constantFrameRate"] = constant;
}

// Sample rate and channels. The stream's own configuration outranks the
// entry's fields; a rate field left 0 (ALAC at 96 kHz does not fit 16.16)
// gives way to the media's time scale, which is the rate for sound.
void addSound(const AudioSampleEntry& audio, const Track& track, json& media) {
  double rate = audio.samplesPerSecond();
  uint32_t channels = audio.channels();
  for (const Atom* child : audio.children) {
    const auto* config = dynamic_cast<const AudioConfigAtom*>(child);
    if (config == nullptr) continue;
    if (config->channels() != 0) channels = config->channels();
    if (config->samplesPerSecond() != 0) rate = config->samplesPerSecond();
  }
  if (rate == 0) rate = track.timescale();
  media["sampleRate"] = rate == std::floor(rate) ? json(static_cast<uint64_t>(rate)) : json(rate);
  media["channels"] = channels;
}

// What a track holds, as its sample entry, tkhd and mdhd tell it.
json mediaSummary(Mp4File& file, const Track& track) {
  json media = json::object();
  const Atom* trak = trakOf(file, track);
  if (const auto* mdhd = dynamic_cast<const MdhdAtom*>(childOf(childOf(trak, "mdia"), "mdhd"))) {
    media["language"] = mdhd->languageCode();
  }
  const Atom* entry = track.stsd().children.empty() ? nullptr : track.stsd().children.front();
  if (const auto* visual = dynamic_cast<const VisualSampleEntry*>(entry)) {
    media["width"] = visual->width;
    media["height"] = visual->height;
    uint32_t width = 0, height = 0;
    const auto* tkhd = dynamic_cast<const TkhdAtom*>(childOf(trak, "tkhd"));
    if (tkhd != nullptr && tkhd->displaySize(&width, &height) &&
        (width != visual->width || height != visual->height)) {
      media["displayWidth"] = width;
      media["displayHeight"] = height;
    }
  }
  if (const auto* audio = dynamic_cast<const AudioSampleEntry*>(entry)) {
    addSound(*audio, track, media);
  }
  if (track.handler() == "vide") addFrameRate(track, media);
  if (entry != nullptr) {
    const json codec = codecOf(*entry);
    if (!codec.is_null()) media["codec"] = codec;
  }
  return media;
}

// "29.97", "25": two decimals at most.
std::string shortNumber(double value) {
  std::string text = format("%.2f", value);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

void printFile(const json& summary) {
  std::string brands = "none (QuickTime)";
  if (!summary["majorBrand"].is_null()) {
    brands = summary["majorBrand"].get<std::string>() + ", compatible:";
    for (const json& brand : summary["compatibleBrands"]) brands += " " + brand.get<std::string>();
  }
  std::printf("brand %s; fast start: %s; fragmented: %s\n", brands.c_str(),
              summary["fastStart"].get<bool>() ? "yes" : "no",
              summary["fragmented"].get<bool>() ? "yes" : "no");
}

void printMedia(const json& tracks) {
  TextTable table({"track", "entry", "language", "size", "display", "frame rate", "profile",
                   "sample rate", "channels"});
  const auto shown = [](const json& value) { return value.is_null() ? "-" : value.dump(); };
  for (const json& t : tracks) {
    const json none;
    const bool video = t.contains("width");
    std::string rate = "-";
    if (t.contains("frameRate")) {
      rate = shortNumber(t["frameRate"].get<double>());
      if (!t["constantFrameRate"].get<bool>()) rate += " (variable)";
    }
    std::string profile = "-";
    if (t.contains("codec")) {
      profile = t["codec"]["profile"].get<std::string>() + "@" +
                t["codec"]["level"].get<std::string>();
    }
    table.add({t["id"].dump(), t["entry"], t.value("language", "-"),
               video ? t["width"].dump() + "x" + t["height"].dump() : "-",
               t.contains("displayWidth")
                   ? t["displayWidth"].dump() + "x" + t["displayHeight"].dump()
                   : "-",
               rate, profile,
               t.contains("sampleRate") ? shortNumber(t["sampleRate"].get<double>()) : "-",
               shown(t.value("channels", none))});
  }
  table.print(stdout);
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
               t["allSync"].get<bool>() ? "all samples are sync" : t["keyFrames"].dump(),
               t["chunks"].dump(), t["offsets"],
               least == most ? std::to_string(least) : format("%u-%u", least, most),
               t["sampleSize"] == 0 ? "table" : "all " + t["sampleSize"].dump()});
  }
  table.print(stdout);
}

}  // namespace

json infoDocument(const Options& options, Opened& opened) {
  json tracks = json::array();
  for (const Track& track : opened.tracks) {
    json summary = trackSummary(track);
    summary.update(mediaSummary(opened.file, track));
    tracks.push_back(std::move(summary));
  }
  json document = {{"file", options.file}, {"bytes", opened.file.length()}};
  document.update(fileSummary(opened.file));
  document["tracks"] = tracks;
  document["unreadable"] = opened.unreadable;
  return document;
}

int info(const Options& options) {
  const auto opened = open(options);
  if (!opened) return kFailure;
  const json document = infoDocument(options, *opened);
  for (const std::string& reason : opened->unreadable) report(options, reason);
  if (options.json) {
    printJson(document);
    return 0;
  }
  std::printf("%s: %llu bytes, %zu tracks\n", options.file.c_str(),
              static_cast<unsigned long long>(document["bytes"].get<uint64_t>()),
              opened->tracks.size());
  printFile(document);
  printTracks(document["tracks"]);
  std::printf("\n");
  printMedia(document["tracks"]);
  return 0;
}

}  // namespace mp4stbl::cli
