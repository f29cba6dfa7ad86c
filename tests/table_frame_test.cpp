// The frame all six sample tables share, run against each of them: version,
// flags and count, the count guard, the one-read table load, the empty-table
// notice, stream failures at the offset reached and null streams. What a
// table does beyond the frame is tested in its own file.
#include "support/fault_stream.h"
#include "support/test.h"

namespace {

using Lines = std::vector<LogLine>;

std::string num(uint64_t value) { return std::to_string(value); }

// What sets a table apart in the frame: its type and record width, whether
// stsz's default size sits between flags and count, and two records as
// golden bytes and as entries. Every pair holds a word that reads differently
// in the wrong byte order or word width.
template <class B, unsigned Width, bool Leading = false>
struct Kind {
  using Box = B;
  static constexpr unsigned width = Width, head = Leading ? 12 : 8;
  static constexpr bool admitsQuotient = false;
  static constexpr const char* entryWrite = std::is_same_v<B, Co64Atom> ? "writeBe64" : "writeBe32";
};

struct Stts : Kind<SttsAtom, 8> {
  static constexpr const char* type = "stts";
  static constexpr bool admitsQuotient = true;
  // Two runs of one delta: reading does not fold them.
  static Bytes records() { return ByteWriter().u32(3).u32(1000).u32(0xFFFFFFFF).u32(1000).bytes; }
  static std::vector<SttsEntry> entries() { return {{3, 1000}, {0xFFFFFFFF, 1000}}; }
};
struct Stsc : Kind<StscAtom, 12> {
  static constexpr const char* type = "stsc";
  static Bytes records() { return ByteWriter().u32(1).u32(30).u32(2).u32(4).u32(30).u32(1).bytes; }
  static std::vector<StscEntry> entries() { return {{1, 30, 2}, {4, 30, 1}}; }
};
struct Stsz : Kind<StszAtom, 4, true> {
  static constexpr const char* type = "stsz";
  static Bytes records() { return ByteWriter().u32(0x11).u32(0xFFFFFF00).bytes; }
  static std::vector<uint32_t> entries() { return {0x11, 0xFFFFFF00}; }
};
struct Stss : Kind<StssAtom, 4> {
  static constexpr const char* type = "stss";
  static Bytes records() { return ByteWriter().u32(1).u32(0x01020304).bytes; }
  static std::vector<uint32_t> entries() { return {1, 0x01020304}; }
};
struct Stco : Kind<StcoAtom, 4> {
  static constexpr const char* type = "stco";
  static Bytes records() { return ByteWriter().u32(0x100).u32(0xFFFFFFF0).bytes; }
  static std::vector<uint32_t> entries() { return {0x100, 0xFFFFFFF0}; }
};
struct Co64 : Kind<Co64Atom, 8> {
  static constexpr const char* type = "co64";
  static Bytes records() { return ByteWriter().u64(0x100).u64(0x123456789ABC).bytes; }
  static std::vector<uint64_t> entries() { return {0x100, 0x123456789ABC}; }
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
  // Null streams are refused and leave the table as it was.
  log.clear();
  EXPECT_EQ(table.readData(nullptr), -1);
  EXPECT_EQ(table.writeData(nullptr), -1);
  EXPECT_TRUE(isNullParamLine(log.lines().at(0), "readData") &&
              isNullParamLine(log.lines().at(1), "writeData"));
  EXPECT_EQ(table.entries, twice);
}

// A read refused: by the count guard, which keeps count × width plus the box
// size within 32 bits (stts admits the quotient itself and logs its refusal,
// the others refuse it silently), by a table longer than the stream before
// anything is allocated, or by a stream that ends early, named at the offset
// reached.
TYPED_TEST(TableFrame, RefusedReadsAndWritesNameTheirCause) {
  using T = TypeParam;
  const uint32_t quotient = (0xFFFFFFFFu - 0x1234) / T::width;
  const Lines refused =
      T::admitsQuotient ? Lines{{"MP4", 3, std::string(T::type) + " entry count err\n"}} : Lines{};
  const Bytes golden = body<T>(2, T::records());
  const size_t head = T::head;
  const std::tuple<uint32_t, size_t, Lines> reads[] = {
      {quotient - 1, SIZE_MAX, {tableLine<T>(uint64_t{quotient - 1} * T::width)}},
      {quotient, SIZE_MAX,
       T::admitsQuotient ? Lines{tableLine<T>(uint64_t{quotient} * T::width)} : Lines{}},
      {quotient + 1, SIZE_MAX, refused},
      {0xFFFFFFFF, SIZE_MAX, refused},
      {2, 0, {ioLine(0, "readByte")}},
      {2, 3, {ioLine(3, "readBe24")}},
      {2, head - 1, {ioLine(head - 1, "readBe32")}},
      {2, head, {tableLine<T>(2 * T::width)}},
      {2, golden.size() - 1, {tableLine<T>(2 * T::width)}},
  };
  for (const auto& [count, limit, lines] : reads) {
    SCOPED_TRACE(num(count) + " read " + num(limit));
    FaultStream in(body<T>(count, T::records()));
    in.limitBytes(limit);
    typename T::Box table{AtomHeader()};
    table.header.size = 0x1234;
    LogCapture log;
    EXPECT_EQ(table.readData(&in), -1);
    EXPECT_EQ(log.lines(), lines);
    EXPECT_TRUE(table.entries.empty());
  }
  // A write stops at the field the stream refused.
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

}  // namespace
