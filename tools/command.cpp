#include "command.h"

#include <cstdio>

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
    fail(options, "not an MP4 file (no moov box)");
    return nullptr;
  }
  FoundTracks found = findTracks(opened->file);
  opened->tracks = std::move(found.tracks);
  for (const std::string& reason : found.unreadable) {
    opened->unreadable.push_back(printable(reason));
  }
  return opened;
}

const Track* findTrack(const Options& options, const Opened& opened) {
  for (const Track& track : opened.tracks) {
    if (track.id() == options.track) return &track;
  }
  if (options.track == 0) {
    for (const Track& track : opened.tracks) {
      if (track.handler() == "vide") return &track;
    }
    if (!opened.tracks.empty()) return &opened.tracks.front();
  }
  // A track that is there but cannot be walked says why.
  const std::string wanted = "track " + std::to_string(options.track) + " ";
  for (const std::string& reason : opened.unreadable) {
    if (options.track != 0 && reason.compare(0, wanted.size(), wanted) == 0) {
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
                             : "no track " + std::to_string(options.track) + "; the tracks are " +
                                   (ids.empty() ? "none" : ids));
  return nullptr;
}

double seconds(uint64_t units, uint32_t timescale) {
  return timescale == 0 ? 0.0 : static_cast<double>(units) / timescale;
}

void printJson(const nlohmann::json& document) {
  // Text that is not UTF-8 (a file name, a box type) is replaced, never fatal.
  const auto replace = nlohmann::json::error_handler_t::replace;
  std::printf("%s\n", document.dump(2, ' ', false, replace).c_str());
}

}  // namespace mp4stbl::cli
