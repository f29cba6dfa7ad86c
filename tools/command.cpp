#include "command.h"

#include <cstdio>
#include <filesystem>

#include <mp4stbl/box/table_reason.h>

namespace mp4stbl::cli {

namespace {

// A file name keeps its UTF-8; only control bytes are escaped.
std::string shownName(const std::string& name) {
  std::string text;
  for (const unsigned char c : name) {
    text += c < 0x20 || c == 0x7F ? printable(std::string(1, static_cast<char>(c)))
                                  : std::string(1, static_cast<char>(c));
  }
  return text;
}

}  // namespace

int fail(const Options& options, const std::string& what) {
  if (options.json) {
    printJson(failureDocument(what, options.file));
  } else {
    report(options, what);
  }
  return kFailure;
}

int usageError(bool json, const std::string& what) {
  if (json) {
    printJson(failureDocument(what, nullptr));
  } else {
    std::fprintf(stderr, "mp4stbl: %s\nRun with --help for more information.\n",
                 printable(what).c_str());
  }
  return kUsage;
}

nlohmann::json failureDocument(const std::string& what, nlohmann::json file) {
  return {{"error", printable(what)}, {"file", std::move(file)}};
}

void report(const Options& options, const std::string& what) {
  std::fprintf(stderr, "mp4stbl: %s: %s\n", shownName(options.file).c_str(),
               printable(what).c_str());
}

bool refusesOutput(const Options& options) {
  std::error_code error;
  if (options.overwrite || options.output.empty() ||
      !std::filesystem::is_regular_file(options.output, error)) {
    return false;
  }
  std::vector<std::string> inputs = options.inputs;
  inputs.insert(inputs.end(), {options.file, options.list, options.reference, options.video,
                               options.audio, options.alaw, options.ulaw});
  for (const std::string& input : inputs) {
    if (!input.empty() && std::filesystem::equivalent(input, options.output, error)) return false;
  }
  Options about = options;
  about.file = options.output;
  fail(about, "exists; nothing was written (-y or --overwrite replaces it)");
  return true;
}

void note(const Options& options, const std::string& what) {
  if (!options.quiet) std::printf("note: %s\n", what.c_str());
}

std::unique_ptr<Opened> open(const Options& options) {
  auto opened = std::make_unique<Opened>();
  const Status read = opened->file.open(options.file);
  if (!read.ok()) {
    const bool atStart = opened->file.root.children.empty();
    fail(options, !opened->file.isOpen() ? read.message()
                          : std::string(atStart ? "not an MP4 file" : "cannot be read") + " (" +
                                read.message() + ")");
    return nullptr;
  }
  for (const std::string& warning : opened->file.warnings()) report(options, "warning: " + warning);
  if (opened->file.find("moov").empty()) {
    fail(options, noMovie(opened->file));
    return nullptr;
  }
  FoundTracks found = findTracks(opened->file);
  opened->tracks = std::move(found.tracks);
  for (const std::string& reason : found.unreadable) {
    opened->unreadable.push_back(printable(reason));
  }
  return opened;
}

std::string noMovie(Mp4File& file) {
  return file.find("mdat").empty() ? "not an MP4 file (no moov box)"
                                   : "no moov box, only media data: a recording cut short; "
                                     "mp4stbl recover may index its samples again "
                                     "(mp4stbl recover FILE -o NEW.mp4)";
}

const Track* findTrack(const Options& options, const Opened& opened) {
  if (options.track == "video" || options.track == "audio") {
    for (const Track& track : opened.tracks) {
      if (options.track == track.kind()) return &track;
    }
    fail(options, "no readable " + options.track + " track");
    return nullptr;
  }
  // The parser let through only ids from 1 to 2^32 - 1.
  const uint32_t id =
      options.track.empty() ? 0 : static_cast<uint32_t>(std::stoul(options.track));
  for (const Track& track : opened.tracks) {
    if (track.id() == id) return &track;
  }
  if (id == 0) {
    for (const Track& track : opened.tracks) {
      if (track.handler() == "vide") return &track;
    }
    if (!opened.tracks.empty()) return &opened.tracks.front();
  }
  // A track that is there but cannot be walked says why.
  const std::string wanted = "track " + std::to_string(id) + " ";
  for (const std::string& reason : opened.unreadable) {
    if (id != 0 && reason.compare(0, wanted.size(), wanted) == 0) {
      fail(options, reason);
      return nullptr;
    }
  }
  const bool noneReadable = opened.tracks.empty() && !opened.unreadable.empty();
  std::string ids;
  for (const Track& track : opened.tracks) {
    ids += (ids.empty() ? "" : ", ") + std::to_string(track.id());
  }
  fail(options, noneReadable ? opened.unreadable.front()
                             : "no track " + std::to_string(id) + "; the tracks are " +
                                   (ids.empty() ? "none" : ids));
  return nullptr;
}

double seconds(uint64_t units, uint32_t timescale) {
  return timescale == 0 ? 0.0 : static_cast<double>(units) / timescale;
}

void clampTime(const char* option, double asked, double end, std::vector<Clamped>* clamps) {
  if (asked > end) clamps->push_back({option, asked, end});
}

void noteClamps(const Options& options, const std::vector<Clamped>& clamps) {
  for (const Clamped& clamp : clamps) {
    char text[128];
    std::snprintf(text, sizeof text, "%s %.3f s lies past the end; clamped to %.3f s",
                  clamp.option.c_str(), clamp.asked, clamp.to);
    note(options, text);
  }
}

nlohmann::json clampsDocument(const std::vector<Clamped>& clamps) {
  nlohmann::json document = nlohmann::json::array();
  for (const Clamped& clamp : clamps) {
    document.push_back({{"option", clamp.option}, {"asked", clamp.asked}, {"to", clamp.to}});
  }
  return document;
}

void printJson(nlohmann::json document) {
  document["schema"] = kJsonSchema;
  // Text that is not UTF-8 (a file name, a box type) is replaced, never fatal.
  const auto replace = nlohmann::json::error_handler_t::replace;
  std::printf("%s\n", document.dump(2, ' ', false, replace).c_str());
}

}  // namespace mp4stbl::cli
