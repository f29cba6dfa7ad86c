// Whole files: the shipped encoder output read and written back byte for
// byte with its entries typed (the wider corpus runs in cli_test.cpp against
// ffprobe), saved to disk, and files built past 4 GiB.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "box/file_stream.h"
#include "box/mp4file.h"
#include "stbl.h"
#include "support/bytes.h"
#include "support/log_capture.h"

using namespace mp4stbl;

namespace {

// A sample entry's coding and the fields that ffmpeg or a test sets.
std::string describe(Atom* entry) {
  std::string out = entry->header.type;
  if (auto* video = dynamic_cast<VisualSampleEntry*>(entry)) {
    out += " " + std::to_string(video->width) + "x" + std::to_string(video->height) + " ref" +
           std::to_string(video->dataReferenceIndex);
  } else if (auto* audio = dynamic_cast<AudioSampleEntry*>(entry)) {
    out += " " + std::to_string(audio->channelCount) + "ch " + std::to_string(audio->sampleRate >> 16) +
           "Hz " + std::to_string(audio->sampleSize) + "bit v" + std::to_string(audio->soundVersion) +
           " ref" + std::to_string(audio->dataReferenceIndex);
  }
  return out;
}

// The sample entries of the shipped files, track by track. ffmpeg writes the
// fixed channel count 2 of the ISO audio entry into .mp4 files whatever the
// source has; QuickTime's AAC is sound version 1.
const std::map<std::string, std::vector<std::string>> kEntries = {
    {"h264_aac.mp4", {"avc1 96x64 ref1", "mp4a 2ch 22050Hz 16bit v0 ref1"}},
    {"hevc.mp4", {"hvc1 64x48 ref1"}},
    {"prores_apcn.mov", {"apcn 64x48 ref1"}},
    {"prores_apch_aac.mov", {"apch 64x48 ref1", "mp4a 1ch 22050Hz 16bit v1 ref1"}},
};

// Every shipped file is read with its sample entries typed and written back
// byte for byte (the command's tests check every file in data/).
TEST(RealFiles, ShippedFilesRoundTripWithTypedEntries) {
  for (const auto& [name, entries] : kEntries) {
    const std::string path = std::string(MP4STBL_TEST_DATA) + "/" + name;
    SCOPED_TRACE(path);
    Mp4File file;
    ASSERT_TRUE(file.open(path).ok());
    MemoryStream out;
    ASSERT_TRUE(file.write(&out).ok());
    const Bytes original = readFile(path);
    const auto diff =
        std::mismatch(original.begin(), original.end(), out.data().begin(), out.data().end());
    EXPECT_TRUE(diff.first == original.end() && diff.second == out.data().end())
        << "first difference at offset " << (diff.first - original.begin());
    std::vector<std::string> seen;
    for (Atom* stsd : file.find("moov/trak/mdia/minf/stbl/stsd")) {
      for (Atom* entry : stsd->children) seen.push_back(describe(entry));
    }
    EXPECT_EQ(seen, entries);
  }
}

// A save writes a new file whole, through a temporary beside it; it refuses
// the file being read, however spelled, and leaves no partial file behind.
TEST(RealFiles, SaveWritesANewFileOrNothing) {
  namespace fs = std::filesystem;
  const std::string dir = ::testing::TempDir() + "mp4stbl_save", source = dir + "/clip.mp4";
  LogCapture quiet;
  fs::remove_all(dir);
  fs::create_directories(dir + "/adir");
  fs::copy_file(std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4", source);
  std::ofstream(dir + "/old.mp4") << "old";
  const Bytes original = readFile(source);
  Mp4File file;
  ASSERT_TRUE(file.open(source).ok());
  const std::pair<std::string, bool> cases[] = {
      {dir + "/copy.mp4", true},          {source, false},
      {dir + "/./clip.mp4", false},       {dir + "/adir/../clip.mp4", false},
      {dir + "/missing/out.mp4", false},  {dir + "/adir", false},
  };
  for (const auto& [target, ok] : cases) {
    EXPECT_EQ(file.save(target).ok(), ok) << target;
    EXPECT_EQ(readFile(source), original) << target;
  }
  EXPECT_EQ(readFile(dir + "/copy.mp4"), original);
  EXPECT_TRUE(fs::is_directory(dir + "/adir"));
  // A tree that cannot be written leaves the file it would replace as it was.
  file.root.children.front()->header.type = "ftyp!";
  EXPECT_FALSE(file.save(dir + "/old.mp4").ok());
  EXPECT_EQ(readFile(dir + "/old.mp4"), (Bytes{'o', 'l', 'd'}));
  std::set<std::string> left;
  for (const auto& entry : fs::directory_iterator(dir)) left.insert(entry.path().filename());
  EXPECT_EQ(left, (std::set<std::string>{"adir", "clip.mp4", "copy.mp4", "old.mp4"}));
  fs::remove_all(dir);
}

// The open file may be named like the temporary a save makes beside its
// target: saving must neither write over it nor remove it.
TEST(RealFiles, SaveKeepsAnOpenFileNamedLikeItsTemporary) {
  namespace fs = std::filesystem;
  const std::string dir = ::testing::TempDir() + "mp4stbl_part", source = dir + "/clip.mp4.part";
  LogCapture quiet;
  fs::remove_all(dir);
  fs::create_directories(dir);
  fs::copy_file(std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4", source);
  const Bytes original = readFile(source);
  Mp4File file;
  ASSERT_TRUE(file.open(source).ok());
  const bool saved = file.save(dir + "/clip.mp4").ok();
  EXPECT_EQ(readFile(source), original);
  EXPECT_EQ(readFile(dir + "/clip.mp4"), saved ? original : Bytes{});
  fs::remove_all(dir);
}

// Wraps `inner` in boxes of the given types, the last type innermost.
Bytes nest(const std::vector<std::string>& types, Bytes inner) {
  for (auto type = types.rbegin(); type != types.rend(); ++type) {
    inner = ByteWriter::box(*type, inner);
  }
  return inner;
}

// The body of a huge media data box: a hole up to each chunk, then a marker.
class SparseMedia : public Atom {
 public:
  SparseMedia(const AtomHeader& header, std::vector<uint64_t> chunks)
      : Atom(header), chunks_(std::move(chunks)) {}
  int writeData(IOStream* stream) override {
    for (size_t i = 0; i < chunks_.size(); ++i) {
      if (stream->seek(static_cast<long long>(chunks_[i])) != 0) return -1;
      if (stream->writeBe32(marker(i)) != 4) return -1;
    }
    return 0;
  }
  static uint32_t marker(size_t i) { return 0xC0DE0000u + static_cast<uint32_t>(i); }

 private:
  std::vector<uint64_t> chunks_;
};

// Takes writes and seeks anywhere and keeps only the offsets.
class CountingStream : public IOStream {
 public:
  int read(unsigned char*, unsigned) override { return -1; }
  int write(const unsigned char*, unsigned count) override {
    return seek(at_ + count) == 0 ? static_cast<int>(count) : -1;
  }
  int seek(long long offset) override {
    at_ = offset;
    end_ = std::max(end_, at_);
    return 0;
  }
  long long getOffset() override { return at_; }
  long long getLength() override { return end_; }

 private:
  long long at_ = 0, end_ = 0;
};

// A box past 4 GiB is written with a 16-byte header or refused.
TEST(BuiltFile, BoxPastFourGigabytesNeedsALargeHeader) {
  for (uint32_t size : {0u, 1u}) {
    AtomHeader header;
    header.type = "mdat";
    header.size = size;
    SparseMedia media(header, {1ull << 32});
    CountingStream out;
    LogCapture log;
    EXPECT_EQ(media.Write(&out), size == 1 ? 0 : -1);
    const LogLine refusal{"MP4", 3, "box mdat of 4294967300 bytes needs a 64-bit size\n"};
    EXPECT_EQ(log.lines(), size == 1 ? std::vector<LogLine>() : std::vector<LogLine>{refusal});
  }
}

// A file built with the library, its media data box large and sparse with a
// marker at each chunk past 4 GiB: the co64 read back must find every one.
TEST(BuiltFile, Co64OffsetsPastFourGigabytesInASparseFile) {
  const std::vector<uint64_t> chunks = {(1ull << 32) + 0x10, (5ull << 30) + 3, (6ull << 30) - 4};
  AtomHeader header;
  header.type = "co64";
  Co64Atom co64(header);
  for (uint64_t offset : chunks) co64.addEntry(offset);
  MemoryStream table;
  ASSERT_EQ(co64.Write(&table), 0);
  Atom root{AtomHeader()};
  auto* moov = new UserDefAtom(AtomHeader());
  moov->header.type = "moov";
  moov->body = nest({"trak", "mdia", "minf", "stbl"}, table.data());
  header.type = "mdat";
  header.size = 1;
  root.children = {moov, new SparseMedia(header, chunks)};
  const std::string path = ::testing::TempDir() + "mp4stbl_sparse.mp4";
  FileStream out;
  ASSERT_EQ(out.open(path, FileStream::Mode::Write), 0);
  ASSERT_EQ(root.writeChildren(&out), 0);
  ASSERT_EQ(out.close(), 0);

  Mp4File file;
  ASSERT_TRUE(file.open(path).ok());
  const auto* mdat = dynamic_cast<MdatAtom*>(file.find("mdat").at(0));
  ASSERT_NE(mdat, nullptr);
  EXPECT_TRUE(mdat->header.isLarge());
  EXPECT_EQ(mdat->header.headerOffset + mdat->header.largeSize, chunks.back() + 4);
  EXPECT_EQ(mdat->bodyOffset, mdat->header.headerOffset + 16);
  auto* read = dynamic_cast<Co64Atom*>(file.find("moov/trak/mdia/minf/stbl/co64").at(0));
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->entries, chunks);
  FileStream in;
  ASSERT_EQ(in.open(path, FileStream::Mode::Read), 0);
  for (size_t i = 0; i < chunks.size(); ++i) {
    unsigned long long pos = 0;
    uint32_t marker = 0;
    read->getPosByNO(static_cast<uint32_t>(i + 1), &pos);
    ASSERT_EQ(in.seek(static_cast<long long>(pos)), 0);
    EXPECT_EQ(in.readBe32(&marker), 4);
    EXPECT_EQ(marker, SparseMedia::marker(i)) << "chunk " << i + 1;
  }
  std::remove(path.c_str());
}

}  // namespace
