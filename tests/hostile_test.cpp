// Hostile and broken files: every one gets a clean answer, ends, and costs
// no more memory than a small multiple of its own size.
#include <fstream>

#include "support/alloc_tracker.h"
#include "support/test.h"

namespace {

// Reads, checks every track and walks every sample, as a player would; a
// file that reads is also written back and must read back the same.
bool survives(const Bytes& input) {
  MemoryStream stream(input);
  Mp4File file;
  if (!file.read(&stream).ok()) return false;
  for (const Track& track : findTracks(file).tracks) walkSamples(track, [](const SampleInfo&) {});
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
  const std::vector<std::string> paths = filesIn(MP4STBL_FUZZ_SEEDS, "[^.].*");
  ASSERT_FALSE(paths.empty());
  LogCapture quiet;
  for (const std::string& path : paths) {
    SCOPED_TRACE(path);
    const Bytes input = readFile(path);
    alloc_tracker::reset();
    survives(input);
    EXPECT_LE(alloc_tracker::peak(), allowance(input.size()));
  }
}

// Files made in the test: each stops at its limit with a last log line,
// within memory (a table too long for its file costs only its track); many
// small siblings all read.
TEST(Hostile, MadeFilesEndAtTheirLimitWithinMemory) {
  ByteWriter deep, siblings;
  const uint32_t many = 100000;
  for (uint32_t level = 0; level < many; ++level) {
    deep.u32(8 * (many - level)).text("moov");  // each inside the last
    siblings.u32(8).text("free");
  }
  // A tiny stbl whose stsz claims 2^28 sizes, a gigabyte of table.
  Bytes huge = ByteWriter::box("stsz", ByteWriter().u32(0).u32(0).u32(1u << 28).u32(1).bytes);
  // An stbl whose ctts claims 2^28 runs, two gigabytes in memory.
  Bytes offsets = ByteWriter::box("ctts", ByteWriter().u32(0).u32(1u << 28).u32(1).u32(0).bytes);
  for (const char* type : {"stbl", "minf", "mdia", "trak", "moov"}) {
    huge = ByteWriter::box(type, huge);
    offsets = ByteWriter::box(type, offsets);
  }
  // A fragment run that claims 2^28 sample sizes in a 24-byte box.
  const Bytes trun = ByteWriter::box("trun", ByteWriter().u32(0x200).u32(1u << 28).u32(7).bytes);
  const Bytes run = ByteWriter::box("moof", ByteWriter::box("traf", trun));
  const struct { Bytes file; bool reads; LogLine last; } cases[] = {
      {deep.bytes, false, {"MP4", 3, "box moov at offset 512 is nested deeper than 64 boxes\n"}},
      {huge, true, {"MP4", 3, "read 1073741824 bytes to stsz buf failed\n"}},
      {offsets, true, {"MP4", 3, "268435456 records of 8 bytes at offset 56 run past the box\n"}},
      {run, false, {"MP4", 3, "268435456 records of 4 bytes at offset 32 run past the box\n"}},
  };
  for (const auto& [file, reads, last] : cases) {
    LogCapture log;
    alloc_tracker::reset();
    EXPECT_EQ(survives(file), reads);
    EXPECT_LE(alloc_tracker::peak(), allowance(file.size()));
    EXPECT_EQ(log.lines().empty() ? LogLine{} : log.lines().back(), last);
  }
  EXPECT_EQ(ReadFile(siblings.bytes).file.root.children.size(), many);
}

// Boxes of no known type, at the top and inside moov, large and sparse on
// disk: read without loading their bytes, written back identical.
TEST(Hostile, LargeBoxesOfNoKnownTypeAreCopiedNotLoaded) {
  const ScratchDir dir("mp4stbl_large_free");
  const std::string path = dir / "large.mp4";
  const uint64_t freeLength = 16u << 20, skipLength = 2u << 20;
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    // ftyp, then a free box of 16 MiB, then moov holding a skip box of 2 MiB.
    const Bytes head = ByteWriter::box("ftyp", ByteWriter().text("isom").u32(0).bytes);
    const Bytes moov = ByteWriter().u32(uint32_t(8 + skipLength)).text("moov")
                           .u32(uint32_t(skipLength)).text("skip").bytes;
    const std::pair<uint64_t, Bytes> pieces[] = {
        {0, ByteWriter().append(head).u32(1).text("free").u64(freeLength).bytes},
        {head.size() + freeLength, moov},
        {head.size() + freeLength + 8 + skipLength - 1, {0x7f}}};
    for (const auto& [at, bytes] : pieces) {
      out.seekp(static_cast<std::streamoff>(at));
      out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
  }
  alloc_tracker::reset();
  {
    Mp4File file;
    ASSERT_TRUE(file.open(path).ok());
    EXPECT_LE(alloc_tracker::peak(), 3u << 19);  // less than the smaller box
    FileStream copy;
    ASSERT_EQ(copy.open(path + ".copy", FileStream::Mode::Write), 0);
    ASSERT_TRUE(file.write(&copy).ok());
    ASSERT_EQ(copy.close(), 0);
  }
  EXPECT_LE(alloc_tracker::peak(), 4u << 20);
  EXPECT_TRUE(readFile(path + ".copy") == readFile(path));
}

}  // namespace
