// The box layer: headers, the generic box reader and writer, and the log.
#include <gtest/gtest.h>

#include <string>
#include <vector>
#include <tuple>

#include "box/file_stream.h"
#include "box/log.h"
#include "box/mp4file.h"
#include "stbl.h"
#include "support/bytes.h"
#include "support/log_capture.h"
#include "support/records.h"

using namespace mp4stbl;

namespace {

TEST(AtomHeader, ParsesOrRefusesWithOneLine) {
  const struct {
    const char* name;
    Bytes bytes;
    int result;
    uint32_t size;
    uint64_t largeSize, boxLength;
  } cases[] = {
      {"compact", ByteWriter().u32(12).text("abcd").u32(0).bytes, 0, 12, 0, 12},
      {"large", ByteWriter().u32(1).text("abcd").u64(20).u32(0).bytes, 0, 1, 20, 20},
      {"to the end", ByteWriter().u32(0).text("abcd").append(Bytes(6, 0)).bytes, 0, 0, 14, 14},
      {"empty body", ByteWriter().u32(8).text("abcd").bytes, 0, 8, 0, 8},
      {"size below header", ByteWriter().u32(7).text("abcd").bytes, -1, 0, 0, 0},
      {"large below header", ByteWriter().u32(1).text("abcd").u64(15).bytes, -1, 0, 0, 0},
      {"past the end", ByteWriter().u32(13).text("abcd").u32(0).bytes, -1, 0, 0, 0},
      {"large past the end", ByteWriter().u32(1).text("abcd").u64(1ull << 62).bytes, -1, 0, 0, 0},
      {"truncated", ByteWriter().u32(16).text("ab").bytes, -1, 0, 0, 0},
      {"truncated large size", ByteWriter().u32(1).text("abcd").u32(0).bytes, -1, 0, 0, 0},
  };
  for (const auto& c : cases) {
    LogCapture log;
    MemoryStream stream(ByteWriter().text("pad!").append(c.bytes).bytes);
    stream.seek(4);
    AtomHeader header;
    EXPECT_EQ(header.Read(&stream), c.result) << c.name;
    // Nothing is stored on failure, and it is told in one line.
    const bool ok = c.result == 0;
    EXPECT_EQ(std::make_tuple(header.type, header.size, header.largeSize, header.boxLength(),
                              header.headerOffset, log.lines().size()),
              std::make_tuple(std::string(ok ? "abcd" : "0000"), c.size, c.largeSize, c.boxLength,
                              uint64_t{ok ? 4u : 0u}, size_t{ok ? 0u : 1u}))
        << c.name;
  }
}

// A file whose moov has a 64-bit size and whose last box runs to the end:
// both keep their form when written back, and the tables inside are typed.
TEST(Atom, ReadsATreeWritesItBackByteForByteAndDumpsIt) {
  const Bytes stts = ByteWriter::box("stts", ByteWriter().u32(0).u32(1).u32(7).u32(512).bytes);
  const Bytes body = ByteWriter()
                         .append(ByteWriter::box("aaaa", Bytes{1, 2, 3}))
                         .append(ByteWriter::box("trak", ByteWriter::box("stbl", stts)))
                         .bytes;
  const Bytes image =
      ByteWriter().u32(1).text("moov").u64(16 + body.size()).append(body).u32(0).text("free").bytes;
  MemoryStream in(image), out, dump;
  Mp4File file;
  ASSERT_TRUE(file.read(&in).ok());
  const std::vector<Atom*> tables = file.find("moov/trak/stbl/stts");
  ASSERT_EQ(tables.size(), 1u);
  EXPECT_EQ(dynamic_cast<SttsAtom&>(*tables[0]).entries, (std::vector<SttsEntry>{{7, 512}}));
  ASSERT_TRUE(file.write(&out).ok());
  EXPECT_EQ(out.data(), image);
  ASSERT_EQ(file.root.Dump(&dump, 0), 0);
  EXPECT_EQ(std::string(dump.data().begin(), dump.data().end()),
            "0000 size=0 offset=0\n"
            "  moov size=67 offset=0\n"
            "    aaaa size=11 offset=16\n"
            "    trak size=40 offset=27\n"
            "      stbl size=32 offset=35\n"
            "        stts size=24 offset=43\n"
            "  free size=8 offset=67\n");
  // The size written is the bytes written; a type must be four characters.
  Atom* moov = file.root.children.front();
  moov->header.largeSize = 999;
  ASSERT_EQ(moov->Write(&out), 0);
  EXPECT_EQ(Bytes(out.data().begin() + image.size(), out.data().end()),
            Bytes(image.begin(), image.end() - 8));
  moov->header.type = "moovie";
  LogCapture log;
  EXPECT_EQ(moov->Write(&out), -1);
  EXPECT_EQ(log.only().level, 3);
}

TEST(Atom, BodyEndsAtItsBoxWhateverItReads) {
  // One run read of a body holding two: the next box is found at the end.
  const Bytes stts = ByteWriter::box("stts", ByteWriter().u32(0).u32(1).u64(5).u64(0).bytes);
  MemoryStream in(ByteWriter().append(stts).append(ByteWriter::box("next", Bytes{})).bytes);
  SttsAtom table{AtomHeader()};
  ASSERT_EQ(table.Read(&in), 0);
  EXPECT_EQ(in.getOffset(), static_cast<long long>(stts.size()));

  const Bytes broken[] = {
      ByteWriter().u32(100).text("aaaa").bytes,                    // child larger than parent
      ByteWriter().u32(4).text("aaaa").bytes,                      // child size below its header
      ByteWriter().u32(8).text("aaaa").u32(0).bytes,               // trailing bytes too few
      ByteWriter().u32(0).text("trak").u32(7).text("bbbb").bytes,  // runs to the parent's end
  };
  for (const Bytes& body : broken) {
    LogCapture log;
    const Bytes tail = ByteWriter::box("tail", Bytes(64, 0));
    MemoryStream file(ByteWriter().append(ByteWriter::box("moov", body)).append(tail).bytes);
    ContainerAtom root{AtomHeader()};
    EXPECT_EQ(root.Read(&file), -1);
    EXPECT_FALSE(log.lines().empty());
  }
  // A typed box refuses a box of another type.
  MemoryStream free(ByteWriter::box("free", Bytes{}));
  LogCapture log;
  EXPECT_EQ(table.Read(&free), -1);
  EXPECT_EQ(log.only().level, 3);
}

TEST(Log, HandlerGetsTagLevelAndWholeTextAndNullRestoresTheDefault) {
  {
    LogCapture log;
    const std::string longText(1000, 'x');  // longer than the formatting buffer
    QX_LOG_Printf("MP4", 0, "%s|%d\n", longText.c_str(), 42);
    EXPECT_EQ(log.only(), (LogLine{"MP4", 0, longText + "|42\n"}));
  }
  auto first = [](const char*, int, const char*) {};
  EXPECT_EQ(setLogSink({first, 0}).handler, nullptr);
  const LogSink replaced = setLogSink({});
  EXPECT_EQ(replaced.handler, +first);
  EXPECT_EQ(replaced.lowestLevel, 0);
  testing::internal::CaptureStderr();
  QX_LOG_Printf("MP4", 3, "shown %d\n", 1);
  QX_LOG_Printf("MP4", 1, "hidden\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[MP4] shown 1\n");
}

TEST(FileStream, SystemErrorsAreFailedCallsNotExceptions) {
  // A directory opens for reading on Linux, and std::filebuf throws when it
  // is read; the stream must report -1 and a file read must fail cleanly.
  FileStream directory;
  ASSERT_EQ(directory.open(MP4STBL_TEST_DATA, FileStream::Mode::Read), 0);
  unsigned char byte = 0;
  EXPECT_EQ(directory.read(&byte, 1), -1);
  LogCapture log;
  Mp4File file;
  EXPECT_FALSE(file.open(MP4STBL_TEST_DATA).ok());
  EXPECT_EQ(FileStream().open("/nonexistent/x.mp4", FileStream::Mode::Read), -1);
}

}  // namespace
