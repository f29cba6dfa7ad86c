// The sample-to-chunk table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stbl.h"
#include "support/bytes.h"
#include "support/fault_stream.h"
#include "support/log_capture.h"
#include "support/records.h"

namespace {

using Runs = std::vector<StscEntry>;

AtomHeader stscHeader(uint32_t size = 16) {
  AtomHeader header;
  header.type = "stsc";
  header.size = size;
  return header;
}

// A table holding `runs`, its header size 16.
struct Table : StscAtom {
  explicit Table(const Runs& runs) : StscAtom(stscHeader()) { entries = runs; }
};

// version 1, flags 0x0A0B0C; the first two runs share a grouping and stay
// apart on reading
const Bytes kBody = ByteWriter()
                        .u8(1)
                        .u24(0x0A0B0C)
                        .u32(3)
                        .u32(1).u32(30).u32(1)
                        .u32(4).u32(30).u32(1)
                        .u32(9).u32(0xFFFFFFFF).u32(2)
                        .bytes;
const Runs kRuns{{1, 30, 1}, {4, 30, 1}, {9, 0xFFFFFFFF, 2}};

TEST(StscRead, GoldenBodyReadsUnfoldedAndWritesBack) {
  MemoryStream in(kBody);
  StscAtom table(stscHeader());
  LogCapture log;
  ASSERT_EQ(table.readData(&in), 0);
  EXPECT_EQ(table.version, 1);
  EXPECT_EQ(table.flags, 0x0A0B0Cu);
  EXPECT_EQ(table.entries, kRuns);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(table.header.size, 16u);

  MemoryStream out;
  ASSERT_EQ(table.writeData(&out), 0);
  EXPECT_EQ(out.data(), kBody);

  Table filled({{2, 2, 2}});
  MemoryStream again(kBody);
  ASSERT_EQ(filled.readData(&again), 0);
  EXPECT_EQ(filled.entries, (Runs{{2, 2, 2}, kRuns[0], kRuns[1], kRuns[2]}));
}

TEST(StscRead, EmptyTableIsANoticeAndReadsNoFurther) {
  MemoryStream in(ByteWriter().u8(0).u24(0).u32(0).u32(0xDEADBEEF).bytes);
  Table table({{1, 1, 1}});
  LogCapture log;
  EXPECT_EQ(table.readData(&in), 0);
  EXPECT_EQ(in.getOffset(), 8);
  EXPECT_EQ(table.entries, (Runs{{1, 1, 1}}));
  EXPECT_EQ(log.only(), (LogLine{"MP4", 1, "no entry in stsc\n"}));

  MemoryStream out;
  ASSERT_EQ(StscAtom(stscHeader()).writeData(&out), 0);
  EXPECT_EQ(out.data(), Bytes(8, 0));
}

TEST(StscRead, CountGuardRefusesTheQuotientSilently) {
  const uint32_t size = 0x1234;
  const uint32_t quotient = (0xFFFFFFFFu - size) / 12;
  const std::vector<LogLine> shortRead{
      {"MP4", 3, "read " + std::to_string((quotient - 1) * 12) + " bytes to stsc buf failed\n"}};
  for (uint32_t count : {quotient - 1, quotient, quotient + 1, 0xFFFFFFFFu}) {
    SCOPED_TRACE(count);
    MemoryStream in(ByteWriter().u8(2).u24(3).u32(count).u32(1).u32(2).u32(3).bytes);
    StscAtom table(stscHeader(size));
    LogCapture log;
    EXPECT_EQ(table.readData(&in), -1);
    EXPECT_EQ(log.lines(), count == quotient - 1 ? shortRead : std::vector<LogLine>{});
    EXPECT_TRUE(table.entries.empty());
    EXPECT_EQ(table.version, 2);
    EXPECT_EQ(table.flags, 3u);
  }
}

TEST(StscRead, EveryStreamFailureIsLoggedWithItsOffset) {
  struct Case {
    size_t limit;
    LogLine line;
  };
  const std::string table = "read 36 bytes to stsc buf failed\n";
  const Case cases[] = {
      {0, {"IO", 3, "offset:0, readByte fail\n"}}, {1, {"IO", 3, "offset:1, readBe24 fail\n"}},
      {3, {"IO", 3, "offset:3, readBe24 fail\n"}}, {4, {"IO", 3, "offset:4, readBe32 fail\n"}},
      {7, {"IO", 3, "offset:7, readBe32 fail\n"}}, {8, {"MP4", 3, table}},
      {43, {"MP4", 3, table}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.limit);
    FaultStream in(kBody);
    in.limitBytes(c.limit);
    StscAtom box(stscHeader());
    LogCapture log;
    EXPECT_EQ(box.readData(&in), -1);
    EXPECT_EQ(log.only(), c.line);
    EXPECT_TRUE(box.entries.empty());
  }
  FaultStream failing(kBody);
  failing.failCall(4);
  StscAtom box(stscHeader());
  LogCapture log;
  EXPECT_EQ(box.readData(&failing), -1);
  EXPECT_EQ(log.only(), (LogLine{"MP4", 3, table}));
}

TEST(StscWrite, EveryStreamFailureIsLoggedWithItsOffset) {
  Table table({{1, 30, 1}, {4, 12, 2}});
  struct Case {
    size_t limit;
    std::string text;
  };
  // Every field of a record is its own 32-bit write.
  const Case cases[] = {
      {0, "offset:0, writeByte fail\n"},   {1, "offset:1, writeBe24 fail\n"},
      {4, "offset:4, writeBe32 fail\n"},   {8, "offset:8, writeBe32 fail\n"},
      {12, "offset:12, writeBe32 fail\n"}, {16, "offset:16, writeBe32 fail\n"},
      {30, "offset:30, writeBe32 fail\n"},
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

TEST(StscNullArguments, AreLoggedAndRefused) {
  Table table({{1, 1, 1}});
  LogCapture log;
  EXPECT_EQ(table.readData(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.only(), "readData"));
  log.clear();
  EXPECT_EQ(table.writeData(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.only(), "writeData"));
  log.clear();
  table.merge(nullptr, 1, 1);
  EXPECT_TRUE(isNullParamLine(log.only(), "merge"));
  EXPECT_EQ(table.entries, (Runs{{1, 1, 1}}));
  EXPECT_EQ(table.header.size, 16u);
}

struct RecordCase {
  const char* name;
  Runs calls;  // each record is one addEntry
  Runs expected;
};

void PrintTo(const RecordCase& c, std::ostream* out) { *out << c.name; }

class StscRecord : public ::testing::TestWithParam<RecordCase> {};

TEST_P(StscRecord, OpensARunOnlyWhenTheGroupingChanges) {
  StscAtom table(stscHeader());
  for (const StscEntry& call : GetParam().calls) {
    table.addEntry(call.firstChunk, call.samplesPerChunk, call.sampleDescriptionIndex);
  }
  EXPECT_EQ(table.entries, GetParam().expected);
  EXPECT_EQ(table.header.size - 16, 12 * GetParam().expected.size());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StscRecord,
    ::testing::Values(
        RecordCase{"SameGroupingFolds", {{1, 1, 1}, {2, 1, 1}}, {{1, 1, 1}}},
        RecordCase{"ChangingGroupings",
                   {{1, 1, 1}, {5, 2, 1}, {9, 1, 1}},
                   {{1, 1, 1}, {5, 2, 1}, {9, 1, 1}}},
        RecordCase{"NewDescriptionOpensARun", {{1, 4, 1}, {3, 4, 2}}, {{1, 4, 1}, {3, 4, 2}}},
        RecordCase{"FirstChunkIsNotChecked", {{7, 4, 1}, {2, 5, 1}, {1, 5, 1}},
                   {{7, 4, 1}, {2, 5, 1}}}),
    [](const ::testing::TestParamInfo<RecordCase>& info) { return info.param.name; });

TEST(StscCrop, AppendsOneSamplePerChunkWhateverTheSource) {
  StscAtom table(stscHeader());
  LogCapture log;
  table.crop2new(nullptr);
  EXPECT_EQ(table.entries, (Runs{{1, 1, 1}}));
  EXPECT_EQ(table.header.size, 16u + 12);
  // Not folded into the run already held, and the source is never read.
  const Table source(kRuns);
  table.crop2new(&source);
  EXPECT_EQ(table.entries, (Runs{{1, 1, 1}, {1, 1, 1}}));
  EXPECT_EQ(table.header.size, 16u + 24);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(StscAtom::entry, (StscEntry{1, 1, 1}));
}

struct MergeCase {
  const char* name;
  Runs destination;
  Runs source;
  uint32_t first, last;
  Runs expected;
};

void PrintTo(const MergeCase& c, std::ostream* out) { *out << c.name; }

class StscMerge : public ::testing::TestWithParam<MergeCase> {};

TEST_P(StscMerge, PassesTheOrdinalRangeThroughAddEntry) {
  const MergeCase& c = GetParam();
  Table table(c.destination);
  const Table source(c.source);
  LogCapture log;
  table.merge(&source, c.first, c.last);
  EXPECT_EQ(table.entries, c.expected);
  EXPECT_EQ(table.header.size - 16, 12 * (c.expected.size() - c.destination.size()));
  EXPECT_TRUE(log.lines().empty());
}

const Runs kSource{{1, 30, 1}, {4, 12, 1}};

INSTANTIATE_TEST_SUITE_P(
    Cases, StscMerge,
    ::testing::Values(
        MergeCase{"SameRunChangesNothing", {{1, 1, 1}}, {{1, 1, 1}}, 1, 1, {{1, 1, 1}}},
        MergeCase{"SecondRunOnly", {{1, 1, 1}}, kSource, 2, 2, {{1, 1, 1}, {4, 12, 1}}},
        // First chunks are taken as they stand, not renumbered.
        MergeCase{"LastPastTheEnd", {{1, 1, 1}}, kSource, 1, 0xFFFFFFFF,
                  {{1, 1, 1}, {1, 30, 1}, {4, 12, 1}}},
        MergeCase{"FirstZeroIsOne", {}, kSource, 0, 1, {{1, 30, 1}}},
        MergeCase{"FirstAfterLast", {{1, 1, 1}}, kSource, 2, 1, {{1, 1, 1}}},
        MergeCase{"FirstPastTheEnd", {{1, 1, 1}}, kSource, 3, 9, {{1, 1, 1}}},
        MergeCase{"EmptySource", {{1, 1, 1}}, {}, 1, 5, {{1, 1, 1}}},
        MergeCase{"SourceRunsFoldTogether", {{1, 1, 1}}, {{1, 5, 1}, {3, 5, 1}, {8, 1, 1}}, 1, 3,
                  {{1, 1, 1}, {1, 5, 1}, {8, 1, 1}}}),
    [](const ::testing::TestParamInfo<MergeCase>& info) { return info.param.name; });

}  // namespace
