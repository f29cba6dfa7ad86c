// The sync sample table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stbl.h"
#include "support/bytes.h"
#include "support/fault_stream.h"
#include "support/log_capture.h"

namespace {

using Numbers = std::vector<uint32_t>;

AtomHeader stssHeader(uint32_t size = 16) {
  AtomHeader header;
  header.type = "stss";
  header.size = size;
  return header;
}

// A table holding `numbers`, its header size 16.
struct Table : StssAtom {
  explicit Table(const Numbers& numbers) : StssAtom(stssHeader()) { entries = numbers; }
};

// version 1, flags 0x0A0B0C, key frames 1, 31, 0xFFFFFFFF
const Bytes kBody = ByteWriter().u8(1).u24(0x0A0B0C).u32(3).u32(1).u32(31).u32(0xFFFFFFFF).bytes;

const Numbers kKeys{1, 31, 61, 91};

TEST(StssRead, GoldenBodyReadsAppendsAndWritesBack) {
  MemoryStream in(kBody);
  StssAtom table(stssHeader());
  LogCapture log;
  ASSERT_EQ(table.readData(&in), 0);
  EXPECT_EQ(table.version, 1);
  EXPECT_EQ(table.flags, 0x0A0B0Cu);
  EXPECT_EQ(table.entries, (Numbers{1, 31, 0xFFFFFFFF}));
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(table.header.size, 16u);

  MemoryStream out;
  ASSERT_EQ(table.writeData(&out), 0);
  EXPECT_EQ(out.data(), kBody);

  MemoryStream again(kBody);
  ASSERT_EQ(table.readData(&again), 0);
  EXPECT_EQ(table.entries, (Numbers{1, 31, 0xFFFFFFFF, 1, 31, 0xFFFFFFFF}));
}

TEST(StssRead, EmptyTableIsANoticeAndReadsNoFurther) {
  MemoryStream in(ByteWriter().u8(0).u24(0).u32(0).u32(0xDEADBEEF).bytes);
  Table table({4});
  LogCapture log;
  EXPECT_EQ(table.readData(&in), 0);
  EXPECT_EQ(in.getOffset(), 8);
  EXPECT_EQ(table.entries, (Numbers{4}));
  EXPECT_EQ(log.only(), (LogLine{"MP4", 1, "no entry in stss\n"}));

  MemoryStream out;
  ASSERT_EQ(StssAtom(stssHeader()).writeData(&out), 0);
  EXPECT_EQ(out.data(), Bytes(8, 0));
}

TEST(StssRead, CountGuardRefusesTheQuotientSilently) {
  const uint32_t size = 0x1234;
  const uint32_t quotient = (0xFFFFFFFFu - size) / 4;
  const std::vector<LogLine> shortRead{
      {"MP4", 3, "read " + std::to_string((quotient - 1) * 4) + " bytes to stss buf failed\n"}};
  for (uint32_t count : {quotient - 1, quotient, quotient + 1, 0xFFFFFFFFu}) {
    SCOPED_TRACE(count);
    MemoryStream in(ByteWriter().u8(2).u24(3).u32(count).u32(1).u32(2).bytes);
    StssAtom table(stssHeader(size));
    LogCapture log;
    EXPECT_EQ(table.readData(&in), -1);
    EXPECT_EQ(log.lines(), count == quotient - 1 ? shortRead : std::vector<LogLine>{});
    EXPECT_TRUE(table.entries.empty());
    EXPECT_EQ(table.version, 2);
    EXPECT_EQ(table.flags, 3u);
  }
}

TEST(StssRead, EveryStreamFailureIsLoggedWithItsOffset) {
  struct Case {
    size_t limit;
    LogLine line;
  };
  const std::string table = "read 12 bytes to stss buf failed\n";
  const Case cases[] = {
      {0, {"IO", 3, "offset:0, readByte fail\n"}}, {1, {"IO", 3, "offset:1, readBe24 fail\n"}},
      {3, {"IO", 3, "offset:3, readBe24 fail\n"}}, {4, {"IO", 3, "offset:4, readBe32 fail\n"}},
      {7, {"IO", 3, "offset:7, readBe32 fail\n"}}, {8, {"MP4", 3, table}},
      {19, {"MP4", 3, table}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.limit);
    FaultStream in(kBody);
    in.limitBytes(c.limit);
    StssAtom box(stssHeader());
    LogCapture log;
    EXPECT_EQ(box.readData(&in), -1);
    EXPECT_EQ(log.only(), c.line);
    EXPECT_TRUE(box.entries.empty());
  }
  FaultStream failing(kBody);
  failing.failCall(4);
  StssAtom box(stssHeader());
  LogCapture log;
  EXPECT_EQ(box.readData(&failing), -1);
  EXPECT_EQ(log.only(), (LogLine{"MP4", 3, table}));
}

TEST(StssWrite, EveryStreamFailureIsLoggedWithItsOffset) {
  Table table({1, 31});
  struct Case {
    size_t limit;
    std::string text;
  };
  const Case cases[] = {
      {0, "offset:0, writeByte fail\n"}, {1, "offset:1, writeBe24 fail\n"},
      {4, "offset:4, writeBe32 fail\n"}, {8, "offset:8, writeBe32 fail\n"},
      {13, "offset:13, writeBe32 fail\n"},
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

TEST(StssNullArguments, AreLoggedAndLeaveTheBoxAlone) {
  Table table({1});
  LogCapture log;
  EXPECT_EQ(table.readData(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.only(), "readData"));
  log.clear();
  EXPECT_EQ(table.writeData(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.only(), "writeData"));
  log.clear();
  table.getIFrameNumber(nullptr);
  EXPECT_TRUE(isNullParamLine(log.only(), "getIFrameNumber"));
  log.clear();
  table.crop2new(nullptr, 1, 1);
  EXPECT_TRUE(isNullParamLine(log.only(), "crop2new"));
  log.clear();
  table.merge(nullptr, 1, 1, 0);
  EXPECT_TRUE(isNullParamLine(log.only(), "merge"));
  EXPECT_EQ(table.entries, (Numbers{1}));
  EXPECT_EQ(table.header.size, 16u);
}

TEST(StssRecord, StoresEveryNumberAsGivenAndGrowsByFour) {
  StssAtom table(stssHeader());
  for (uint32_t no : {5u, 0u, 3u}) table.addEntry(no);
  EXPECT_EQ(table.entries, (Numbers{5, 0, 3}));
  EXPECT_EQ(table.header.size, 16u + 12);
}

TEST(StssLookup, FirstKeyFrameAtOrAfterTheSample) {
  const Table table(kKeys);
  const uint32_t cases[][2] = {{31, 31}, {32, 61}, {0, 1}, {1, 1}, {91, 91}, {92, 92}, {0xFFFFFFFF, 0xFFFFFFFF}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c[0]);
    uint32_t no = c[0];
    table.getIFrameNumber(&no);
    EXPECT_EQ(no, c[1]);
  }
  uint32_t no = 7;
  Table({}).getIFrameNumber(&no);
  EXPECT_EQ(no, 7u);
}

struct RangeCase {
  const char* name;
  Numbers source;
  uint32_t start, end, offset;
  Numbers cropped;  // what crop2new appends
  Numbers merged;   // what merge appends, shifted to follow `offset` samples
};

void PrintTo(const RangeCase& c, std::ostream* out) { *out << c.name; }

class StssRange : public ::testing::TestWithParam<RangeCase> {};

TEST_P(StssRange, RenumbersTheKeyFramesWithinTheRange) {
  const RangeCase& c = GetParam();
  const Table source(c.source);
  for (bool crop : {true, false}) {
    SCOPED_TRACE(crop ? "crop2new" : "merge");
    Table table({1});
    LogCapture log;
    crop ? table.crop2new(&source, c.start, c.end) : table.merge(&source, c.start, c.end, c.offset);
    const Numbers& appended = crop ? c.cropped : c.merged;
    Numbers expected{1};
    expected.insert(expected.end(), appended.begin(), appended.end());
    EXPECT_EQ(table.entries, expected);
    EXPECT_EQ(table.header.size - 16, 4 * appended.size());
    std::vector<LogLine> lines;
    if (crop) {
      for (uint32_t no : appended) lines.push_back({"MP4", 0, "stss " + std::to_string(no) + " \n"});
    }
    EXPECT_EQ(log.lines(), lines);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StssRange,
    ::testing::Values(
        RangeCase{"Whole", kKeys, 1, 100, 500, {1, 31, 61, 91}, {501, 531, 561, 591}},
        RangeCase{"StartOnAKeyFrame", kKeys, 31, 70, 500, {1, 31}, {501, 531}},
        RangeCase{"StartBeforeAKeyFrame", kKeys, 30, 70, 500, {2, 32}, {502, 532}},
        RangeCase{"EndOnAKeyFrame", kKeys, 31, 61, 500, {1, 31}, {501, 531}},
        RangeCase{"PastTheLastKeyFrame", kKeys, 92, 200, 500, {}, {}},
        RangeCase{"EndBeforeStart", kKeys, 70, 30, 500, {}, {}},
        RangeCase{"StartZero", {1, 31}, 0, 100, 10, {2, 32}, {12, 42}},
        RangeCase{"ShiftWrapsBackwards", kKeys, 31, 61, 0, {1, 31}, {1, 31}},
        RangeCase{"EmptySource", {}, 1, 100, 500, {}, {}},
        // The walk stops at the first number past the end, relying on order.
        RangeCase{"StopsAtTheFirstNumberPastTheEnd", {1, 100, 5}, 1, 50, 0, {1}, {1}}),
    [](const ::testing::TestParamInfo<RangeCase>& info) { return info.param.name; });

}  // namespace
