// The chunk offset tables, 32-bit ("stco") and 64-bit ("co64"), run through
// the same cases. The two answer some questions differently on purpose; each
// difference is a pair of values in the traits below.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "stbl.h"
#include "support/bytes.h"
#include "support/fault_stream.h"
#include "support/log_capture.h"

namespace {

using Offsets = std::vector<uint64_t>;
using Lines = std::vector<LogLine>;

std::string num(uint64_t value) { return std::to_string(value); }

LogLine trace(const std::string& text) { return {"MP4", 0, text}; }

struct Stco {
  using Box = StcoAtom;
  using Word = uint32_t;
  static constexpr const char* type = "stco";
  static constexpr unsigned width = 4;
  static constexpr const char* entryWrite = "writeBe32";
  static constexpr unsigned addGrowth = 4, cropGrowth = 4, mergeGrowth = 4;
  static constexpr bool stopsAt4G = true;
  static constexpr uint64_t high = 0xFFFFFFF0;  // the largest kind of entry
  // A miss leaves *pos as it was and logs nothing.
  static Lines posMiss(unsigned long long* pos, unsigned long long before) {
    EXPECT_EQ(*pos, before);
    return {};
  }
  static uint32_t nextMiss(uint32_t count) { return count; }
  static LogLine nextLine(uint64_t offset, uint32_t no) {
    return trace("next frame offset " + num(offset) + " frame no " + num(no) + " \n");
  }
  static LogLine lastLine(uint64_t offset, uint32_t no) {
    return trace("last+1 frame offset " + num(offset) + " frame no " + num(no) + " \n");
  }
  static LogLine cropLine(uint64_t in, uint64_t out) {
    return trace("stco inpos " + num(in) + " out pos " + num(out) + " \n");
  }
};

struct Co64 {
  using Box = Co64Atom;
  using Word = uint64_t;
  static constexpr const char* type = "co64";
  static constexpr unsigned width = 8;
  static constexpr const char* entryWrite = "writeBe64";
  static constexpr unsigned addGrowth = 8, cropGrowth = 4, mergeGrowth = 8;
  static constexpr bool stopsAt4G = false;
  static constexpr uint64_t high = 0x123456789ABCull;  // past 4 GiB
  // A miss clears *pos and logs.
  static Lines posMiss(unsigned long long* pos, unsigned long long) {
    EXPECT_EQ(*pos, 0u);
    return {trace("co64::getPosByNO fail\n")};
  }
  static uint32_t nextMiss(uint32_t) { return 0; }
  static LogLine nextLine(uint64_t offset, uint32_t no) {
    return trace("next frame offset " + num(offset) + " frame no " + num(no) + "\n");
  }
  static LogLine lastLine(uint64_t offset, uint32_t no) { return nextLine(offset, no); }
  static LogLine cropLine(uint64_t in, uint64_t out) {
    return trace("stco inpos " + num(in) + " out pos " + num(out) + "\n");
  }
};

template <class T>
AtomHeader header(uint32_t size = 16) {
  AtomHeader h;
  h.type = T::type;
  h.size = size;
  return h;
}

// A table holding `offsets`, its header size 16.
template <class T>
struct Table : T::Box {
  explicit Table(const Offsets& offsets) : T::Box(header<T>()) {
    for (uint64_t offset : offsets) this->entries.push_back(static_cast<typename T::Word>(offset));
  }
  Offsets held() const { return Offsets(this->entries.begin(), this->entries.end()); }
  uint32_t growth() const { return this->header.size - 16; }
};

template <class T>
Bytes body(uint8_t version, uint32_t flags, const Offsets& offsets) {
  ByteWriter w;
  w.u8(version).u24(flags).u32(static_cast<uint32_t>(offsets.size()));
  for (uint64_t offset : offsets) w.be(offset, T::width);
  return w.bytes;
}

template <class T>
class ChunkOffset : public ::testing::Test {};

struct KindNames {
  template <class T>
  static std::string GetName(int) {
    return T::type;
  }
};

using Kinds = ::testing::Types<Stco, Co64>;
TYPED_TEST_SUITE(ChunkOffset, Kinds, KindNames);

TYPED_TEST(ChunkOffset, GoldenBodyReadsAppendsAndWritesBack) {
  const Bytes golden = body<TypeParam>(1, 0x0A0B0C, {0x100, TypeParam::high});
  MemoryStream in(golden);
  Table<TypeParam> table({});
  LogCapture log;
  ASSERT_EQ(table.readData(&in), 0);
  EXPECT_EQ(table.version, 1);
  EXPECT_EQ(table.flags, 0x0A0B0Cu);
  EXPECT_EQ(table.held(), (Offsets{0x100, TypeParam::high}));
  EXPECT_EQ(table.getStartOffset(), 0x100u);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(table.growth(), 0u);

  MemoryStream out;
  ASSERT_EQ(table.writeData(&out), 0);
  EXPECT_EQ(out.data(), golden);

  MemoryStream again(golden);
  ASSERT_EQ(table.readData(&again), 0);
  EXPECT_EQ(table.held(), (Offsets{0x100, TypeParam::high, 0x100, TypeParam::high}));
}

TYPED_TEST(ChunkOffset, EmptyTableIsANoticeAndReadsNoFurther) {
  MemoryStream in(ByteWriter().u8(0).u24(0).u32(0).u32(0xDEADBEEF).bytes);
  Table<TypeParam> table({5});
  LogCapture log;
  EXPECT_EQ(table.readData(&in), 0);
  EXPECT_EQ(in.getOffset(), 8);
  EXPECT_EQ(table.held(), (Offsets{5}));
  EXPECT_EQ(log.only(), (LogLine{"MP4", 1, std::string("no entry in ") + TypeParam::type + "\n"}));

  MemoryStream out;
  ASSERT_EQ(Table<TypeParam>({}).writeData(&out), 0);
  EXPECT_EQ(out.data(), Bytes(8, 0));
}

TYPED_TEST(ChunkOffset, CountGuardRefusesTheQuotientSilently) {
  const uint32_t size = 0x1234;
  const uint32_t quotient = (0xFFFFFFFFu - size) / TypeParam::width;
  const Lines shortRead{{"MP4", 3,
                         "read " + num((quotient - 1) * TypeParam::width) + " bytes to " +
                             TypeParam::type + " buf failed\n"}};
  for (uint32_t count : {quotient - 1, quotient, quotient + 1, 0xFFFFFFFFu}) {
    SCOPED_TRACE(count);
    MemoryStream in(ByteWriter().u8(2).u24(3).u32(count).u64(1).u64(2).bytes);
    typename TypeParam::Box table(header<TypeParam>(size));
    LogCapture log;
    EXPECT_EQ(table.readData(&in), -1);
    EXPECT_EQ(log.lines(), count == quotient - 1 ? shortRead : Lines{});
    EXPECT_TRUE(table.entries.empty());
    EXPECT_EQ(table.version, 2);
    EXPECT_EQ(table.flags, 3u);
  }
}

TYPED_TEST(ChunkOffset, EveryReadFailureIsLoggedWithItsOffset) {
  const Bytes golden = body<TypeParam>(1, 2, {10, 20});
  const LogLine table{"MP4", 3, "read " + num(2 * TypeParam::width) + " bytes to " +
                                    TypeParam::type + " buf failed\n"};
  const std::pair<size_t, LogLine> cases[] = {
      {0, {"IO", 3, "offset:0, readByte fail\n"}}, {1, {"IO", 3, "offset:1, readBe24 fail\n"}},
      {3, {"IO", 3, "offset:3, readBe24 fail\n"}}, {4, {"IO", 3, "offset:4, readBe32 fail\n"}},
      {7, {"IO", 3, "offset:7, readBe32 fail\n"}}, {8, table},
      {golden.size() - 1, table},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    FaultStream in(golden);
    in.limitBytes(c.first);
    typename TypeParam::Box box(header<TypeParam>());
    LogCapture log;
    EXPECT_EQ(box.readData(&in), -1);
    EXPECT_EQ(log.only(), c.second);
    EXPECT_TRUE(box.entries.empty());
  }
  FaultStream failing(golden);
  failing.failCall(4);
  typename TypeParam::Box box(header<TypeParam>());
  LogCapture log;
  EXPECT_EQ(box.readData(&failing), -1);
  EXPECT_EQ(log.only(), table);
}

TYPED_TEST(ChunkOffset, EveryWriteFailureIsLoggedWithItsOffset) {
  Table<TypeParam> table({10, 20});
  const std::string entry = TypeParam::entryWrite;
  const std::pair<size_t, std::string> cases[] = {
      {0, "offset:0, writeByte fail\n"},
      {1, "offset:1, writeBe24 fail\n"},
      {4, "offset:4, writeBe32 fail\n"},
      {8, "offset:8, " + entry + " fail\n"},
      {9 + TypeParam::width, "offset:" + num(9 + TypeParam::width) + ", " + entry + " fail\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    FaultStream out;
    out.limitBytes(c.first);
    LogCapture log;
    EXPECT_EQ(table.writeData(&out), -1);
    EXPECT_EQ(log.only(), (LogLine{"IO", 3, c.second}));
    EXPECT_EQ(out.data().size(), c.first);
  }
}

TYPED_TEST(ChunkOffset, NullArgumentsAreLoggedAndLeaveTheBoxAlone) {
  Table<TypeParam> table({10});
  LogCapture log;
  EXPECT_EQ(table.readData(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.only(), "readData"));
  log.clear();
  EXPECT_EQ(table.writeData(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.only(), "writeData"));
  log.clear();
  table.getPosByNO(1, nullptr);
  EXPECT_TRUE(isNullParamLine(log.only(), "getPosByNO"));
  log.clear();
  table.crop2new(nullptr, 1, 1, 0);
  EXPECT_TRUE(isNullParamLine(log.only(), "crop2new"));
  log.clear();
  table.merge(nullptr, 1, 1, 0);
  EXPECT_TRUE(isNullParamLine(log.only(), "merge"));
  EXPECT_EQ(table.held(), (Offsets{10}));
  EXPECT_EQ(table.growth(), 0u);
}

TYPED_TEST(ChunkOffset, RecordingGrowsByTheEntryWidth) {
  typename TypeParam::Box table(header<TypeParam>());
  EXPECT_EQ(table.getStartOffset(), 0u);
  table.addEntry(0);
  table.addEntry(TypeParam::high);
  EXPECT_EQ(Offsets(table.entries.begin(), table.entries.end()), (Offsets{0, TypeParam::high}));
  EXPECT_EQ(table.header.size, 16 + 2 * TypeParam::addGrowth);
  EXPECT_EQ(table.getStartOffset(), 0u);
}

TYPED_TEST(ChunkOffset, PositionByNumber) {
  const Table<TypeParam> table({100, TypeParam::high});
  for (uint32_t no : {1u, 2u}) {
    unsigned long long pos = 7;
    LogCapture log;
    table.getPosByNO(no, &pos);
    EXPECT_EQ(pos, no == 1 ? 100u : TypeParam::high);
    EXPECT_TRUE(log.lines().empty());
  }
  for (uint32_t no : {0u, 3u}) {
    SCOPED_TRACE(no);
    unsigned long long pos = 7;
    LogCapture log;
    table.getPosByNO(no, &pos);
    EXPECT_EQ(log.lines(), TypeParam::posMiss(&pos, 7));
  }
  unsigned long long pos = 7;
  LogCapture log;
  Table<TypeParam>({}).getPosByNO(1, &pos);
  EXPECT_EQ(log.lines(), TypeParam::posMiss(&pos, 7));
}

TYPED_TEST(ChunkOffset, ChunkAtOrAfterAnOffset) {
  using T = TypeParam;
  const Table<T> table({100, 200, 300});
  struct Case {
    uint64_t offset;
    uint32_t next, last;
    Lines nextLog, lastLog;
  };
  const Case cases[] = {
      {200, 2, 1, {T::nextLine(200, 2)}, {T::lastLine(200, 2)}},
      {201, 3, 2, {T::nextLine(201, 3)}, {T::lastLine(201, 3)}},
      {0, 1, 0, {T::nextLine(0, 1)}, {T::lastLine(0, 1)}},
      {50, 1, 0, {T::nextLine(50, 1)}, {T::lastLine(50, 1)}},
      {300, 3, 2, {T::nextLine(300, 3)}, {T::lastLine(300, 3)}},
      {301, T::nextMiss(3), 3, {}, {}},
      // The offset is compared in full, not cut to 32 bits.
      {(1ull << 32) + 150, T::nextMiss(3), 3, {}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.offset);
    LogCapture log;
    EXPECT_EQ(table.getNextFrameNoByOffset(c.offset), c.next);
    EXPECT_EQ(log.lines(), c.nextLog);
    log.clear();
    EXPECT_EQ(table.getLastFrameNoByOffset(c.offset), c.last);
    EXPECT_EQ(log.lines(), c.lastLog);
  }
  // Stored order, first match wins: no sorting is assumed.
  const Table<T> unsorted({300, 100, 200});
  LogCapture log;
  EXPECT_EQ(unsorted.getNextFrameNoByOffset(150), 1u);
  EXPECT_EQ(unsorted.getLastFrameNoByOffset(150), 0u);
  const Table<T> empty({});
  EXPECT_EQ(empty.getNextFrameNoByOffset(0), 0u);
  EXPECT_EQ(empty.getLastFrameNoByOffset(0), 0u);
}

// Source chunk range copied to the new file; `copied` pairs each source
// offset with the position it gets.
struct RangeCase {
  const char* name;
  Offsets source;
  uint32_t start, end;
  uint64_t outPos;
  std::vector<std::pair<uint64_t, uint64_t>> copied;
};

const Offsets kSource{100, 250, 600};

const RangeCase kRangeCases[] = {
    {"Tail", kSource, 2, 3, 1000, {{250, 1000}, {600, 1350}}},
    {"StartZeroIsOne", kSource, 0, 1, 1000, {{100, 1000}}},
    {"EndPastTheSource", kSource, 2, 0xFFFFFFFF, 1000, {{250, 1000}, {600, 1350}}},
    {"StartAfterEnd", kSource, 3, 2, 1000, {}},
    {"StartPastTheSource", kSource, 4, 9, 1000, {}},
    {"EmptySource", {}, 1, 9, 1000, {}},
    {"BackwardsStepKeepsItsDistance", {600, 100}, 1, 2, 1000, {{600, 1000}, {100, 500}}},
    // A source offset of 0 counts as no predecessor.
    {"ZeroOffsetIsNoPredecessor", {0, 40, 90}, 1, 3, 1000, {{0, 1000}, {40, 1000}, {90, 1050}}},
};

TYPED_TEST(ChunkOffset, CropAndMergeRebaseTheRange) {
  using T = TypeParam;
  for (const RangeCase& c : kRangeCases) {
    const Table<T> source(c.source);
    for (bool crop : {true, false}) {
      SCOPED_TRACE(std::string(c.name) + (crop ? " crop2new" : " merge"));
      Table<T> table({7});
      LogCapture log;
      crop ? table.crop2new(&source, c.start, c.end, c.outPos)
           : table.merge(&source, c.start, c.end, c.outPos);
      Offsets expected{7};
      Lines lines;
      for (const auto& step : c.copied) {
        expected.push_back(step.second);
        if (crop) lines.push_back(T::cropLine(step.first, step.second));
      }
      EXPECT_EQ(table.held(), expected);
      EXPECT_EQ(table.growth(), c.copied.size() * (crop ? T::cropGrowth : T::mergeGrowth));
      EXPECT_EQ(log.lines(), lines);
    }
  }
}

TYPED_TEST(ChunkOffset, OnlyTheThirtyTwoBitTableStopsAtFourGigabytes) {
  using T = TypeParam;
  // The third chunk would fit again, but the 32-bit copy has ended.
  const Table<T> source({100, 400, 50});
  for (bool crop : {true, false}) {
    SCOPED_TRACE(crop ? "crop2new" : "merge");
    Table<T> table({});
    crop ? table.crop2new(&source, 1, 3, 0xFFFFFF00) : table.merge(&source, 1, 3, 0xFFFFFF00);
    const Offsets expected = T::stopsAt4G ? Offsets{0xFFFFFF00}
                                          : Offsets{0xFFFFFF00, 0x10000002Cull, 0xFFFFFECEull};
    EXPECT_EQ(table.held(), expected);
    EXPECT_EQ(table.growth(), expected.size() * (crop ? T::cropGrowth : T::mergeGrowth));

    Table<T> far({});
    crop ? far.crop2new(&source, 2, 2, 1ull << 32) : far.merge(&source, 2, 2, 1ull << 32);
    EXPECT_EQ(far.held(), T::stopsAt4G ? Offsets{} : Offsets{1ull << 32});
  }
}

TEST(StcoFramePos, StartPositionAndLengthOfAChunkRun) {
  const Table<Stco> table({100, 250, 600});
  struct Case {
    uint32_t startNo, endNo;
    unsigned long long startIn, startOut;
    unsigned lenOut;
    Lines lines;
  };
  const LogLine start1 = trace("start addr 100 startNo 1 frameNumber 1 \n");
  const Case cases[] = {
      {1, 3, 0, 100, 500, {start1, trace("end  addr 600  datalen 500 endno 3 frameNumber 3\n")}},
      {2, 2, 0, 250, 0,
       {trace("start addr 250 startNo 2 frameNumber 2 \n"),
        trace("end  addr 250  datalen 0 endno 2 frameNumber 2\n")}},
      {3, 1, 0, 0, 100, {trace("end  addr 100  datalen 100 endno 1 frameNumber 1\n")}},
      {1, 4, 0, 100, 9, {start1}},
      // A position already set keeps the start from being taken.
      {2, 3, 5, 5, 600, {trace("end  addr 600  datalen 600 endno 3 frameNumber 3\n")}},
      {0, 0, 0, 0, 9, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.startNo) + ".." + std::to_string(c.endNo));
    unsigned long long startPos = c.startIn;
    unsigned dataLen = 9;
    LogCapture log;
    table.getFramePos(c.startNo, c.endNo, &startPos, &dataLen);
    EXPECT_EQ(startPos, c.startOut);
    EXPECT_EQ(dataLen, c.lenOut);
    EXPECT_EQ(log.lines(), c.lines);
  }
  unsigned long long startPos = 0;
  unsigned dataLen = 9;
  LogCapture log;
  Table<Stco>({}).getFramePos(1, 1, &startPos, &dataLen);
  EXPECT_EQ(startPos, 0u);
  EXPECT_EQ(dataLen, 9u);
  table.getFramePos(1, 1, nullptr, &dataLen);
  EXPECT_TRUE(isNullParamLine(log.only(), "getFramePos"));
  log.clear();
  table.getFramePos(1, 1, &startPos, nullptr);
  EXPECT_TRUE(isNullParamLine(log.only(), "getFramePos"));
}

}  // namespace
