// Whole files: the shipped encoder output read and written back byte for
// byte (the command's tests compare it and a wider corpus with ffprobe),
// saved to disk, and files built past 4 GiB.
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <fstream>

#include "support/test.h"

namespace {

// Every shipped file reads and is written back byte for byte (the command's
// tests compare what it holds, entry by entry, with ffprobe).
TEST(RealFiles, ShippedFilesRoundTrip) {
  const std::vector<std::string> files = filesIn(MP4STBL_TEST_DATA, ".*\\.(mp4|mov)");
  ASSERT_GE(files.size(), 5u);
  for (const std::string& path : files) {
    SCOPED_TRACE(path);
    EXPECT_TRUE(ReadFile(readFile(path)).status.ok());
  }
}

// A save writes a new file whole, unnamed until it is linked into place;
// it refuses the file being read, however spelled, and what is not a
// regular file, and leaves no partial file behind. A file at the target is
// replaced whole. The open file may be named like the temporary a save
// makes beside its target: saving must neither write over it nor remove it.
TEST(RealFiles, SaveWritesANewFileOrNothing) {
  const ScratchDir dir("mp4stbl_save");
  const std::string source = dir / "clip.mp4", part = dir / "part.mp4.part";
  LogCapture quiet;
  fs::create_directories(dir / "adir");
  fs::copy_file(std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4", source);
  fs::copy_file(source, part);
  std::ofstream(dir / "old.mp4") << "old";
  std::ofstream(dir / "replaced.mp4") << "replaced";
  const Bytes original = readFile(source);
  Mp4File file, partFile;
  ASSERT_TRUE(file.open(source).ok() && partFile.open(part).ok());
  const std::pair<std::string, std::string> cases[] = {
      {dir / "copy.mp4", ""},
      {dir / "replaced.mp4", ""},
      {source, "cannot be written over while it is read"},
      {dir / "./clip.mp4", "cannot be written over while it is read"},
      {dir / "adir/../clip.mp4", "cannot be written over while it is read"},
      {dir / "missing/out.mp4", "cannot be created: No such file or directory"},
      {dir / "adir", "is not a regular file"},
      {"/dev/null", "is not a regular file"},
  };
  for (const auto& [target, refusal] : cases) {
    const Status saved = file.save(target);
    EXPECT_EQ(saved.message(), refusal.empty() ? "" : target + ": " + refusal);
    EXPECT_EQ(readFile(source), original) << target;
  }
  EXPECT_EQ(readFile(dir / "copy.mp4"), original);
  EXPECT_EQ(readFile(dir / "replaced.mp4"), original);
  EXPECT_TRUE(fs::is_directory(dir / "adir"));
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
  const bool saved = partFile.save(dir / "part.mp4").ok();
  EXPECT_EQ(readFile(part), original);
  EXPECT_EQ(readFile(dir / "part.mp4"), saved ? original : Bytes{});
  // A tree that cannot be written leaves the file it would replace as it was.
  file.root.children.front()->header.type = "ftyp!";
  EXPECT_FALSE(file.save(dir / "old.mp4").ok());
  EXPECT_EQ(readFile(dir / "old.mp4"), (Bytes{'o', 'l', 'd'}));
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"adir", "clip.mp4", "copy.mp4", "old.mp4",
                                                   "part.mp4", "part.mp4.part", "replaced.mp4"}));
}

// A write the system refuses says why, as the system puts it: a device
// with no room (/dev/full) fails a write past the stream's buffer and the
// flush of a buffered one; a file past the process's size limit fails its
// save with the reason first, then what was being written, and leaves
// nothing behind.
TEST(RealFiles, WriteFailuresGiveTheSystemsReason) {
  LogCapture quiet;
  const std::vector<unsigned char> block(2u << 20);
  FileStream full;
  ASSERT_EQ(full.open("/dev/full", FileStream::Mode::Write), 0);
  EXPECT_EQ(full.write(block.data(), static_cast<unsigned>(block.size())), -1);
  EXPECT_EQ(full.error(), ENOSPC);
  ASSERT_EQ(full.open("/dev/full", FileStream::Mode::Write), 0);
  EXPECT_EQ(full.error(), 0);
  EXPECT_EQ(full.write(block.data(), 10), 10);
  EXPECT_EQ(full.close(), -1);
  EXPECT_EQ(full.error(), ENOSPC);

  const ScratchDir dir("mp4stbl_limit");
  Mp4File file;
  ASSERT_TRUE(file.open(std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4").ok());
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto previous = std::signal(SIGXFSZ, SIG_IGN);
  rlimit small = before;
  small.rlim_cur = 4096;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const Status saved = file.save(dir / "big.mp4");
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, previous);
  EXPECT_EQ(saved.message().rfind(dir / "big.mp4: cannot be written: File too large (detail: ", 0),
            0u) << saved.message();
  EXPECT_EQ(dir.names(), std::vector<std::string>());
}

// Room claimed ahead for the media does not lengthen the file: a job that
// stops early leaves no tail of zeros, and the bytes land where written.
TEST(RealFiles, ReservedRoomIsNotLength) {
  const ScratchDir dir("mp4stbl_reserve");
  const std::string path = dir / "out.mp4";
  FileStream out;
  ASSERT_EQ(out.open(path, FileStream::Mode::Write), 0);
  const unsigned char head[] = {1, 2, 3}, tail[] = {4, 5};
  ASSERT_EQ(out.write(head, 3), 3);
  out.reserve(8u << 20);
  ASSERT_EQ(out.write(tail, 2), 2);
  ASSERT_EQ(out.close(), 0);
  EXPECT_EQ(readFile(path), (Bytes{1, 2, 3, 4, 5}));
}

// A huge media data box with a 32-bit (`size` 0) or 64-bit (1) header: a
// hole up to each chunk, then a marker.
class SparseMedia : public Atom {
 public:
  SparseMedia(uint32_t size, std::vector<uint64_t> chunks) : Atom(AtomHeader()), chunks_(chunks) {
    header.type = "mdat";
    header.size = size;
  }
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
// With a 32-bit header the box is refused.
TEST(BuiltFile, Co64OffsetsPastFourGigabytesInASparseFile) {
  const std::vector<uint64_t> chunks = {(1ull << 32) + 0x10, (5ull << 30) + 3, (6ull << 30) - 4};
  Bytes moov = ByteWriter::fullBox("co64", 0, 0, ByteWriter().u32(3).u64(chunks[0]).u64(chunks[1])
                                                     .u64(chunks[2]).bytes);
  for (const char* type : {"stbl", "minf", "mdia", "trak"}) moov = ByteWriter::box(type, moov);
  const ScratchDir dir("mp4stbl_sparse");
  const std::string path = dir / "sparse.mp4";
  const uint64_t mdatAt = 8 + moov.size(), mdatSize = chunks.back() + 4 - mdatAt;
  for (uint32_t size : {0u, 1u}) {
    Atom root{AtomHeader()};
    attach<UserDefAtom>(&root, "moov")->body = moov;
    root.children.push_back(new SparseMedia(size, chunks));
    FileStream out;
    ASSERT_EQ(out.open(path, FileStream::Mode::Write), 0);
    LogCapture log;
    EXPECT_EQ(root.writeChildren(&out), size == 1 ? 0 : -1);
    const LogLine refusal{"MP4", 3, "box mdat of " + std::to_string(mdatSize) + " bytes needs a 64-bit size\n"};
    EXPECT_EQ(log.lines(), size == 1 ? std::vector<LogLine>() : std::vector<LogLine>{refusal});
    ASSERT_EQ(out.close(), 0);
  }
  Mp4File file;
  ASSERT_TRUE(file.open(path).ok());
  const auto* mdat = dynamic_cast<MdatAtom*>(file.find("mdat").at(0));
  ASSERT_NE(mdat, nullptr);
  EXPECT_EQ(std::make_tuple(mdat->header.isLarge(), mdat->header.largeSize, mdat->bodyOffset),
            std::make_tuple(true, mdatSize, mdatAt + 16));
  auto* read = dynamic_cast<Co64Atom*>(file.find("moov/trak/mdia/minf/stbl/co64").at(0));
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->entries, chunks);
  FileStream in;
  ASSERT_EQ(in.open(path, FileStream::Mode::Read), 0);
  for (size_t i = 0; i < chunks.size(); ++i) {
    unsigned long long pos = 0;
    uint32_t marker = 0;
    read->getPosByNO(static_cast<uint32_t>(i + 1), &pos);
    EXPECT_TRUE(in.seek(static_cast<long long>(pos)) == 0 && in.readBe32(&marker) == 4);
    EXPECT_EQ(marker, SparseMedia::marker(i)) << "chunk " << i + 1;
  }
}

}  // namespace
