// The sample size table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stbl.h"
#include "support/bytes.h"
#include "support/fault_stream.h"
#include "support/log_capture.h"

namespace {

using Sizes = std::vector<uint32_t>;

AtomHeader stszHeader(uint32_t size = 20) {
  AtomHeader header;
  header.type = "stsz";
  header.size = size;
  return header;
}

// A table holding `sizes` with a matching sample_count, its header size 20.
struct Table : StszAtom {
  explicit Table(const Sizes& sizes) : StszAtom(stszHeader()) {
    entries = sizes;
    sample_count = static_cast<uint32_t>(sizes.size());
  }
};

// version 1, flags 0x0A0B0C, default size 0x400 (kept though a table
// follows), sizes 0x11, 0, 0xFFFFFFFF
const Bytes kBody = ByteWriter()
                        .u8(1)
                        .u24(0x0A0B0C)
                        .u32(0x400)
                        .u32(3)
                        .u32(0x11)
                        .u32(0)
                        .u32(0xFFFFFFFF)
                        .bytes;

TEST(StszRead, GoldenBodyKeepsTheDefaultSizeVerbatim) {
  MemoryStream in(kBody);
  StszAtom table(stszHeader());
  LogCapture log;
  ASSERT_EQ(table.readData(&in), 0);
  EXPECT_EQ(table.version, 1);
  EXPECT_EQ(table.flags, 0x0A0B0Cu);
  EXPECT_EQ(table.sample_size, 0x400u);
  EXPECT_EQ(table.sample_count, 3u);
  EXPECT_EQ(table.entries, (Sizes{0x11, 0, 0xFFFFFFFF}));
  EXPECT_EQ(table.getCount(), 3);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(table.header.size, 20u);

  MemoryStream out;
  ASSERT_EQ(table.writeData(&out), 0);
  EXPECT_EQ(out.data(), kBody);
}

TEST(StszRead, ReadingIntoAFilledBoxAppendsButCountsOnlyTheRead) {
  Table table({7, 8});
  MemoryStream in(kBody);
  ASSERT_EQ(table.readData(&in), 0);
  EXPECT_EQ(table.entries, (Sizes{7, 8, 0x11, 0, 0xFFFFFFFF}));
  EXPECT_EQ(table.getCount(), 5);
  EXPECT_EQ(table.sample_count, 3u);
}

TEST(StszRead, EmptyTableIsANoticeAndLeavesTheCountAlone) {
  MemoryStream in(ByteWriter().u8(2).u24(3).u32(0x20).u32(0).u32(0xDEADBEEF).bytes);
  Table table({9});
  table.sample_count = 5;
  LogCapture log;
  EXPECT_EQ(table.readData(&in), 0);
  EXPECT_EQ(in.getOffset(), 12);
  EXPECT_EQ(log.only(), (LogLine{"MP4", 1, "no entry in stsz\n"}));
  EXPECT_EQ(table.version, 2);
  EXPECT_EQ(table.flags, 3u);
  EXPECT_EQ(table.sample_size, 0x20u);
  EXPECT_EQ(table.sample_count, 5u);
  EXPECT_EQ(table.entries, (Sizes{9}));

  MemoryStream out;
  ASSERT_EQ(StszAtom(stszHeader()).writeData(&out), 0);
  EXPECT_EQ(out.data(), Bytes(12, 0));
}

TEST(StszRead, CountGuardRefusesTheQuotientSilently) {
  const uint32_t size = 0x1234;
  const uint32_t quotient = (0xFFFFFFFFu - size) / 4;
  struct Case {
    uint32_t count;
    std::vector<LogLine> lines;
    uint32_t sampleCount;  // the count is stored only once it passed the guard
  };
  const Case cases[] = {
      {quotient - 1,
       {{"MP4", 3, "read " + std::to_string((quotient - 1) * 4) + " bytes to stsz buf failed\n"}},
       quotient - 1},
      {quotient, {}, 77},
      {quotient + 1, {}, 77},
      {0xFFFFFFFF, {}, 77},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.count);
    MemoryStream in(ByteWriter().u8(2).u24(3).u32(5).u32(c.count).u32(1).u32(2).bytes);
    StszAtom table(stszHeader(size));
    table.sample_count = 77;
    LogCapture log;
    EXPECT_EQ(table.readData(&in), -1);
    EXPECT_EQ(log.lines(), c.lines);
    EXPECT_EQ(table.sample_count, c.sampleCount);
    EXPECT_TRUE(table.entries.empty());
    EXPECT_EQ(table.version, 2);
    EXPECT_EQ(table.flags, 3u);
    EXPECT_EQ(table.sample_size, 5u);
  }
}

TEST(StszRead, EveryStreamFailureIsLoggedWithItsOffset) {
  struct Case {
    size_t limit;
    LogLine line;
  };
  const std::string table = "read 12 bytes to stsz buf failed\n";
  const Case cases[] = {
      {0, {"IO", 3, "offset:0, readByte fail\n"}},   {1, {"IO", 3, "offset:1, readBe24 fail\n"}},
      {3, {"IO", 3, "offset:3, readBe24 fail\n"}},   {4, {"IO", 3, "offset:4, readBe32 fail\n"}},
      {7, {"IO", 3, "offset:7, readBe32 fail\n"}},   {8, {"IO", 3, "offset:8, readBe32 fail\n"}},
      {11, {"IO", 3, "offset:11, readBe32 fail\n"}}, {12, {"MP4", 3, table}},
      {23, {"MP4", 3, table}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.limit);
    FaultStream in(kBody);
    in.limitBytes(c.limit);
    StszAtom box(stszHeader());
    LogCapture log;
    EXPECT_EQ(box.readData(&in), -1);
    EXPECT_EQ(log.only(), c.line);
    EXPECT_TRUE(box.entries.empty());
  }
  FaultStream failing(kBody);
  failing.failCall(5);  // version, flags, default size, count, then the table
  StszAtom box(stszHeader());
  LogCapture log;
  EXPECT_EQ(box.readData(&failing), -1);
  EXPECT_EQ(log.only(), (LogLine{"MP4", 3, table}));
}

TEST(StszRead, AfterAFailedTableReadTheCountIsWrittenWithoutSizes) {
  MemoryStream in(ByteWriter().u8(0).u24(0).u32(0).u32(2).u32(10).bytes);
  StszAtom table(stszHeader());
  LogCapture log;
  EXPECT_EQ(table.readData(&in), -1);
  EXPECT_EQ(log.only(), (LogLine{"MP4", 3, "read 8 bytes to stsz buf failed\n"}));
  EXPECT_EQ(table.sample_count, 2u);
  EXPECT_EQ(table.getCount(), 0);
  MemoryStream out;
  ASSERT_EQ(table.writeData(&out), 0);
  EXPECT_EQ(out.data(), ByteWriter().u32(0).u32(0).u32(2).bytes);
}

TEST(StszWrite, EveryStreamFailureIsLoggedWithItsOffset) {
  Table table({0x11, 0x22});
  table.sample_size = 0x400;
  struct Case {
    size_t limit;
    std::string text;
  };
  const Case cases[] = {
      {0, "offset:0, writeByte fail\n"},   {1, "offset:1, writeBe24 fail\n"},
      {4, "offset:4, writeBe32 fail\n"},   {8, "offset:8, writeBe32 fail\n"},
      {12, "offset:12, writeBe32 fail\n"}, {17, "offset:17, writeBe32 fail\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.limit);
    FaultStream out;
    out.limitBytes(c.limit);
    LogCapture log;
    EXPECT_EQ(table.writeData(&out), -1);
    EXPECT_EQ(log.only(), (LogLine{"IO", 3, c.text}));
    EXPECT_EQ(out.data().size(), c.limit);
  }
}

TEST(StszNullArguments, AreLoggedAndLeaveTheBoxAlone) {
  Table table({1});
  LogCapture log;
  EXPECT_EQ(table.readData(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.only(), "readData"));
  log.clear();
  EXPECT_EQ(table.writeData(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.only(), "writeData"));
  log.clear();
  table.crop2new(nullptr, 1, 1);
  EXPECT_TRUE(isNullParamLine(log.only(), "crop2new"));
  log.clear();
  table.merge(nullptr, 1, 1);
  EXPECT_TRUE(isNullParamLine(log.only(), "merge"));
  EXPECT_EQ(table.entries, (Sizes{1}));
  EXPECT_EQ(table.sample_count, 1u);
  EXPECT_EQ(table.header.size, 20u);
}

TEST(StszRecord, EachSizeRaisesCountAndBoxByFour) {
  StszAtom table(stszHeader());
  for (uint32_t size : {300u, 0u, 0xFFFFFFFFu}) table.addEntry(size);
  EXPECT_EQ(table.entries, (Sizes{300, 0, 0xFFFFFFFF}));
  EXPECT_EQ(table.sample_count, 3u);
  EXPECT_EQ(table.getCount(), 3);
  EXPECT_EQ(table.header.size, 20u + 12);
}

struct RangeCase {
  const char* name;
  Sizes source;
  uint32_t start, end;
  Sizes copied;
};

void PrintTo(const RangeCase& c, std::ostream* out) { *out << c.name; }

class StszRange : public ::testing::TestWithParam<RangeCase> {};

// Both operations append the inclusive range after what the box holds;
// crop2new traces every size it copies, merge is silent.
TEST_P(StszRange, AppendsTheInclusiveSampleRange) {
  const RangeCase& c = GetParam();
  Table source(c.source);
  source.sample_size = 0x55;
  for (bool crop : {true, false}) {
    SCOPED_TRACE(crop ? "crop2new" : "merge");
    Table table({7});
    table.sample_size = 0x99;
    LogCapture log;
    crop ? table.crop2new(&source, c.start, c.end) : table.merge(&source, c.start, c.end);
    Sizes expected{7};
    expected.insert(expected.end(), c.copied.begin(), c.copied.end());
    EXPECT_EQ(table.entries, expected);
    EXPECT_EQ(table.sample_count, expected.size());
    EXPECT_EQ(table.header.size - 20, 4 * c.copied.size());
    EXPECT_EQ(table.sample_size, 0x99u);
    std::vector<LogLine> lines;
    if (crop) {
      for (uint32_t size : c.copied) lines.push_back({"MP4", 0, "stsz " + std::to_string(size) + "\n"});
    }
    EXPECT_EQ(log.lines(), lines);
  }
}

const Sizes kTen{10, 20, 30, 40, 50, 60, 70, 80, 90, 100};

INSTANTIATE_TEST_SUITE_P(
    Cases, StszRange,
    ::testing::Values(RangeCase{"Whole", {5, 6}, 1, 2, {5, 6}},
                      RangeCase{"Middle", kTen, 3, 5, {30, 40, 50}},
                      RangeCase{"StartZeroIsOne", kTen, 0, 2, {10, 20}},
                      RangeCase{"EndBeforeStart", kTen, 5, 4, {}},
                      RangeCase{"EndPastTheSource", kTen, 9, 0xFFFFFFFF, {90, 100}},
                      RangeCase{"StartPastTheSource", kTen, 11, 20, {}},
                      RangeCase{"EmptySource", {}, 1, 5, {}}),
    [](const ::testing::TestParamInfo<RangeCase>& info) { return info.param.name; });

TEST(StszLookup, SizeByNumberIsTracedOnlyWhenFound) {
  Table table({5, 0, 9});
  table.sample_size = 1234;  // never consulted
  struct Case {
    uint32_t no;
    uint32_t size;
    std::vector<LogLine> lines;
  };
  const Case cases[] = {
      {1, 5, {{"MP4", 0, "frame no 1 frame size 5\n"}}},
      {2, 0, {{"MP4", 0, "frame no 2 frame size 0\n"}}},
      {3, 9, {{"MP4", 0, "frame no 3 frame size 9\n"}}},
      {0, 0, {}},
      {4, 0, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.no);
    LogCapture log;
    EXPECT_EQ(table.getSizeByNO(c.no), c.size);
    EXPECT_EQ(log.lines(), c.lines);
  }
  Table empty({});
  empty.sample_size = 1234;
  LogCapture log;
  EXPECT_EQ(empty.getSizeByNO(1), 0u);
  EXPECT_TRUE(log.lines().empty());
}

TEST(StszLookup, TotalSizeDoesNotWrapAt32Bits) {
  Table empty({});
  empty.sample_size = 1234;
  EXPECT_EQ(empty.TotalSampleSize(), 0u);
  EXPECT_EQ(empty.getCount(), 0);
  EXPECT_EQ(Table({0xFFFFFFFF, 0xFFFFFFFF}).TotalSampleSize(), (1ull << 33) - 2);
  EXPECT_EQ(Table({1, 2, 3}).TotalSampleSize(), 6u);
}

}  // namespace
