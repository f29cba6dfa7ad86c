// The boxes an editor keeps beside the sample tables: golden bodies read,
// shown and written back byte for byte, and counts that pass their box.
#include <iterator>

#include "support/test.h"

namespace {

constexpr AtomType kTypes[] = {
    {"ctts", &makeAtom<CttsAtom>}, {"elst", &makeAtom<ElstAtom>}, {"sdtp", &makeAtom<SdtpAtom>},
    {"sgpd", &makeAtom<SgpdAtom>}, {"sbgp", &makeAtom<SbgpAtom>},
};

// What a box shows of itself, as one line of text.
struct TextSink : FieldSink {
  void field(const char* name, uint64_t value) override {
    text += std::string(name) + " " + std::to_string(value) + " ";
  }
  size_t table(size_t count) override {
    text += "count " + std::to_string(count);
    return SIZE_MAX;
  }
  void row(const uint64_t* values, unsigned count) override { add(values, count); }
  void signedRow(const int64_t* values, unsigned count) override { add(values, count); }
  template <class Number>
  void add(const Number* values, unsigned count) {
    for (unsigned i = 0; i < count; ++i) text += (i ? " " : " [") + std::to_string(values[i]);
    text += "]";
  }
  std::string text;
};

Atom* readBox(const Bytes& bytes) {
  MemoryStream in(bytes);
  return ReadTypedChild(&in, kTypes, std::size(kTypes));
}

ByteWriter full(unsigned version) { return std::move(ByteWriter().u8(version).u24(0)); }

// Golden bodies read, shown and written back identical; a count or length
// that the rest of the box cannot hold is refused before anything is
// allocated, its one line saying where.
TEST(EditBoxes, GoldenBodiesReadShowAndWriteBackIdenticalCountsPastTheBoxRefused) {
  const std::string v0 = "version 0 flags 0 ", v1 = "version 1 flags 0 ";
  const std::string roll = "grouping_type 1919904876 ", past = " run past the box\n";
  const struct { const char* type; Bytes body; std::string shown; } cases[] = {
      {"ctts", full(0).u32(2).u32(2).u32(1024).u32(1).u32(0xFFFFFC00).bytes,
       v0 + "count 2 [2 1024] [1 4294966272]"},
      {"ctts", full(1).u32(2).u32(3).u32(0xFFFFFE00).u32(1).u32(512).bytes,
       v1 + "count 2 [3 -512] [1 512]"},
      {"elst",
       full(0).u32(2).u32(500).u32(0xFFFFFFFF).be(1, 2).be(0, 2).u32(400).u32(1024).be(1, 2)
           .be(0, 2).bytes,
       v0 + "count 2 [500 -1 1 0] [400 1024 1 0]"},
      {"elst", full(1).u32(1).u64(1ull << 33).u64(0x100000005).be(0xFFFF, 2).be(0x8000, 2).bytes,
       v1 + "count 1 [8589934592 4294967301 -1 -32768]"},
      {"sdtp", full(0).u8(0x20).u8(0x1B).bytes, v0 + "count 2 [0 2 0 0] [0 1 2 3]"},
      {"sgpd", full(1).text("roll").u32(2).u32(2).be(0xFFFF, 2).be(1, 2).bytes,
       v1 + roll + "default_length 2 count 2 [2 65535] [2 1]"},
      {"sgpd", full(1).text("roll").u32(0).u32(2).u32(1).u8(7).u32(3).u8(1).u8(2).u8(3).bytes,
       v1 + roll + "default_length 0 count 2 [1 7] [3 66051]"},
      {"sgpd", full(2).text("roll").u32(1).u32(4).u32(1).u8(9).bytes,
       "version 2 flags 0 " + roll + "default_length 1 default_description_index 4 count 1 [1 9]"},
      {"sgpd", full(0).text("roll").u32(1).be(5, 2).bytes, v0},
      {"sbgp", full(1).text("roll").u32(3).u32(1).u32(6).u32(2).bytes,
       v1 + roll + "grouping_type_parameter 3 count 1 [6 2]"},
      {"ctts", full(0).u32(1u << 28).u32(1).u32(0).bytes,
       "268435456 records of 8 bytes at offset 16" + past},
      {"elst", full(1).u32(0xFFFFFFFF).u64(1).u64(0).u32(0).bytes,
       "4294967295 records of 20 bytes at offset 16" + past},
      {"elst", full(0).u32(2).u32(1).u32(0).u32(0).bytes,
       "2 records of 12 bytes at offset 16" + past},
      {"sgpd", full(1).text("roll").u32(0xFFFFFFFF).u32(2).u32(0).bytes,
       "2 records of 4294967295 bytes at offset 24" + past},
      {"sgpd", full(1).text("roll").u32(0).u32(1).u32(0xFFFFFFF0).u32(0).bytes,
       "4294967280 records of 1 bytes at offset 28" + past},
      {"sbgp", full(1).text("roll").u32(0).u32(0x20000000).u32(1).u32(1).bytes,
       "536870912 records of 8 bytes at offset 24" + past},
  };
  for (const auto& c : cases) {
    const Bytes bytes = ByteWriter::box(c.type, c.body);
    LogCapture log;
    std::unique_ptr<Atom> box(readBox(bytes));
    if (c.shown.find(past) != std::string::npos) {
      EXPECT_EQ(box, nullptr) << c.shown;
      EXPECT_EQ(log.lines().empty() ? "" : log.lines().front().text, c.shown);
      continue;
    }
    ASSERT_NE(dynamic_cast<FullBoxAtom*>(box.get()), nullptr) << c.shown;
    TextSink sink;
    box->describe(sink);
    EXPECT_EQ(sink.text, c.shown);
    MemoryStream out;
    ASSERT_EQ(box->Write(&out), 0);
    EXPECT_EQ(out.data(), bytes) << c.shown;
  }
}

}  // namespace
