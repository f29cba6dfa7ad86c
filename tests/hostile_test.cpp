// Hostile and broken files: every one gets a clean answer, ends, and costs
// no more memory than a small multiple of its own size.
#include <gtest/gtest.h>

#include <dirent.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "box/mp4file.h"
#include "media/track.h"
#include "support/alloc_tracker.h"
#include "support/bytes.h"
#include "support/log_capture.h"

using namespace mp4stbl;

namespace {

std::vector<std::string> filesIn(const std::string& folder) {
  std::vector<std::string> paths;
  if (DIR* dir = opendir(folder.c_str())) {
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') paths.push_back(folder + "/" + entry->d_name);
    }
    closedir(dir);
  }
  return paths;
}

Bytes load(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// Reads, checks every track and walks every sample, as a player would; a
// file that reads is also written back and must read back the same.
bool survives(const Bytes& input) {
  MemoryStream stream(input);
  Mp4File file;
  if (!file.read(&stream).ok()) return false;
  const Result<std::vector<Track>> tracks = findTracks(file);
  for (const Track& track : tracks.ok() ? *tracks : std::vector<Track>{}) {
    SampleWalker walker(track);
    for (auto step = walker.next(); step.ok() && *step != nullptr; step = walker.next()) {
    }
  }
  MemoryStream out;
  EXPECT_TRUE(file.write(&out).ok());
  MemoryStream again(out.data());
  Mp4File reread;
  EXPECT_TRUE(reread.read(&again).ok());
  MemoryStream outAgain;
  EXPECT_TRUE(reread.write(&outAgain).ok());
  EXPECT_EQ(outAgain.data(), out.data());
  return true;
}

// Boxes cost a fixed overhead beyond their bytes, so a file of many tiny
// boxes is the worst case; a table costs about its own size twice.
size_t allowance(size_t inputSize) { return 32 * inputSize + (1u << 20); }

TEST(Hostile, EveryKnownBadFileEndsCleanlyWithinMemory) {
  const std::vector<std::string> paths = filesIn(MP4STBL_FUZZ_SEEDS);
  ASSERT_FALSE(paths.empty());
  LogCapture quiet;
  for (const std::string& path : paths) {
    SCOPED_TRACE(path);
    const Bytes input = load(path);
    alloc_tracker::reset();
    survives(input);
    EXPECT_LE(alloc_tracker::peak(), allowance(input.size()));
  }
}

TEST(Hostile, DeepNestingStopsAtAFixedDepth) {
  // 100,000 moov boxes, each inside the last.
  const uint32_t depth = 100000;
  ByteWriter file;
  for (uint32_t level = 0; level < depth; ++level) file.u32(8 * (depth - level)).text("moov");
  LogCapture log;
  alloc_tracker::reset();
  EXPECT_FALSE(survives(file.bytes));
  EXPECT_LE(alloc_tracker::peak(), allowance(file.bytes.size()));
  ASSERT_FALSE(log.lines().empty());
  EXPECT_NE(log.lines().back().text.find("nested deeper than"), std::string::npos);
}

TEST(Hostile, ManySiblingsAllRead) {
  ByteWriter file;
  for (int i = 0; i < 100000; ++i) file.u32(8).text("free");
  MemoryStream stream(file.bytes);
  Mp4File read;
  ASSERT_TRUE(read.read(&stream).ok());
  EXPECT_EQ(read.root.children.size(), 100000u);
}

TEST(Hostile, HugeCountInATinyFileAllocatesNothingBig) {
  // A tiny stbl whose stsz claims 2^28 sizes, a gigabyte of table.
  const Bytes stsz = ByteWriter::box("stsz", ByteWriter().u32(0).u32(0).u32(1u << 28).u32(1).bytes);
  const Bytes file = ByteWriter::box(
      "moov", ByteWriter::box("trak", ByteWriter::box("mdia", ByteWriter::box(
                                                                  "minf", ByteWriter::box("stbl", stsz)))));
  LogCapture log;
  alloc_tracker::reset();
  EXPECT_FALSE(survives(file));
  EXPECT_LE(alloc_tracker::peak(), allowance(file.size()));
  ASSERT_FALSE(log.lines().empty());
  EXPECT_EQ(log.lines().back(), (LogLine{"MP4", 3, "read 1073741824 bytes to stsz buf failed\n"}));
}

}  // namespace
