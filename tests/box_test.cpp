// The box layer: streams, headers, the generic box reader and writer, log
// and memory helpers.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "box/atom.h"
#include "box/iostream.h"
#include "box/log.h"
#include "box/memory.h"
#include "support/bytes.h"
#include "support/fault_stream.h"
#include "support/log_capture.h"

namespace {

std::string text(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// A container whose children are opaque boxes, for the generic reader.
class TestContainer : public Atom {
 public:
  using Atom::Atom;
  Atom* ReadChild(IOStream* stream) override {
    AtomHeader childHeader;
    if (childHeader.Read(stream) != 0) return nullptr;
    Atom* child = childHeader.type == "cont" ? static_cast<Atom*>(new TestContainer(childHeader))
                                             : new UserDefAtom(childHeader);
    if (child->ReadContent(stream) != 0) {
      delete child;
      return nullptr;
    }
    return child;
  }
};

// A leaf that reads a fixed number of bytes, whatever its box holds.
class FixedLeaf : public Atom {
 public:
  FixedLeaf(const AtomHeader& header, unsigned want) : Atom(header), want_(want) {}
  int readData(IOStream* stream) override {
    Bytes buffer(want_);
    return stream->readBytes(buffer.data(), want_) == static_cast<int>(want_) ? 0 : -1;
  }

 private:
  unsigned want_;
};

// ---- streams ----

TEST(IOStream, WritesEveryWidthBigEndian) {
  MemoryStream out;
  EXPECT_EQ(out.writeByte(0xA1), 1);
  EXPECT_EQ(out.writeBe16(0xB1B2), 2);
  EXPECT_EQ(out.writeBe24(0xFFC1C2C3), 3);  // only the low 24 bits
  EXPECT_EQ(out.writeBe32(0xD1D2D3D4), 4);
  EXPECT_EQ(out.write64(0xE1E2E3E4E5E6E7E8ull), 8);
  const unsigned char raw[] = {1, 2};
  EXPECT_EQ(out.writeBytes(raw, 2), 2);
  EXPECT_EQ(out.data(), (Bytes{0xA1, 0xB1, 0xB2, 0xC1, 0xC2, 0xC3, 0xD1, 0xD2, 0xD3, 0xD4, 0xE1,
                               0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8, 1, 2}));

  MemoryStream in(out.data());
  uint8_t u8 = 0;
  uint16_t u16 = 0;
  uint32_t u24 = 0, u32 = 0;
  unsigned long long u64 = 0;
  unsigned char two[2] = {};
  EXPECT_EQ(in.readByte(&u8), 1);
  EXPECT_EQ(in.readBe16(&u16), 2);
  EXPECT_EQ(in.readBe24(&u24), 3);
  EXPECT_EQ(in.readBe32(&u32), 4);
  EXPECT_EQ(in.readBe64(&u64), 8);
  EXPECT_EQ(in.readBytes(two, 2), 2);
  EXPECT_EQ(u8, 0xA1);
  EXPECT_EQ(u16, 0xB1B2);
  EXPECT_EQ(u24, 0xC1C2C3u);
  EXPECT_EQ(u32, 0xD1D2D3D4u);
  EXPECT_EQ(u64, 0xE1E2E3E4E5E6E7E8ull);
  EXPECT_EQ(two[1], 2);
}

TEST(IOStream, ShortReadsReturnTheCountAndKeepTheValue) {
  MemoryStream in(Bytes{0x12, 0x34, 0x56});
  uint32_t value = 7;
  EXPECT_EQ(in.readBe32(&value), 3);
  EXPECT_EQ(value, 7u);
  EXPECT_EQ(in.readBe32(&value), 0);

  FaultStream failing(Bytes{1, 2, 3, 4});
  failing.failCall(1);
  EXPECT_EQ(failing.readBe32(&value), -1);
  EXPECT_EQ(value, 7u);
}

TEST(IOStream, ReadBytesGathersPiecesOfAShortReadingStream) {
  // A stream that hands out one byte per call still fills the whole buffer.
  class Trickle : public MemoryStream {
   public:
    using MemoryStream::MemoryStream;
    int read(unsigned char* buffer, unsigned count) override {
      return MemoryStream::read(buffer, count > 0 ? 1 : 0);
    }
  } trickle(Bytes{9, 8, 7, 6, 5});
  unsigned char buffer[5] = {};
  EXPECT_EQ(trickle.readBytes(buffer, 5), 5);
  EXPECT_EQ(buffer[4], 5);
}

TEST(IOStream, SwapsArraysInPlace) {
  Bytes words = ByteWriter().u32(0x01020304).u32(0xFFFFFFFE).bytes;
  uint32_t array32[2];
  std::memcpy(array32, words.data(), 8);
  MemoryStream stream;
  stream.swapArrayOfBe32(array32, 2);
  EXPECT_EQ(array32[0], 0x01020304u);
  EXPECT_EQ(array32[1], 0xFFFFFFFEu);

  Bytes wide = ByteWriter().u64(0x0000000100000002ull).bytes;
  unsigned long long array64[1];
  std::memcpy(array64, wide.data(), 8);
  stream.swapArrayOfBe64(array64, 1);
  EXPECT_EQ(array64[0], 0x0000000100000002ull);
}

TEST(MemoryStream, WritesOverwriteOrExtendAndSeekStaysInside) {
  MemoryStream stream(Bytes{1, 2, 3});
  EXPECT_EQ(stream.getLength(), 3);
  EXPECT_EQ(stream.seek(2), 0);
  const unsigned char more[] = {9, 9};
  EXPECT_EQ(stream.write(more, 2), 2);
  EXPECT_EQ(stream.data(), (Bytes{1, 2, 9, 9}));
  EXPECT_EQ(stream.getOffset(), 4);
  EXPECT_EQ(stream.seek(5), -1);
  EXPECT_EQ(stream.seek(-1), -1);
  EXPECT_EQ(stream.seek(4), 0);
}

class FileStreamTest : public ::testing::Test {
 protected:
  std::string path(const std::string& name) {
    return ::testing::TempDir() + "mp4stbl_" + name;
  }
};

TEST_F(FileStreamTest, WritesAndReadsBack) {
  const std::string file = path("plain.bin");
  {
    FileStream out;
    ASSERT_EQ(out.open(file, FileStream::Mode::Write), 0);
    EXPECT_EQ(out.writeBe32(0xCAFEF00D), 4);
    EXPECT_EQ(out.seek(0), 0);  // patch in place, as a box writer does
    EXPECT_EQ(out.writeByte(0x0D), 1);
    EXPECT_EQ(out.getLength(), 4);
    EXPECT_EQ(out.close(), 0);
  }
  FileStream in;
  ASSERT_EQ(in.open(file, FileStream::Mode::Read), 0);
  EXPECT_EQ(in.getLength(), 4);
  uint32_t value = 0;
  EXPECT_EQ(in.readBe32(&value), 4);
  EXPECT_EQ(value, 0x0DFEF00Du);
  EXPECT_EQ(in.readBe32(&value), 0);
  EXPECT_EQ(in.seek(5), -1);
  std::remove(file.c_str());
}

TEST_F(FileStreamTest, OffsetsPastFourGigabytes) {
  // A sparse file: only the last eight bytes take disk space.
  const std::string file = path("sparse.bin");
  const long long far = 5LL << 30;
  {
    FileStream out;
    ASSERT_EQ(out.open(file, FileStream::Mode::Write), 0);
    ASSERT_EQ(out.seek(far), 0);
    EXPECT_EQ(out.write64(0x1122334455667788ull), 8);
    EXPECT_EQ(out.getOffset(), far + 8);
  }
  FileStream in;
  ASSERT_EQ(in.open(file, FileStream::Mode::Read), 0);
  EXPECT_EQ(in.getLength(), far + 8);
  ASSERT_EQ(in.seek(far), 0);
  unsigned long long value = 0;
  EXPECT_EQ(in.readBe64(&value), 8);
  EXPECT_EQ(value, 0x1122334455667788ull);
  std::remove(file.c_str());
}

TEST_F(FileStreamTest, OpenFailureIsLoggedNotThrown) {
  LogCapture log;
  FileStream stream;
  EXPECT_EQ(stream.open(path("missing/dir/file"), FileStream::Mode::Read), -1);
  EXPECT_FALSE(stream.isOpen());
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].tag, "IO");
  EXPECT_EQ(log.lines()[0].level, 3);
  EXPECT_EQ(stream.getLength(), -1);
  EXPECT_EQ(stream.readBe32(nullptr), -1);
}

TEST(BoundedStream, StopsAtItsEndAndKeepsRealOffsets) {
  MemoryStream base(Bytes{0, 1, 2, 3, 4, 5, 6, 7});
  base.seek(2);
  BoundedStream window(&base, 5);
  BoundedStream inner(&window, 7);  // cannot widen the outer window
  EXPECT_EQ(inner.getLength(), 5);
  EXPECT_EQ(inner.depth(), 1u);
  unsigned char buffer[8] = {};
  EXPECT_EQ(inner.readBytes(buffer, 8), 3);
  EXPECT_EQ(buffer[0], 2);
  EXPECT_EQ(inner.getOffset(), 5);
  EXPECT_EQ(inner.seek(6), -1);
  EXPECT_EQ(inner.writeByte(1), -1);
}

// ---- headers ----

struct HeaderCase {
  const char* name;
  Bytes bytes;
  int result;
  uint32_t size;
  uint64_t largeSize;
  uint64_t boxLength;
};

void PrintTo(const HeaderCase& c, std::ostream* out) { *out << c.name; }

class HeaderRead : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(HeaderRead, ParsesOrRefuses) {
  const HeaderCase& c = GetParam();
  LogCapture log;
  Bytes input = ByteWriter().text("pad!").append(c.bytes).bytes;
  MemoryStream stream(input);
  stream.seek(4);
  AtomHeader header;
  EXPECT_EQ(header.Read(&stream), c.result);
  if (c.result == 0) {
    EXPECT_EQ(header.type, "abcd");
    EXPECT_EQ(header.size, c.size);
    EXPECT_EQ(header.largeSize, c.largeSize);
    EXPECT_EQ(header.boxLength(), c.boxLength);
    EXPECT_EQ(header.headerOffset, 4u);
    EXPECT_TRUE(log.lines().empty());
  } else {
    EXPECT_EQ(header.type, "0000");  // nothing stored on failure
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, 3);
  }
}

Bytes zeros(size_t n) { return Bytes(n, 0); }

INSTANTIATE_TEST_SUITE_P(
    Cases, HeaderRead,
    ::testing::Values(
        HeaderCase{"Compact", ByteWriter().u32(12).text("abcd").u32(0).bytes, 0, 12, 0, 12},
        HeaderCase{"Large", ByteWriter().u32(1).text("abcd").u64(20).u32(0).bytes, 0, 1, 20, 20},
        HeaderCase{"ToEnd", ByteWriter().u32(0).text("abcd").append(zeros(6)).bytes, 0, 0, 14,
                   14},
        HeaderCase{"EmptyBody", ByteWriter().u32(8).text("abcd").bytes, 0, 8, 0, 8},
        HeaderCase{"SizeBelowHeader", ByteWriter().u32(7).text("abcd").bytes, -1, 0, 0, 0},
        HeaderCase{"LargeBelowHeader", ByteWriter().u32(1).text("abcd").u64(15).bytes, -1, 0, 0,
                   0},
        HeaderCase{"PastTheEnd", ByteWriter().u32(13).text("abcd").u32(0).bytes, -1, 0, 0, 0},
        HeaderCase{"LargePastTheEnd", ByteWriter().u32(1).text("abcd").u64(1ull << 62).bytes, -1,
                   0, 0, 0},
        HeaderCase{"Truncated", ByteWriter().u32(16).text("ab").bytes, -1, 0, 0, 0},
        HeaderCase{"TruncatedLargeSize", ByteWriter().u32(1).text("abcd").u32(0).bytes, -1, 0, 0,
                   0}),
    [](const ::testing::TestParamInfo<HeaderCase>& info) { return info.param.name; });

TEST(AtomHeader, DefaultsAndNullStream) {
  AtomHeader header;
  EXPECT_EQ(header.type, "0000");
  EXPECT_EQ(header.size, 0u);
  EXPECT_EQ(header.largeSize, 0u);
  EXPECT_EQ(header.headerOffset, 0u);
  LogCapture log;
  EXPECT_EQ(header.Read(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.only(), "Read"));
}

TEST(AtomHeader, ToEndNeedsAKnownLength) {
  FaultStream stream(ByteWriter().u32(0).text("abcd").bytes);
  stream.hideLength();
  LogCapture log;
  AtomHeader header;
  EXPECT_EQ(header.Read(&stream), -1);
  EXPECT_EQ(log.lines().size(), 1u);
}

// ---- the generic box reader and writer ----

TEST(Atom, ReadsATreeAndWritesItBackByteForByte) {
  const Bytes leafA = ByteWriter::box("aaaa", Bytes{1, 2, 3});
  const Bytes inner = ByteWriter::box("cont", ByteWriter::box("bbbb", Bytes{}));
  const Bytes tree = ByteWriter::box("cont", ByteWriter().append(leafA).append(inner).bytes);
  MemoryStream in(tree);
  TestContainer root{AtomHeader()};
  ASSERT_EQ(root.Read(&in), 0);
  ASSERT_EQ(root.children.size(), 2u);
  EXPECT_EQ(root.children.front()->header.type, "aaaa");
  EXPECT_EQ(static_cast<UserDefAtom*>(root.children.front())->body, (Bytes{1, 2, 3}));
  EXPECT_EQ(root.children.back()->children.size(), 1u);
  EXPECT_EQ(root.children.back()->children.front()->header.headerOffset, 27u);
  EXPECT_EQ(in.getOffset(), static_cast<long long>(tree.size()));

  MemoryStream out;
  ASSERT_EQ(root.Write(&out), 0);
  EXPECT_EQ(out.data(), tree);

  MemoryStream dump;
  ASSERT_EQ(root.Dump(&dump, 0), 0);
  EXPECT_EQ(text(dump.data()),
            "cont size=35 offset=0\n"
            "  aaaa size=11 offset=8\n"
            "  cont size=16 offset=19\n"
            "    bbbb size=8 offset=27\n");
}

TEST(Atom, SizeWrittenIsTheBytesWrittenWhateverTheHeaderSays) {
  AtomHeader header;
  header.type = "free";
  header.size = 999;
  UserDefAtom box(header);
  box.body = {7, 7};
  MemoryStream out;
  ASSERT_EQ(box.Write(&out), 0);
  EXPECT_EQ(out.data(), ByteWriter::box("free", Bytes{7, 7}));
  EXPECT_EQ(box.header.size, 999u);
}

TEST(Atom, LargeAndToEndHeadersKeepTheirForm) {
  const Bytes large = ByteWriter().u32(1).text("mdat").u64(19).text("abc").bytes;
  const Bytes toEnd = ByteWriter().u32(0).text("mdat").text("abc").bytes;
  for (const Bytes& original : {large, toEnd}) {
    MemoryStream in(original);
    UserDefAtom box{AtomHeader()};
    ASSERT_EQ(box.Read(&in), 0);
    EXPECT_EQ(box.body, (Bytes{'a', 'b', 'c'}));
    MemoryStream out;
    ASSERT_EQ(box.Write(&out), 0);
    EXPECT_EQ(out.data(), original);
  }
}

TEST(Atom, IncreaseSizeGrowsTheSizeInUse) {
  AtomHeader compact;
  compact.size = 16;
  Atom small(compact);
  small.IncreaseSize(8);
  EXPECT_EQ(small.header.size, 24u);

  AtomHeader wide;
  wide.size = 1;
  wide.largeSize = 1ull << 33;
  Atom large(wide);
  large.IncreaseSize(8);
  EXPECT_EQ(large.header.size, 1u);
  EXPECT_EQ(large.header.largeSize, (1ull << 33) + 8);
}

TEST(Atom, DefaultsReadNothingWriteNothingAndHaveNoChildren) {
  Atom plain{AtomHeader()};
  MemoryStream stream(Bytes{1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_EQ(plain.readData(&stream), 0);
  EXPECT_EQ(plain.writeData(&stream), 0);
  EXPECT_EQ(plain.ReadChild(&stream), nullptr);
  EXPECT_EQ(stream.getOffset(), 0);
  EXPECT_EQ(plain.auxWord, 0u);
  EXPECT_TRUE(plain.children.empty());
}

TEST(Atom, LeafResumesAtItsEndAfterAShortBody) {
  // The body reads 2 of its 6 bytes; the next box must still be found.
  const Bytes file = ByteWriter()
                         .append(ByteWriter::box("leaf", Bytes{1, 2, 3, 4, 5, 6}))
                         .append(ByteWriter::box("next", Bytes{}))
                         .bytes;
  MemoryStream in(file);
  AtomHeader header;
  ASSERT_EQ(header.Read(&in), 0);
  FixedLeaf leaf(header, 2);
  ASSERT_EQ(leaf.ReadContent(&in), 0);
  EXPECT_EQ(in.getOffset(), 14);
  EXPECT_TRUE(leaf.children.empty());
}

TEST(Atom, BodyNeverReadsPastItsBox) {
  // The leaf wants 8 bytes but its box holds 4; the bytes after the box
  // must not be taken.
  const Bytes file = ByteWriter()
                         .append(ByteWriter::box("leaf", Bytes{1, 2, 3, 4}))
                         .append(ByteWriter::box("next", Bytes{5, 6, 7, 8}))
                         .bytes;
  MemoryStream in(file);
  AtomHeader header;
  ASSERT_EQ(header.Read(&in), 0);
  FixedLeaf leaf(header, 8);
  EXPECT_EQ(leaf.ReadContent(&in), -1);
}

TEST(Atom, ChildFailuresFailTheParent) {
  struct Case {
    const char* name;
    Bytes body;
  };
  const Case cases[] = {
      {"child larger than parent", ByteWriter().u32(100).text("aaaa").bytes},
      {"child size below its header", ByteWriter().u32(4).text("aaaa").bytes},
      {"trailing bytes too few for a header", ByteWriter().u32(8).text("aaaa").u32(0).bytes},
      {"child size 0 runs to the parent's end",
       ByteWriter().u32(0).text("cont").u32(7).text("bbbb").bytes},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    const Bytes file = ByteWriter()
                           .append(ByteWriter::box("cont", c.body))
                           .append(ByteWriter::box("tail", Bytes(64, 0)))
                           .bytes;
    MemoryStream in(file);
    TestContainer root{AtomHeader()};
    EXPECT_EQ(root.Read(&in), -1);
    EXPECT_FALSE(log.lines().empty());
  }
}

TEST(Atom, DeepNestingFailsAtAFixedDepth) {
  Bytes nested;
  for (int i = 0; i < 200; ++i) nested = ByteWriter::box("cont", nested);
  MemoryStream in(nested);
  LogCapture log;
  TestContainer root{AtomHeader()};
  EXPECT_EQ(root.Read(&in), -1);
  ASSERT_FALSE(log.lines().empty());
  EXPECT_NE(log.lines().back().text.find("nested deeper than"), std::string::npos);
}

TEST(Atom, TypedReadRefusesAnotherType) {
  MemoryStream in(ByteWriter::box("free", Bytes{}));
  AtomHeader header;
  header.type = "skip";
  UserDefAtom box(header);
  LogCapture log;
  EXPECT_EQ(box.Read(&in), -1);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Atom, WriteFailuresAreReported) {
  AtomHeader header;
  header.type = "free";
  UserDefAtom box(header);
  box.body = Bytes(10, 1);
  for (unsigned limit : {0u, 3u, 7u, 12u}) {
    SCOPED_TRACE(limit);
    FaultStream out;
    out.limitBytes(limit);
    LogCapture log;
    EXPECT_EQ(box.Write(&out), -1);
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(log.lines()[0].tag, "IO");
  }
  header.type = "toolong";
  UserDefAtom badType(header);
  MemoryStream out;
  LogCapture log;
  EXPECT_EQ(badType.Write(&out), -1);
  EXPECT_EQ(log.lines().size(), 1u);
}

// ---- log and memory helpers ----

TEST(Log, HandlerGetsTagLevelAndWholeText) {
  LogCapture log;
  const std::string longText(1000, 'x');
  QX_LOG_Printf("MP4", 0, "%s|%d\n", longText.c_str(), 42);
  QX_LOG_Printf("IO", 3, "offset:%lld, readBe32 fail\n", 123LL);
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[0], (LogLine{"MP4", 0, longText + "|42\n"}));
  EXPECT_EQ(log.lines()[1], (LogLine{"IO", 3, "offset:123, readBe32 fail\n"}));
}

TEST(Log, SetHandlerReturnsThePreviousAndNullRestoresTheDefault) {
  auto first = [](const char*, int, const char*) {};
  EXPECT_EQ(QX_LOG_SetHandler(first), nullptr);
  EXPECT_EQ(QX_LOG_SetHandler(nullptr), +first);
  EXPECT_EQ(QX_LOG_SetHandler(nullptr), nullptr);
  testing::internal::CaptureStderr();
  QX_LOG_Printf("MP4", 3, "shown %d\n", 1);
  QX_LOG_Printf("MP4", 1, "hidden\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[MP4] shown 1\n");
}

TEST(Memory, MemsetSIsBounded) {
  unsigned char buffer[8] = {1, 1, 1, 1, 1, 1, 1, 1};
  EXPECT_EQ(memset_s(buffer, 8, 0, 8), 0);
  EXPECT_EQ(buffer[7], 0);
  EXPECT_NE(memset_s(buffer, 4, 9, 8), 0);  // fills only what fits
  EXPECT_EQ(buffer[3], 9);
  EXPECT_EQ(buffer[4], 0);
  EXPECT_NE(memset_s(nullptr, 8, 0, 8), 0);
  EXPECT_NE(memset_s(buffer, SIZE_MAX, 0, 1), 0);
}

}  // namespace
