// Whole files: the shipped encoder output read and written back byte for
// byte with its entries typed (the wider corpus runs in cli_test.cpp against
// ffprobe), and a file built past 4 GiB.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "box/file_stream.h"
#include "box/mp4file.h"
#include "stbl.h"
#include "support/bytes.h"

using namespace mp4stbl;

namespace {

Bytes slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A sample entry's coding and the fields that ffmpeg or a test sets.
std::string describe(Atom* entry) {
  std::ostringstream out;
  out << entry->header.type;
  if (auto* video = dynamic_cast<VisualSampleEntry*>(entry)) {
    out << " " << video->width << "x" << video->height << " ref" << video->dataReferenceIndex;
  } else if (auto* audio = dynamic_cast<AudioSampleEntry*>(entry)) {
    out << " " << audio->channelCount << "ch " << (audio->sampleRate >> 16) << "Hz "
        << audio->sampleSize << "bit v" << audio->soundVersion << " ref"
        << audio->dataReferenceIndex;
  }
  return out.str();
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
    const Bytes original = slurp(path);
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
