// The frame all six sample tables share, run against each of them: version,
// flags and count, the count guard, the one-read table load, the empty-table
// notice, stream failures at the offset reached and null arguments. What a
// table does beyond the frame is tested in its own file.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stbl.h"
#include "support/bytes.h"
#include "support/fault_stream.h"
#include "support/log_capture.h"
#include "support/records.h"

using namespace mp4stbl;

namespace {

using Lines = std::vector<LogLine>;
using Names = std::vector<std::string>;

std::string num(uint64_t value) { return std::to_string(value); }

// What sets a table apart in the frame: its record width, the words between
// flags and count (stsz's default size), two records as golden bytes and as
// entries, and the operations taking pointers, called with null.
template <class B, unsigned Width, unsigned Leading = 0>
struct Kind {
  using Box = B;
  static constexpr unsigned width = Width, head = 8 + 4 * Leading;
  static constexpr bool admitsQuotient = false;
  static constexpr const char* entryWrite = "writeBe32";
};

struct Stts : Kind<SttsAtom, 8> {
  static constexpr const char* type = "stts";
  static constexpr bool admitsQuotient = true;
  // Two runs of one delta: reading does not fold them.
  static Bytes records() { return ByteWriter().u32(3).u32(1000).u32(0xFFFFFFFF).u32(1000).bytes; }
  static std::vector<SttsEntry> entries() { return {{3, 1000}, {0xFFFFFFFF, 1000}}; }
  static Names nullOps(SttsAtom& b) { b.merge(nullptr, 1, 1); return {"merge"}; }
};
struct Stsc : Kind<StscAtom, 12> {
  static constexpr const char* type = "stsc";
  static Bytes records() { return ByteWriter().u32(1).u32(30).u32(1).u32(4).u32(30).u32(1).bytes; }
  static std::vector<StscEntry> entries() { return {{1, 30, 1}, {4, 30, 1}}; }
  static Names nullOps(StscAtom& b) { b.merge(nullptr, 1, 1); return {"merge"}; }
};
struct Stsz : Kind<StszAtom, 4, 1> {
  static constexpr const char* type = "stsz";
  static Bytes records() { return ByteWriter().u32(0x11).u32(0xFFFFFFFF).bytes; }
  static std::vector<uint32_t> entries() { return {0x11, 0xFFFFFFFF}; }
  static Names nullOps(StszAtom& b) {
    b.crop2new(nullptr, 1, 1);
    b.merge(nullptr, 1, 1);
    return {"crop2new", "merge"};
  }
};
struct Stss : Kind<StssAtom, 4> {
  static constexpr const char* type = "stss";
  static Bytes records() { return ByteWriter().u32(1).u32(0xFFFFFFFF).bytes; }
  static std::vector<uint32_t> entries() { return {1, 0xFFFFFFFF}; }
  static Names nullOps(StssAtom& b) {
    b.getIFrameNumber(nullptr);
    b.crop2new(nullptr, 1, 1);
    b.merge(nullptr, 1, 1, 0);
    return {"getIFrameNumber", "crop2new", "merge"};
  }
};
struct Stco : Kind<StcoAtom, 4> {
  static constexpr const char* type = "stco";
  static Bytes records() { return ByteWriter().u32(0x100).u32(0xFFFFFFF0).bytes; }
  static std::vector<uint32_t> entries() { return {0x100, 0xFFFFFFF0}; }
  static Names nullOps(StcoAtom& b) {
    unsigned long long pos = 0;
    uint32_t length = 0;
    b.getPosByNO(1, nullptr);
    b.getFramePos(1, 1, nullptr, &length);
    b.getFramePos(1, 1, &pos, nullptr);
    b.crop2new(nullptr, 1, 1, 0);
    b.merge(nullptr, 1, 1, 0);
    return {"getPosByNO", "getFramePos", "getFramePos", "crop2new", "merge"};
  }
};
struct Co64 : Kind<Co64Atom, 8> {
  static constexpr const char* type = "co64";
  static constexpr const char* entryWrite = "writeBe64";
  static Bytes records() { return ByteWriter().u64(0x100).u64(0x123456789ABC).bytes; }
  static std::vector<uint64_t> entries() { return {0x100, 0x123456789ABC}; }
  static Names nullOps(Co64Atom& b) {
    b.getPosByNO(1, nullptr);
    b.crop2new(nullptr, 1, 1, 0);
    b.merge(nullptr, 1, 1, 0);
    return {"getPosByNO", "crop2new", "merge"};
  }
};

// version 1, flags 0x0A0B0C, stsz's default size 0x400, the count, the records.
template <class T>
Bytes body(uint32_t count, const Bytes& records) {
  ByteWriter w;
  w.u8(1).u24(0x0A0B0C);
  if (T::head > 8) w.u32(0x400);
  return w.u32(count).append(records).bytes;
}

template <class T>
LogLine tableLine(uint64_t bytes) {
  return {"MP4", 3, "read " + num(bytes) + " bytes to " + T::type + " buf failed\n"};
}

LogLine ioLine(uint64_t offset, const std::string& operation) {
  return {"IO", 3, "offset:" + num(offset) + ", " + operation + " fail\n"};
}

template <class T>
class TableFrame : public ::testing::Test {};

struct TypeNames {
  template <class T>
  static std::string GetName(int) { return T::type; }
};

using Tables = ::testing::Types<Stts, Stsc, Stsz, Stss, Stco, Co64>;
TYPED_TEST_SUITE(TableFrame, Tables, TypeNames);

TYPED_TEST(TableFrame, GoldenBoxReadsWritesBackAndLaterReadsAppend) {
  using T = TypeParam;
  const Bytes golden = body<T>(2, T::records());
  const Bytes box = ByteWriter::box(T::type, golden);
  MemoryStream in(ByteWriter().append(box).append(ByteWriter::box("free", Bytes(8, 1))).bytes);
  typename T::Box table{AtomHeader()};
  LogCapture log;
  ASSERT_EQ(table.Read(&in), 0);
  EXPECT_EQ(in.getOffset(), static_cast<long long>(box.size()));
  EXPECT_EQ(table.entries, T::entries());
  MemoryStream out;
  ASSERT_EQ(table.Write(&out), 0);
  EXPECT_EQ(out.data(), box);
  EXPECT_TRUE(log.lines().empty());

  MemoryStream again(golden);
  ASSERT_EQ(table.readData(&again), 0);
  auto twice = T::entries();
  const auto once = twice;
  twice.insert(twice.end(), once.begin(), once.end());
  EXPECT_EQ(table.entries, twice);
  // An empty table is a notice; nothing after its count is read.
  MemoryStream empty(ByteWriter().append(body<T>(0, {})).u32(0xDEADBEEF).bytes);
  EXPECT_EQ(table.readData(&empty), 0);
  EXPECT_EQ(empty.getOffset(), T::head);
  EXPECT_EQ(table.entries, twice);
  EXPECT_EQ(table.header.size, box.size());  // reading never grows the box
  EXPECT_EQ(log.only(), (LogLine{"MP4", 1, std::string("no entry in ") + T::type + "\n"}));
}

// The guard keeps count × width plus the box size within 32 bits: stts admits
// the quotient itself and logs its refusal, the others refuse it silently.
TYPED_TEST(TableFrame, CountGuardAdmitsOnlyWhatFitsIn32Bits) {
  using T = TypeParam;
  const uint32_t quotient = (0xFFFFFFFFu - 0x1234) / T::width;
  const Lines refused =
      T::admitsQuotient ? Lines{{"MP4", 3, std::string(T::type) + " entry count err\n"}} : Lines{};
  const std::pair<uint32_t, Lines> cases[] = {
      // Past the guard, refused by the stream's length before any allocation.
      {quotient - 1, {tableLine<T>(uint64_t{quotient - 1} * T::width)}},
      {quotient, T::admitsQuotient ? Lines{tableLine<T>(uint64_t{quotient} * T::width)} : Lines{}},
      {quotient + 1, refused},
      {0xFFFFFFFF, refused},
  };
  for (const auto& [count, lines] : cases) {
    SCOPED_TRACE(count);
    MemoryStream in(body<T>(count, T::records()));
    typename T::Box table{AtomHeader()};
    table.header.size = 0x1234;
    LogCapture log;
    EXPECT_EQ(table.readData(&in), -1);
    EXPECT_EQ(log.lines(), lines);
    EXPECT_TRUE(table.entries.empty());
  }
}

TYPED_TEST(TableFrame, StreamFailuresNameTheFieldAndTheOffsetReached) {
  using T = TypeParam;
  const Bytes golden = body<T>(2, T::records());
  const size_t head = T::head;
  const std::pair<size_t, LogLine> reads[] = {
      {0, ioLine(0, "readByte")}, {3, ioLine(3, "readBe24")}, {7, ioLine(7, "readBe32")},
      {head - 1, ioLine(head - 1, "readBe32")}, {head, tableLine<T>(2 * T::width)},
      {golden.size() - 1, tableLine<T>(2 * T::width)},
  };
  for (const auto& [limit, line] : reads) {
    SCOPED_TRACE("read " + num(limit));
    FaultStream in(golden);
    in.limitBytes(limit);
    typename T::Box table{AtomHeader()};
    LogCapture log;
    EXPECT_EQ(table.readData(&in), -1);
    EXPECT_EQ(log.only(), line);
    EXPECT_TRUE(table.entries.empty());
  }
  typename T::Box table{AtomHeader()};
  MemoryStream in(golden);
  ASSERT_EQ(table.readData(&in), 0);
  LogCapture log;
  const std::pair<size_t, std::string> writes[] = {
      {0, "writeByte"}, {3, "writeBe24"}, {6, "writeBe32"},
      {head, T::entryWrite}, {head + T::width + 1, T::entryWrite},
  };
  for (const auto& [limit, operation] : writes) {
    SCOPED_TRACE("write " + num(limit));
    FaultStream out;
    out.limitBytes(limit);
    EXPECT_EQ(table.writeData(&out), -1);
    EXPECT_EQ(log.only(), ioLine(limit, operation));
    EXPECT_EQ(out.data().size(), limit);  // what was written stays written
    log.clear();
  }
  // A stream that refuses a write whole: the refusal is that of the first
  // record in it, reported where the stream stands, and never retried.
  FaultStream out;
  out.refuseWritesPast(head + T::width + 3);
  EXPECT_EQ(table.writeData(&out), -1);
  EXPECT_EQ(log.only(), ioLine(head, T::entryWrite));
  EXPECT_EQ(out.data(), Bytes(golden.begin(), golden.begin() + head));
}

TYPED_TEST(TableFrame, NullArgumentsAreLoggedAndChangeNothing) {
  using T = TypeParam;
  typename T::Box table{AtomHeader()};
  table.entries = T::entries();
  LogCapture log;
  EXPECT_EQ(table.readData(nullptr), -1);
  EXPECT_EQ(table.writeData(nullptr), -1);
  Names names = {"readData", "writeData"};
  for (const std::string& name : T::nullOps(table)) names.push_back(name);
  ASSERT_EQ(log.lines().size(), names.size());
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_TRUE(isNullParamLine(log.lines()[i], names[i])) << log.lines()[i];
  }
  EXPECT_EQ(table.entries, T::entries());
  EXPECT_EQ(table.header.size, 0u);
}

}  // namespace
