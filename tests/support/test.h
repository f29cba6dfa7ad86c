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

#include <mp4stbl/box/codec_config.h>
#include <mp4stbl/box/edit_boxes.h>
#include <mp4stbl/box/file_stream.h>
#include <mp4stbl/box/movie_boxes.h>
#include <mp4stbl/box/mp4file.h>
#include <mp4stbl/media/track.h>
#include <mp4stbl/stbl.h>
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
