// The chunk offset tables, 32-bit ("stco") and 64-bit ("co64"), run through
// the same cases. The two answer some questions differently on purpose; each
// difference sits side by side in the traits below. Reading and writing them
// is in table_frame_test.cpp.
#include "support/test.h"

namespace {

using Offsets = std::vector<uint64_t>;
using Lines = std::vector<LogLine>;

// A trace line from a format taking up to four 64-bit numbers.
LogLine trace(const char* format, unsigned long long a = 0, unsigned long long b = 0,
              unsigned long long c = 0, unsigned long long d = 0) {
  char text[128];
  std::snprintf(text, sizeof text, format, a, b, c, d);
  return {"MP4", 0, text};
}

struct Stco {
  using Box = StcoAtom;
  static constexpr const char* type = "stco";
  static constexpr unsigned growth = 4, cropGrowth = 4;
  static constexpr bool stopsAt4G = true, missClearsPos = false;
  static constexpr uint64_t high = 0xFFFFFFF0;  // the largest kind of entry
  static constexpr const char* next = "next frame offset %llu frame no %llu \n";
  static constexpr const char* last = "last+1 frame offset %llu frame no %llu \n";
  static constexpr const char* crop = "stco inpos %llu out pos %llu \n";
  static constexpr uint32_t nextMiss = 3;  // of three chunks: the count
};

struct Co64 {
  using Box = Co64Atom;
  static constexpr const char* type = "co64";
  static constexpr unsigned growth = 8, cropGrowth = 4;
  static constexpr bool stopsAt4G = false, missClearsPos = true;
  static constexpr uint64_t high = 0x123456789ABCull;  // past 4 GiB
  static constexpr const char* next = "next frame offset %llu frame no %llu\n";
  static constexpr const char* last = next;
  static constexpr const char* crop = "stco inpos %llu out pos %llu\n";
  static constexpr uint32_t nextMiss = 0;
};

// A table holding `offsets`, its box 16 bytes long.
template <class T>
struct Table : T::Box {
  explicit Table(const Offsets& offsets) : T::Box(AtomHeader()) {
    this->header.size = 16;
    this->entries.assign(offsets.begin(), offsets.end());
  }
  Offsets held() const { return Offsets(this->entries.begin(), this->entries.end()); }
  uint32_t growth() const { return this->header.size - 16; }
};

template <class T>
class ChunkOffset : public ::testing::Test {};

using Kinds = ::testing::Types<Stco, Co64>;
TYPED_TEST_SUITE(ChunkOffset, Kinds, TypeNames);

TYPED_TEST(ChunkOffset, RecordingAndLookups) {
  using T = TypeParam;
  Table<T> table({});
  table.addEntry(100);
  table.addEntry(T::high);
  EXPECT_EQ(table.held(), (Offsets{100, T::high}));
  EXPECT_EQ(table.growth(), 2 * T::growth);
  // A missing chunk: co64 clears the position and traces it, stco leaves it.
  const Lines miss = T::missClearsPos ? Lines{trace("co64::getPosByNO fail\n")} : Lines{};
  const unsigned long long missed = T::missClearsPos ? 0 : 7;
  const std::tuple<uint32_t, unsigned long long, Lines> cases[] = {
      {1, 100, {}}, {2, T::high, {}}, {0, missed, miss}, {3, missed, miss}};
  for (const auto& [no, pos, lines] : cases) {
    unsigned long long got = 7;
    LogCapture log;
    table.getPosByNO(no, &got);
    EXPECT_EQ(std::make_tuple(got, log.lines()), std::make_tuple(pos, lines)) << no;
  }
  // The first chunk at or after an offset, and the one before it.
  table.entries = {100, 200, 300};
  const struct { uint64_t offset; uint32_t next, last; } offsets[] = {
      {0, 1, 0}, {200, 2, 1}, {201, 3, 2}, {301, T::nextMiss, 3},
      {(1ull << 32) + 150, T::nextMiss, 3},  // compared in full, not cut to 32 bits
  };
  for (const auto& c : offsets) {
    SCOPED_TRACE(c.offset);
    const bool found = c.offset <= 300;  // only a chunk found is traced
    LogCapture log;
    EXPECT_EQ(table.getNextFrameNoByOffset(c.offset), c.next);
    EXPECT_EQ(log.lines(), found ? Lines{trace(T::next, c.offset, c.next)} : Lines{});
    log.clear();
    EXPECT_EQ(table.getLastFrameNoByOffset(c.offset), c.last);
    EXPECT_EQ(log.lines(), found ? Lines{trace(T::last, c.offset, c.next)} : Lines{});
  }
  // Stored order, first match wins: no sorting is assumed.
  table.entries = {300, 100, 200};
  EXPECT_EQ(table.getNextFrameNoByOffset(150), 1u);
  EXPECT_EQ(table.getLastFrameNoByOffset(150), 0u);
}

// Source chunks start..end land at outPos, each later one keeping its
// distance to its predecessor; `copied` pairs source offsets with positions.
// stco stops at the first position of 4 GiB or more, co64 goes on.
TYPED_TEST(ChunkOffset, CropAndMergeRebaseTheRange) {
  using T = TypeParam;
  const struct {
    Offsets source;
    uint32_t start, end;
    uint64_t outPos;
    std::vector<std::pair<uint64_t, uint64_t>> copied;
  } cases[] = {
      {{100, 250, 600}, 2, 0xFFFFFFFF, 1000, {{250, 1000}, {600, 1350}}},
      {{100, 250, 600}, 0, 1, 1000, {{100, 1000}}},
      {{100, 250, 600}, 3, 2, 1000, {}},
      {{600, 100}, 1, 2, 1000, {{600, 1000}, {100, 500}}},
      {{0, 40, 90}, 1, 3, 1000, {{0, 1000}, {40, 1000}, {90, 1050}}},  // 0 is no predecessor
      // The third chunk would fit in 32 bits again.
      {{100, 400, 50}, 1, 3, 0xFFFFFF00, {{100, 0xFFFFFF00}, {400, 0x10000002C}, {50, 0xFFFFFECE}}},
  };
  for (const auto& c : cases) {
    const Table<T> source(c.source);
    for (bool crop : {true, false}) {
      SCOPED_TRACE(std::to_string(c.start) + (crop ? " crop2new" : " merge"));
      Table<T> table({7});
      LogCapture log;
      crop ? table.crop2new(&source, c.start, c.end, c.outPos)
           : table.merge(&source, c.start, c.end, c.outPos);
      Offsets expected{7};
      Lines lines;
      for (const auto& [in, out] : c.copied) {
        if (T::stopsAt4G && out >> 32 != 0) break;
        expected.push_back(out);
        if (crop) lines.push_back(trace(T::crop, in, out));
      }
      EXPECT_EQ(table.held(), expected);
      EXPECT_EQ(table.growth(), (expected.size() - 1) * (crop ? T::cropGrowth : T::growth));
      EXPECT_EQ(log.lines(), lines);
    }
  }
  Table<T> self({100, 250});  // a table may be its own source
  self.crop2new(&self, 1, 2, 1000);
  self.merge(&self, 2, 3, 0);
  EXPECT_EQ(self.held(), (Offsets{100, 250, 1000, 1150, 0, 750}));
}

// stco alone answers where a run of chunks starts and how far it reaches:
// the start is traced when it is set, the end whenever it exists.
TEST(StcoFramePos, StartPositionAndLengthOfAChunkRun) {
  const Table<Stco> table({100, 250, 600});
  const char* start = "start addr %llu startNo %llu frameNumber %llu \n";
  const char* end = "end  addr %llu  datalen %llu endno %llu frameNumber %llu\n";
  const struct {
    uint32_t startNo, endNo;
    unsigned long long startIn, startOut;
    uint32_t lenOut;
    Lines lines;
  } cases[] = {
      {1, 3, 0, 100, 500, {trace(start, 100, 1, 1), trace(end, 600, 500, 3, 3)}},
      {2, 2, 0, 250, 0, {trace(start, 250, 2, 2), trace(end, 250, 0, 2, 2)}},
      {3, 1, 0, 0, 100, {trace(end, 100, 100, 1, 1)}},  // a start after the end is not met
      {1, 4, 0, 100, 9, {trace(start, 100, 1, 1)}},  // no end: the length stays
      {2, 3, 5, 5, 600, {trace(end, 600, 600, 3, 3)}},  // a start already set is kept
      {0, 0, 0, 0, 9, {}},
  };
  for (const auto& c : cases) {
    unsigned long long startPos = c.startIn;
    uint32_t dataLen = 9;
    LogCapture log;
    table.getFramePos(c.startNo, c.endNo, &startPos, &dataLen);
    EXPECT_EQ(std::make_tuple(startPos, dataLen, log.lines()),
              std::make_tuple(c.startOut, c.lenOut, c.lines))
        << c.startNo << ".." << c.endNo;
  }
}

}  // namespace
