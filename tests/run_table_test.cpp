// The run tables, stts and stsc: recording with folding, merging ranges of
// runs, trimming and the total duration. Reading and writing them is in
// table_frame_test.cpp.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "stbl.h"
#include "support/log_capture.h"
#include "support/records.h"

namespace {

using Times = std::vector<SttsEntry>;
using Groups = std::vector<StscEntry>;

void record(SttsAtom& table, const SttsEntry& r) { table.addEntry(r.sampleCount, r.sampleDelta); }
void record(StscAtom& table, const StscEntry& r) {
  table.addEntry(r.firstChunk, r.samplesPerChunk, r.sampleDescriptionIndex);
}

// Passes each case's runs to addEntry; the box grows by `width` per run kept.
template <class Box, class Runs>
void expectRecorded(unsigned width, std::initializer_list<std::pair<Runs, Runs>> cases) {
  for (const auto& [calls, expected] : cases) {
    SCOPED_TRACE(::testing::PrintToString(calls));
    Held<Box> table(Runs{});
    for (const auto& run : calls) record(table, run);
    EXPECT_EQ(table.entries, expected);
    EXPECT_EQ(table.header.size, 16 + width * expected.size());
  }
}

template <class Runs>
struct MergeCase { Runs destination; uint32_t first, last; Runs expected; };

// Merges runs first..last of `source` into each case's destination; the box
// grows by `width` per run it gains, silently.
template <class Box, class Runs>
void expectMerged(const Runs& runs, unsigned width, std::initializer_list<MergeCase<Runs>> cases) {
  const Held<Box> source(runs);
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.first) + ".." + std::to_string(c.last));
    Held<Box> table(c.destination);
    LogCapture log;
    table.merge(&source, c.first, c.last);
    EXPECT_EQ(table.entries, c.expected);
    EXPECT_EQ(table.header.size, 16 + width * (c.expected.size() - c.destination.size()));
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST(SttsRecord, FoldsIntoTheLastRunWhenTheDeltaMatches) {
  expectRecorded<SttsAtom, Times>(8, {
      {{{1, 3000}, {1, 3000}, {1, 3000}}, {{3, 3000}}},
      {{{1, 3000}, {1, 3001}, {1, 3000}}, {{1, 3000}, {1, 3001}, {1, 3000}}},
      {{{2, 40}, {0, 40}, {0, 41}}, {{2, 40}, {0, 41}}},  // a zero count still opens a run
      {{{0xFFFFFFFF, 7}, {2, 7}}, {{1, 7}}},              // the count wraps at 32 bits
  });
}

TEST(SttsMerge, TakesTheOrdinalRangeAndFoldsAsItGoes) {
  // The middle two runs fold together when copied.
  const Times source{{5, 3000}, {2, 1500}, {1, 1500}, {4, 20}};
  expectMerged<SttsAtom, Times>(source, 8, {
      {{{10, 3000}}, 1, 1, {{15, 3000}}},  // folds at the seam
      {{}, 2, 100, {{3, 1500}, {4, 20}}},  // last past the end
      {{}, 0, 1, {{5, 3000}}},             // first 0 counts as 1
      {{{1, 1}}, 2, 1, {{1, 1}}},          // first after last
      {{{1, 1}}, 5, 9, {{1, 1}}},          // first past the end
  });
  Held<SttsAtom> self(Times{{1, 10}, {1, 20}});
  self.merge(&self, 1, 2);
  EXPECT_EQ(self.entries, (Times{{1, 10}, {1, 20}, {1, 10}, {1, 20}}));
}

TEST(SttsDuration, SumsRunsEachCutTo32Bits) {
  EXPECT_EQ(Held<SttsAtom>(Times{{2, 3000}, {1, 1500}}).totalDuration(), 7500u);
  EXPECT_EQ(Held<SttsAtom>(Times{{65536, 65537}}).totalDuration(), 65536u);
  EXPECT_EQ(Held<SttsAtom>(Times(4, {0xFFFF, 0xFFFF})).totalDuration(), 4ull * 0xFFFE0001ull);
}

TEST(StscRecord, OpensARunOnlyWhenTheGroupingChanges) {
  expectRecorded<StscAtom, Groups>(12, {
      {{{1, 1, 1}, {2, 1, 1}}, {{1, 1, 1}}},
      {{{1, 1, 1}, {5, 2, 1}, {9, 1, 1}}, {{1, 1, 1}, {5, 2, 1}, {9, 1, 1}}},
      {{{1, 4, 1}, {3, 4, 2}}, {{1, 4, 1}, {3, 4, 2}}},              // a new description
      {{{7, 4, 1}, {2, 5, 1}, {1, 5, 1}}, {{7, 4, 1}, {2, 5, 1}}},  // first chunks unchecked
  });
}

TEST(StscMerge, PassesTheOrdinalRangeThroughRecording) {
  // Runs 2 and 3 share a grouping; first chunks are copied as they stand.
  const Groups source{{1, 1, 1}, {4, 12, 1}, {6, 12, 1}, {9, 12, 2}};
  expectMerged<StscAtom, Groups>(source, 12, {
      {{{1, 1, 1}}, 1, 1, {{1, 1, 1}}},
      {{{1, 1, 1}}, 2, 0xFFFFFFFF, {{1, 1, 1}, {4, 12, 1}, {9, 12, 2}}},
      {{}, 0, 1, {{1, 1, 1}}},
      {{{1, 1, 1}}, 3, 2, {{1, 1, 1}}},
      {{{1, 1, 1}}, 5, 9, {{1, 1, 1}}},
  });
}

// A trimmed track holds one sample per chunk: the run {1, 1, 1} is appended
// unfolded, whatever the source, which is never read.
TEST(StscCrop, AppendsOneSamplePerChunkWhateverTheSource) {
  Held<StscAtom> table({});
  LogCapture log;
  table.crop2new(nullptr);
  table.crop2new(&table);
  EXPECT_EQ(table.entries, (Groups{{1, 1, 1}, {1, 1, 1}}));
  EXPECT_EQ(table.header.size, 16u + 24);
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
