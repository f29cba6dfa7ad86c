// What every test file of the library starts from: GoogleTest, the standard
// headers the tests share, the library's headers and the test helpers.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "box/codec_config.h"
#include "box/edit_boxes.h"
#include "box/file_stream.h"
#include "box/movie_boxes.h"
#include "box/mp4file.h"
#include "media/track.h"
#include "stbl.h"
#include "support/bytes.h"
#include "support/log_capture.h"
#include "support/records.h"

using namespace mp4stbl;
namespace fs = std::filesystem;

// A directory of its own for one test, named after the process so that two
// suites on one machine never share it; removed with everything in it.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& name)
      : path_(fs::path(::testing::TempDir()) / (name + std::to_string(::getpid()))) {
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~ScratchDir() { fs::remove_all(path_); }

  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  // The names the directory holds, sorted.
  std::vector<std::string> names() const {
    std::vector<std::string> held;
    for (const auto& entry : fs::directory_iterator(path_)) held.push_back(entry.path().filename());
    std::sort(held.begin(), held.end());
    return held;
  }

 private:
  fs::path path_;
};

// The files of `folder` whose names match `names`, sorted; none when the
// folder is missing.
inline std::vector<std::string> filesIn(const std::string& folder, const std::string& names) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    if (std::regex_match(entry.path().filename().string(), std::regex(names))) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

// Names the cases of a typed test after their type's `type`.
struct TypeNames {
  template <class T>
  static std::string GetName(int) { return T::type; }
};

// A file read from memory; a file that reads must write back identical.
struct ReadFile {
  explicit ReadFile(const Bytes& bytes) : in(bytes), status(file.read(&in)) {
    MemoryStream out;
    if (!status.ok()) return;
    EXPECT_TRUE(file.write(&out).ok());
    EXPECT_EQ(out.data(), bytes);
  }
  MemoryStream in;
  Mp4File file;
  Status status;
};

// A sample entry as text: its type; its picture size, or its channels, rate,
// sample size and sound version; then what each decoder configuration child
// tells: profile@level, length size and parameter set counts, or the
// channels and rate of an AAC stream ("unknown" when they cannot be read).
inline std::string describe(const Atom& entry) {
  auto number = [](uint64_t value) { return std::to_string(value); };
  auto level = [&](const auto& c) {
    return " " + c.profileName() + "@" + c.levelName() + " len" + number(c.lengthSize);
  };
  std::string out = entry.header.type;
  if (auto* video = dynamic_cast<const VisualSampleEntry*>(&entry)) {
    out += " " + number(video->width) + "x" + number(video->height);
  } else if (auto* audio = dynamic_cast<const AudioSampleEntry*>(&entry)) {
    out += " " + number(audio->channelCount) + "ch " + number(audio->sampleRate >> 16) + "Hz " +
           number(audio->sampleSize) + "bit v" + number(audio->soundVersion);
  }
  for (const Atom* child : entry.children) {
    if (auto* avc = dynamic_cast<const AvcConfigAtom*>(child)) {
      out += level(*avc) + " sps" + number(avc->spsCount) + " pps" + number(avc->ppsCount);
    } else if (auto* hevc = dynamic_cast<const HevcConfigAtom*>(child)) {
      out += level(*hevc) + " vps" + number(hevc->vpsCount) + " sps" + number(hevc->spsCount) +
             " pps" + number(hevc->ppsCount);
    } else if (auto* esds = dynamic_cast<const EsdsAtom*>(child)) {
      out += esds->parsed ? " " + number(esds->channels()) + "ch " + number(esds->sampleRate) + "Hz"
                          : " unknown";
    }
  }
  return out;
}

// A box of the library made in memory, its type set, added to `parent`.
template <class Box>
Box* attach(Atom* parent, const char* type) {
  AtomHeader header;
  header.type = type;
  auto* box = new Box(header);
  parent->children.push_back(box);
  return box;
}

// Every sample of a track through `seen`; the error the walk ended on, or "".
template <class Visit>
std::string walkSamples(const Track& track, Visit seen) {
  SampleWalker walker(track);
  Result<const SampleInfo*> step = walker.next();
  for (; step.ok() && *step != nullptr; step = walker.next()) seen(**step);
  return step.ok() ? "" : step.message();
}
