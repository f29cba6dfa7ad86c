// The per-sample tables, stsz and stss: stsz's sample count, copying ranges
// of samples with their traces, and the lookups. Reading and writing them is
// in table_frame_test.cpp.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stbl.h"
#include "support/bytes.h"
#include "support/log_capture.h"
#include "support/records.h"

using namespace mp4stbl;

namespace {

using Numbers = std::vector<uint32_t>;
using Lines = std::vector<LogLine>;

Bytes stszBody(uint32_t count, const Numbers& sizes) {
  ByteWriter w;
  w.u32(0).u32(0x20).u32(count);
  for (uint32_t size : sizes) w.u32(size);
  return w.bytes;
}

// The count stsz writes is the one it keeps: set by a read once the count
// passed the guard, raised by every size recorded, whatever sizes it holds.
TEST(StszCount, FollowsReadsAndRecordsAndIsWrittenAsKept) {
  const struct { Bytes input; int result; uint32_t count; Numbers sizes; } cases[] = {
      {stszBody(3, {0x11, 0, 0xFFFFFFFF}), 0, 3, {7, 0x11, 0, 0xFFFFFFFF}},  // appended
      {stszBody(0, {}), 0, 77, {7}},                                         // empty
      {stszBody(0xFFFFFFFF, {1}), -1, 77, {7}},                              // refused by the guard
      {stszBody(2, {10}), -1, 2, {7}},                                       // table cut short
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.count);
    Held<StszAtom> table({7});
    table.sample_count = 77;
    MemoryStream in(c.input), out;
    LogCapture log;
    EXPECT_EQ(table.readData(&in), c.result);
    EXPECT_EQ(table.sample_count, c.count);
    EXPECT_EQ(table.entries, c.sizes);
    ASSERT_EQ(table.writeData(&out), 0);
    EXPECT_EQ(out.data(), stszBody(c.count, c.sizes));
  }
  Held<StszAtom> recorded({});
  for (uint32_t size : {300u, 0u, 0xFFFFFFFFu}) recorded.addEntry(size);
  EXPECT_EQ(recorded.entries, (Numbers{300, 0, 0xFFFFFFFF}));
  EXPECT_EQ(recorded.sample_count, 3u);
  EXPECT_EQ(recorded.header.size, 16u + 12);
}

// What crop2new or merge appended to a table holding {1}, with the box's
// growth and crop2new's trace: one line per number, `trace` + number + `end`.
template <class Box>
void expectAppended(const Box& table, const LogCapture& log, bool crop, const Numbers& appended,
                    const std::string& trace, const std::string& end) {
  Numbers expected{1};
  Lines lines;
  for (uint32_t no : appended) {
    expected.push_back(no);
    if (crop) lines.push_back({"MP4", 0, trace + std::to_string(no) + end});
  }
  EXPECT_EQ(table.entries, expected);
  EXPECT_EQ(table.header.size, 16 + 4 * appended.size());
  EXPECT_EQ(log.lines(), lines);
}

// Both append the inclusive range of samples; crop2new traces each size.
TEST(StszRange, AppendsTheInclusiveSampleRange) {
  Held<StszAtom> source({10, 20, 30, 40, 50, 60, 70, 80, 90, 100});
  source.sample_size = 0x55;
  const struct {
    uint32_t start, end;
    Numbers copied;
  } cases[] = {
      {3, 5, {30, 40, 50}}, {0, 2, {10, 20}}, {5, 4, {}}, {9, 0xFFFFFFFF, {90, 100}}, {11, 20, {}}};
  for (const auto& c : cases) {
    for (bool crop : {true, false}) {
      SCOPED_TRACE(std::to_string(c.start) + (crop ? " crop2new" : " merge"));
      Held<StszAtom> table({1});
      table.sample_size = 0x99;
      LogCapture log;
      crop ? table.crop2new(&source, c.start, c.end) : table.merge(&source, c.start, c.end);
      expectAppended(table, log, crop, c.copied, "stsz ", "\n");
      EXPECT_EQ(table.sample_count, 1 + c.copied.size());
      EXPECT_EQ(table.sample_size, 0x99u);
    }
  }
  source.merge(&source, 9, 10);  // a table may be its own source
  EXPECT_EQ(source.entries.size(), 12u);
  EXPECT_EQ(source.entries.back(), 100u);
}

TEST(StszLookup, SizeByNumberIsTracedWhenFoundAndTotalIs64Bit) {
  Held<StszAtom> table({5, 0, 9});
  table.sample_size = 1234;  // never consulted
  const std::pair<uint32_t, uint32_t> cases[] = {{1, 5}, {2, 0}, {3, 9}, {0, 0}, {4, 0}};
  for (const auto& [no, size] : cases) {
    LogCapture log;
    EXPECT_EQ(table.getSizeByNO(no), size);
    const LogLine trace{"MP4", 0, "frame no " + std::to_string(no) + " frame size " +
                                      std::to_string(size) + "\n"};
    EXPECT_EQ(log.lines(), (no >= 1 && no <= 3 ? Lines{trace} : Lines{})) << no;
  }
  EXPECT_EQ(Held<StszAtom>({0xFFFFFFFF, 0xFFFFFFFF}).TotalSampleSize(), (1ull << 33) - 2);
}

TEST(StssLookup, FirstKeyFrameAtOrAfterTheSample) {
  const Held<StssAtom> table({1, 31, 61, 91});
  const std::pair<uint32_t, uint32_t> cases[] = {
      {0, 1}, {1, 1}, {31, 31}, {32, 61}, {91, 91}, {92, 92}};
  for (auto [asked, found] : cases) {
    table.getIFrameNumber(&asked);
    EXPECT_EQ(asked, found);
  }
}

// crop2new renumbers from 1 at start, merge to follow `offset` samples of the
// joined track; crop2new traces each number it appends.
TEST(StssRange, RenumbersTheKeyFramesWithinTheRange) {
  const Numbers keys{1, 31, 61, 91};
  const struct { Numbers source; uint32_t start, end, offset; Numbers cropped, merged; } cases[] = {
      {keys, 1, 100, 500, {1, 31, 61, 91}, {501, 531, 561, 591}},
      {keys, 31, 61, 500, {1, 31}, {501, 531}},  // both ends on key frames
      {keys, 30, 70, 500, {2, 32}, {502, 532}},
      {keys, 92, 200, 500, {}, {}},
      {keys, 70, 30, 500, {}, {}},
      {{1, 31}, 0, 100, 10, {2, 32}, {12, 42}},
      {keys, 31, 61, 0, {1, 31}, {1, 31}},  // the shift wraps backwards
      {{1, 100, 5}, 1, 50, 0, {1}, {1}},    // the walk stops at the first number past the end
  };
  for (const auto& c : cases) {
    const Held<StssAtom> source(c.source);
    for (bool crop : {true, false}) {
      SCOPED_TRACE(std::to_string(c.start) + (crop ? " crop2new" : " merge"));
      Held<StssAtom> table({1});
      LogCapture log;
      crop ? table.crop2new(&source, c.start, c.end)
           : table.merge(&source, c.start, c.end, c.offset);
      expectAppended(table, log, crop, crop ? c.cropped : c.merged, "stss ", " \n");
    }
  }
  // A table may be its own source.
  Held<StssAtom> self({1, 31});
  self.crop2new(&self, 1, 40);
  self.merge(&self, 1, 40, 100);
  EXPECT_EQ(self.entries, (Numbers{1, 31, 1, 31, 101, 131, 101, 131}));
}

}  // namespace
