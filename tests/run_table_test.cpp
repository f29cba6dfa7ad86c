// The run tables, stts and stsc: recording with folding, merging ranges of
// runs, trimming and the total duration. Reading and writing them is in
// table_frame_test.cpp.
#include "support/test.h"

namespace {

using Times = std::vector<SttsEntry>;
using Groups = std::vector<StscEntry>;

void record(SttsAtom& table, const SttsEntry& r) { table.addEntry(r.sampleCount, r.sampleDelta); }
void record(StscAtom& table, const StscEntry& r) {
  table.addEntry(r.firstChunk, r.samplesPerChunk, r.sampleDescriptionIndex);
}

// Each case's runs, recorded one by one with addEntry, fold into `expected`;
// merging them from a source table gives the same runs, whether into an
// empty table or after the first run was recorded (folding at the seam). The
// box grows by `width` per run kept, silently.
template <class Box, class Runs>
void expectRuns(unsigned width, std::initializer_list<std::pair<Runs, Runs>> cases) {
  for (const auto& [calls, expected] : cases) {
    const Held<Box> source(calls);
    const auto n = static_cast<uint32_t>(calls.size());
    for (uint32_t recorded : {n, 0u, 1u}) {
      SCOPED_TRACE(::testing::PrintToString(calls) + " recorded " + std::to_string(recorded));
      Held<Box> table(Runs{});
      LogCapture log;
      for (uint32_t i = 0; i < recorded; ++i) record(table, calls[i]);
      if (recorded < n) table.merge(&source, recorded + 1, n);
      EXPECT_EQ(table.entries, expected);
      EXPECT_EQ(table.header.size, 16 + width * expected.size());
      EXPECT_TRUE(log.lines().empty());
    }
  }
}

TEST(SttsRuns, FoldIntoTheLastRunWhenTheDeltaMatches) {
  expectRuns<SttsAtom, Times>(8, {
      {{{1, 3000}, {1, 3000}, {1, 3000}}, {{3, 3000}}},
      {{{1, 3000}, {1, 3001}, {1, 3000}}, {{1, 3000}, {1, 3001}, {1, 3000}}},
      {{{5, 3000}, {2, 1500}, {1, 1500}, {4, 20}}, {{5, 3000}, {3, 1500}, {4, 20}}},
      {{{2, 40}, {0, 40}, {0, 41}}, {{2, 40}, {0, 41}}},  // a zero count still opens a run
      {{{0xFFFFFFFF, 7}, {2, 7}}, {{1, 7}}},              // the count wraps at 32 bits
  });
}

// Record ranges are 1-based and inclusive, clamped to the source; first 0
// counts as 1. A table may be its own source.
TEST(SttsMerge, TakesTheOrdinalRange) {
  const Held<SttsAtom> source(Times{{5, 3000}, {2, 1500}, {4, 20}});
  const std::tuple<uint32_t, uint32_t, Times> cases[] = {
      {2, 100, {{2, 1500}, {4, 20}}}, {0, 1, {{5, 3000}}}, {2, 1, {}}, {4, 9, {}}};
  for (const auto& [first, last, expected] : cases) {
    Held<SttsAtom> table(Times{});
    table.merge(&source, first, last);
    EXPECT_EQ(table.entries, expected) << first << ".." << last;
  }
  Held<SttsAtom> self(Times{{1, 10}, {1, 20}});
  self.merge(&self, 1, 2);
  EXPECT_EQ(self.entries, (Times{{1, 10}, {1, 20}, {1, 10}, {1, 20}}));
}

TEST(SttsDuration, SumsRunsEachCutTo32Bits) {
  EXPECT_EQ(Held<SttsAtom>(Times{{2, 3000}, {1, 1500}}).totalDuration(), 7500u);
  EXPECT_EQ(Held<SttsAtom>(Times{{65536, 65537}}).totalDuration(), 65536u);
  EXPECT_EQ(Held<SttsAtom>(Times(4, {0xFFFF, 0xFFFF})).totalDuration(), 4ull * 0xFFFE0001ull);
}

// First chunks are passed through as they stand, never checked or renumbered.
TEST(StscRuns, OpenOnlyWhenTheGroupingChangesAndCropToOnePerChunk) {
  expectRuns<StscAtom, Groups>(12, {
      {{{1, 1, 1}, {2, 1, 1}}, {{1, 1, 1}}},
      {{{1, 1, 1}, {5, 2, 1}, {9, 1, 1}}, {{1, 1, 1}, {5, 2, 1}, {9, 1, 1}}},
      {{{1, 4, 1}, {3, 4, 2}}, {{1, 4, 1}, {3, 4, 2}}},  // a new description
      {{{7, 4, 1}, {2, 5, 1}, {1, 5, 1}, {9, 5, 2}}, {{7, 4, 1}, {2, 5, 1}, {9, 5, 2}}},
  });
  // A trimmed track holds one sample per chunk: crop2new appends {1, 1, 1}
  // unfolded, whatever the source, which it never reads.
  Held<StscAtom> cropped({});
  cropped.crop2new(nullptr);
  cropped.crop2new(&cropped);
  EXPECT_EQ(cropped.entries, (Groups{{1, 1, 1}, {1, 1, 1}}));
  EXPECT_EQ(cropped.header.size, 16u + 24);
}

}  // namespace
