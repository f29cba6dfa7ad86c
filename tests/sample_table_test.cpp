// The per-sample tables, stsz and stss: stsz's sample count, copying ranges
// of samples with their traces, and the lookups. Reading and writing them is
// in table_frame_test.cpp.
#include "support/test.h"

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

struct CopyCase {
  uint32_t start, end, offset;
  Numbers cropped, merged;
};

// Copies samples start..end of `numbers` into a table holding {1}, with
// crop2new and with merge (stss's after `offset` samples). The box grows by 4
// per number appended; crop2new traces each: `trace` + number + `end`.
template <class Box>
void expectCopies(const Numbers& numbers, std::initializer_list<CopyCase> cases,
                  const std::string& trace, const std::string& end) {
  const Held<Box> source(numbers);
  for (const CopyCase& c : cases) {
    for (bool crop : {true, false}) {
      SCOPED_TRACE(std::to_string(c.start) + ".." + std::to_string(c.end) + (crop ? " crop" : ""));
      Held<Box> table({1});
      LogCapture log;
      if (crop) {
        table.crop2new(&source, c.start, c.end);
      } else if constexpr (std::is_same_v<Box, StssAtom>) {
        table.merge(&source, c.start, c.end, c.offset);
      } else {
        table.merge(&source, c.start, c.end);
      }
      Numbers expected{1};
      Lines lines;
      for (uint32_t no : crop ? c.cropped : c.merged) {
        expected.push_back(no);
        if (crop) lines.push_back({"MP4", 0, trace + std::to_string(no) + end});
      }
      EXPECT_EQ(table.entries, expected);
      EXPECT_EQ(table.header.size, 12 + 4 * expected.size());
      EXPECT_EQ(log.lines(), lines);
      if constexpr (std::is_same_v<Box, StszAtom>) {
        EXPECT_EQ(table.sample_count, expected.size());
      }
    }
  }
}

// Both append the inclusive range of samples, sample_count with them.
TEST(StszRange, AppendsTheInclusiveSampleRange) {
  expectCopies<StszAtom>({10, 20, 30, 40, 50, 60, 70, 80, 90, 100}, {
      {3, 5, 0, {30, 40, 50}, {30, 40, 50}},
      {0, 2, 0, {10, 20}, {10, 20}},
      {5, 4, 0, {}, {}},
      {9, 0xFFFFFFFF, 0, {90, 100}, {90, 100}},
      {11, 20, 0, {}, {}},
  }, "stsz ", "\n");
  Held<StszAtom> self({10, 20});  // a table may be its own source
  self.merge(&self, 2, 2);
  EXPECT_EQ(self.entries, (Numbers{10, 20, 20}));
}

// crop2new renumbers from 1 at start, merge to follow `offset` samples of the
// joined track. The walk stops at the first number past the end: 50, after
// 1000, is never copied; a sorted table gives the same.
TEST(StssRange, RenumbersTheKeyFramesWithinTheRange) {
  for (const Numbers& numbers : {Numbers{1, 31, 61, 91, 1000, 50}, Numbers{1, 31, 61, 91, 1000}}) {
    expectCopies<StssAtom>(numbers, {
        {1, 91, 500, {1, 31, 61, 91}, {501, 531, 561, 591}},
        {31, 61, 500, {1, 31}, {501, 531}},  // both ends on key frames
        {30, 70, 500, {2, 32}, {502, 532}},
        {0, 40, 10, {2, 32}, {12, 42}},    // start 0 renumbers from 0
        {31, 61, 0, {1, 31}, {1, 31}},       // the shift wraps backwards
        {92, 200, 500, {}, {}},
    }, "stss ", " \n");
  }
  Held<StssAtom> self({1, 31});  // a table may be its own source
  self.crop2new(&self, 1, 40);
  self.merge(&self, 1, 40, 100);
  EXPECT_EQ(self.entries, (Numbers{1, 31, 1, 31, 101, 131, 101, 131}));
}

// Size by number is traced when found; the total is 64-bit. A key frame
// lookup moves to the first sync sample at or after the one asked for.
TEST(SampleLookup, SizeByNumberAndKeyFrameAtOrAfterASample) {
  const Held<StszAtom> sizes({5, 0, 9});
  for (const auto& [no, size] : {std::pair{1u, 5u}, {2u, 0u}, {3u, 9u}, {0u, 0u}, {4u, 0u}}) {
    LogCapture log;
    EXPECT_EQ(sizes.getSizeByNO(no), size);
    const LogLine trace{"MP4", 0, "frame no " + std::to_string(no) + " frame size " +
                                      std::to_string(size) + "\n"};
    EXPECT_EQ(log.lines(), (no >= 1 && no <= 3 ? Lines{trace} : Lines{})) << no;
  }
  EXPECT_EQ(Held<StszAtom>({0xFFFFFFFF, 0xFFFFFFFF}).TotalSampleSize(), (1ull << 33) - 2);
  const Held<StssAtom> keys({1, 31, 61, 91});
  for (auto [asked, found] : {std::pair{0u, 1u}, {31u, 31u}, {32u, 61u}, {91u, 91u}, {92u, 92u}}) {
    keys.getIFrameNumber(&asked);
    EXPECT_EQ(asked, found);
  }
}

}  // namespace
