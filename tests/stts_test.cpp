// The time-to-sample table and the table frame it shares with the others.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stbl.h"
#include "support/bytes.h"
#include "support/fault_stream.h"
#include "support/log_capture.h"
#include "support/records.h"

namespace {

using Runs = std::vector<SttsEntry>;

AtomHeader sttsHeader(uint32_t size = 16) {
  AtomHeader header;
  header.type = "stts";
  header.size = size;
  return header;
}

// A table holding `runs`, its header size 16.
struct Table : SttsAtom {
  explicit Table(const Runs& runs) : SttsAtom(sttsHeader()) { entries = runs; }
};

// version 1, flags 0x0A0B0C, runs {3, 1000} and {1, 1500}
const Bytes kBody = ByteWriter().u8(1).u24(0x0A0B0C).u32(2).u32(3).u32(1000).u32(1).u32(1500).bytes;

TEST(SttsRead, GoldenBodyReadsAndWritesBack) {
  MemoryStream in(kBody);
  SttsAtom table(sttsHeader());
  LogCapture log;
  ASSERT_EQ(table.readData(&in), 0);
  EXPECT_EQ(table.version, 1);
  EXPECT_EQ(table.flags, 0x0A0B0Cu);
  EXPECT_EQ(table.entries, (Runs{{3, 1000}, {1, 1500}}));
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(table.header.size, 16u);  // reading never grows the box

  MemoryStream out;
  ASSERT_EQ(table.writeData(&out), 0);
  EXPECT_EQ(out.data(), kBody);
}

TEST(SttsRead, WholeBoxRoundTripsThroughAFileLayout) {
  const Bytes box = ByteWriter::box("stts", kBody);
  const Bytes file = ByteWriter().append(box).append(ByteWriter::box("free", Bytes{})).bytes;
  MemoryStream in(file);
  SttsAtom table(sttsHeader());
  ASSERT_EQ(table.Read(&in), 0);
  EXPECT_EQ(in.getOffset(), static_cast<long long>(box.size()));
  MemoryStream out;
  ASSERT_EQ(table.Write(&out), 0);
  EXPECT_EQ(out.data(), box);
}

TEST(SttsRead, RecordsAreTakenAsTheyStandAndAppendedOnEveryRead) {
  // Equal adjacent deltas are not folded on reading.
  const Bytes body = ByteWriter().u32(0).u32(2).u32(1).u32(500).u32(1).u32(500).bytes;
  Table table({{9, 9}});
  MemoryStream first(body), second(body);
  ASSERT_EQ(table.readData(&first), 0);
  ASSERT_EQ(table.readData(&second), 0);
  EXPECT_EQ(table.entries, (Runs{{9, 9}, {1, 500}, {1, 500}, {1, 500}, {1, 500}}));
}

TEST(SttsRead, EmptyTableIsANoticeAndReadsNoFurther) {
  MemoryStream in(ByteWriter().u8(0).u24(0).u32(0).u32(0xDEADBEEF).bytes);
  Table table({{1, 1}});
  LogCapture log;
  EXPECT_EQ(table.readData(&in), 0);
  EXPECT_EQ(in.getOffset(), 8);
  EXPECT_EQ(table.entries, (Runs{{1, 1}}));
  EXPECT_EQ(log.only(), (LogLine{"MP4", 1, "no entry in stts\n"}));

  MemoryStream out;
  ASSERT_EQ(SttsAtom(sttsHeader()).writeData(&out), 0);
  EXPECT_EQ(out.data(), ByteWriter().u32(0).u32(0).bytes);
}

TEST(SttsRead, CountGuardAdmitsTheQuotientAndRefusesOneMore) {
  const uint32_t size = 0x1234;
  const uint32_t quotient = (0xFFFFFFFFu - size) / 8;
  struct Case {
    uint32_t count;
    LogLine line;
  };
  const Case cases[] = {
      // Past the guard, refused by the stream's length before any allocation.
      {quotient, {"MP4", 3, "read " + std::to_string(quotient * 8) + " bytes to stts buf failed\n"}},
      {quotient + 1, {"MP4", 3, "stts entry count err\n"}},
      {0xFFFFFFFF, {"MP4", 3, "stts entry count err\n"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.count);
    MemoryStream in(ByteWriter().u8(2).u24(3).u32(c.count).u32(1).u32(2).bytes);
    SttsAtom table(sttsHeader(size));
    LogCapture log;
    EXPECT_EQ(table.readData(&in), -1);
    EXPECT_EQ(log.only(), c.line);
    EXPECT_TRUE(table.entries.empty());
    EXPECT_EQ(table.version, 2);
    EXPECT_EQ(table.flags, 3u);
  }
}

TEST(SttsRead, TableLongerThanItsBoxIsAShortRead) {
  // The count claims 3 runs but the box holds 2; the bytes of the next box
  // must not be taken as the third.
  const Bytes body = ByteWriter().u32(0).u32(3).u32(1).u32(10).u32(1).u32(20).bytes;
  const Bytes file = ByteWriter()
                         .append(ByteWriter::box("stts", body))
                         .append(ByteWriter::box("free", Bytes(16, 0)))
                         .bytes;
  MemoryStream in(file);
  SttsAtom table(sttsHeader());
  LogCapture log;
  EXPECT_EQ(table.Read(&in), -1);
  EXPECT_EQ(log.only(), (LogLine{"MP4", 3, "read 24 bytes to stts buf failed\n"}));
  EXPECT_TRUE(table.entries.empty());
}

TEST(SttsRead, EveryStreamFailureIsLoggedWithItsOffset) {
  // Reads come up short after `limit` bytes; the message names the field
  // being read and the offset reached.
  struct Case {
    size_t limit;
    std::string text;
  };
  const Case cases[] = {
      {0, "offset:0, readByte fail\n"},   {1, "offset:1, readBe24 fail\n"},
      {3, "offset:3, readBe24 fail\n"},   {4, "offset:4, readBe32 fail\n"},
      {7, "offset:7, readBe32 fail\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.limit);
    FaultStream in(kBody);
    in.limitBytes(c.limit);
    SttsAtom table(sttsHeader());
    LogCapture log;
    EXPECT_EQ(table.readData(&in), -1);
    EXPECT_EQ(log.only(), (LogLine{"IO", 3, c.text}));
  }
  for (size_t limit : {8u, 15u, 23u}) {
    SCOPED_TRACE(limit);
    FaultStream in(kBody);
    in.limitBytes(limit);
    SttsAtom table(sttsHeader());
    LogCapture log;
    EXPECT_EQ(table.readData(&in), -1);
    EXPECT_EQ(log.only(), (LogLine{"MP4", 3, "read 16 bytes to stts buf failed\n"}));
    EXPECT_TRUE(table.entries.empty());
  }
  FaultStream failing(kBody);
  failing.failCall(4);  // version, flags, count, then the table read fails
  SttsAtom table(sttsHeader());
  LogCapture log;
  EXPECT_EQ(table.readData(&failing), -1);
  EXPECT_EQ(log.only(), (LogLine{"MP4", 3, "read 16 bytes to stts buf failed\n"}));
}

TEST(SttsRead, TinyStreamWithAHugeCountIsRefusedAtOnce) {
  // 40 bytes claiming half a billion runs: refused by the length check,
  // long before a buffer of gigabytes could be allocated or cleared.
  Bytes body = ByteWriter().u32(0).u32(0x1FFFFFF0).bytes;
  body.resize(40, 0);
  MemoryStream in(body);
  SttsAtom table(sttsHeader(48));
  LogCapture log;
  EXPECT_EQ(table.readData(&in), -1);
  EXPECT_EQ(log.only(), (LogLine{"MP4", 3, "read 4294967168 bytes to stts buf failed\n"}));
}

TEST(SttsWrite, EveryStreamFailureIsLoggedWithItsOffset) {
  Table table({{3, 1000}, {1, 1500}});
  struct Case {
    size_t limit;
    std::string text;
  };
  const Case cases[] = {
      {0, "offset:0, writeByte fail\n"},   {1, "offset:1, writeBe24 fail\n"},
      {4, "offset:4, writeBe32 fail\n"},   {6, "offset:6, writeBe32 fail\n"},
      {8, "offset:8, writeBe32 fail\n"},   {14, "offset:14, writeBe32 fail\n"},
      {23, "offset:23, writeBe32 fail\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.limit);
    FaultStream out;
    out.limitBytes(c.limit);
    LogCapture log;
    EXPECT_EQ(table.writeData(&out), -1);
    EXPECT_EQ(log.only(), (LogLine{"IO", 3, c.text}));
    EXPECT_EQ(out.data().size(), c.limit);  // what was written stays written
  }
}

TEST(SttsWrite, AStreamThatRefusesWholeWritesKeepsEveryRecordBeforeTheFailure) {
  // Records go out in blocks; a refused block is written again record by
  // record, so the failure lands on the record that does not fit.
  Table table({{3, 1000}, {1, 1500}, {7, 20}});
  FaultStream out;
  out.refuseWritesPast(19);
  LogCapture log;
  EXPECT_EQ(table.writeData(&out), -1);
  EXPECT_EQ(log.only(), (LogLine{"IO", 3, "offset:16, writeBe32 fail\n"}));
  EXPECT_EQ(out.data(), ByteWriter().u32(0).u32(3).u32(3).u32(1000).bytes);
}

TEST(SttsNullArguments, AreLoggedAndRefused) {
  Table table({{1, 1}});
  LogCapture log;
  EXPECT_EQ(table.readData(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.only(), "readData"));
  log.clear();
  EXPECT_EQ(table.writeData(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.only(), "writeData"));
  log.clear();
  table.merge(nullptr, 1, 1);
  EXPECT_TRUE(isNullParamLine(log.only(), "merge"));
  EXPECT_EQ(table.entries, (Runs{{1, 1}}));
}

struct RecordCase {
  const char* name;
  Runs calls;  // each {count, delta} is one addEntry
  Runs expected;
  uint32_t growth;
};

void PrintTo(const RecordCase& c, std::ostream* out) { *out << c.name; }

class SttsRecord : public ::testing::TestWithParam<RecordCase> {};

TEST_P(SttsRecord, FoldsEqualDeltasAndGrowsByAppendedRuns) {
  SttsAtom table(sttsHeader());
  for (const SttsEntry& call : GetParam().calls) table.addEntry(call.sampleCount, call.sampleDelta);
  EXPECT_EQ(table.entries, GetParam().expected);
  EXPECT_EQ(table.header.size - 16, GetParam().growth);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SttsRecord,
    ::testing::Values(
        RecordCase{"SameDeltaFolds", {{1, 3000}, {1, 3000}, {1, 3000}}, {{3, 3000}}, 8},
        RecordCase{"AlternatingDeltas",
                   {{1, 3000}, {1, 3001}, {1, 3000}},
                   {{1, 3000}, {1, 3001}, {1, 3000}},
                   24},
        RecordCase{"ZeroCountExtendsNothing", {{2, 40}, {0, 40}}, {{2, 40}}, 8},
        RecordCase{"ZeroCountWithNewDeltaAppends", {{2, 40}, {0, 41}}, {{2, 40}, {0, 41}}, 16},
        RecordCase{"CountWrapsAt32Bits", {{0xFFFFFFFF, 7}, {2, 7}}, {{1, 7}}, 8}),
    [](const ::testing::TestParamInfo<RecordCase>& info) { return info.param.name; });

struct MergeCase {
  const char* name;
  Runs destination;
  Runs source;
  uint32_t first, last;
  Runs expected;
  uint32_t growth;
};

void PrintTo(const MergeCase& c, std::ostream* out) { *out << c.name; }

class SttsMerge : public ::testing::TestWithParam<MergeCase> {};

TEST_P(SttsMerge, TakesTheOrdinalRangeAndFoldsAtTheSeam) {
  const MergeCase& c = GetParam();
  Table table(c.destination);
  const Table source(c.source);
  LogCapture log;
  table.merge(&source, c.first, c.last);
  EXPECT_EQ(table.entries, c.expected);
  EXPECT_EQ(table.header.size - 16, c.growth);
  EXPECT_TRUE(log.lines().empty());
}

const Runs kSource{{5, 3000}, {2, 1500}};

INSTANTIATE_TEST_SUITE_P(
    Cases, SttsMerge,
    ::testing::Values(
        MergeCase{"SeamFolds", {{10, 3000}}, kSource, 1, 1, {{15, 3000}}, 0},
        MergeCase{"Whole", {{10, 3000}}, kSource, 1, 2, {{15, 3000}, {2, 1500}}, 8},
        MergeCase{"LastPastTheEnd", {{1, 1}}, kSource, 2, 100, {{1, 1}, {2, 1500}}, 8},
        MergeCase{"FirstPastTheEnd", {{1, 1}}, kSource, 3, 100, {{1, 1}}, 0},
        MergeCase{"FirstZeroIsOne", {}, kSource, 0, 1, {{5, 3000}}, 8},
        MergeCase{"FirstAfterLast", {{1, 1}}, kSource, 2, 1, {{1, 1}}, 0},
        MergeCase{"EmptySource", {{1, 1}}, {}, 1, 5, {{1, 1}}, 0},
        MergeCase{"SourceRunsFoldTogether", {}, {{1, 10}, {2, 10}, {3, 20}}, 1, 3,
                  {{3, 10}, {3, 20}}, 16}),
    [](const ::testing::TestParamInfo<MergeCase>& info) { return info.param.name; });

TEST(SttsMerge, MergingATableIntoItselfIsSafe) {
  Table table({{1, 10}, {1, 20}});
  table.merge(&table, 1, 2);
  EXPECT_EQ(table.entries, (Runs{{1, 10}, {1, 20}, {1, 10}, {1, 20}}));
}

TEST(SttsDuration, SumsRunsEachTruncatedTo32Bits) {
  EXPECT_EQ(Table({}).totalDuration(), 0u);
  EXPECT_EQ(Table({{2, 3000}, {1, 1500}}).totalDuration(), 7500u);
  EXPECT_EQ(Table({{65536, 65536}}).totalDuration(), 0u);
  EXPECT_EQ(Table({{65536, 65537}}).totalDuration(), 65536u);
  // Many runs just under 2^32 each: the sum itself is 64-bit.
  EXPECT_EQ(Table(Runs(4, {0xFFFF, 0xFFFF})).totalDuration(), 4ull * 0xFFFE0001ull);
}

}  // namespace
