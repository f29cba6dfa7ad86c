// The child factories of stbl and stsd, and the sample entries beneath stsd.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <string>
#include <tuple>
#include <typeinfo>

#include "stbl.h"
#include "support/bytes.h"
#include "support/fault_stream.h"
#include "support/log_capture.h"

using namespace mp4stbl;

namespace {
bool failNextNothrowNew = false;
}  // namespace

// Boxes are allocated without throwing; armed, the next such allocation
// fails. Otherwise it allocates through the throwing form, so that every
// block is released by the matching operator delete.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (failNextNothrowNew) {
    failNextNothrowNew = false;
    return nullptr;
  }
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}

namespace {

using Box = std::unique_ptr<Atom>;

AtomHeader headerOf(const char* type) {
  AtomHeader header;
  header.type = type;
  return header;
}

Bytes written(Atom& box) {
  MemoryStream out;
  EXPECT_EQ(box.Write(&out), 0);
  return out.data();
}

Bytes join(std::initializer_list<Bytes> parts) {
  ByteWriter all;
  for (const Bytes& part : parts) all.append(part);
  return all.bytes;
}

// The 78 bytes of a visual entry's fields: vendor "appl", qualities 0x200
// and 0x300, 72 dpi, one frame, compressor name, depth 24, no colour table.
Bytes visualFields(uint16_t width, uint16_t height, const std::string& name) {
  Bytes compressor(32, 0);
  compressor[0] = static_cast<unsigned char>(name.size());
  std::copy(name.begin(), name.end(), compressor.begin() + 1);
  return ByteWriter()
      .be(0, 6).be(1, 2).be(0, 2).be(0, 2).text("appl").u32(0x200).u32(0x300)
      .be(width, 2).be(height, 2).u32(0x00480000).u32(0x00480000).u32(0).be(1, 2)
      .append(compressor).be(0x18, 2).be(0xFFFF, 2).bytes;
}

// The 28 bytes every audio entry starts with; sample size 16, and the
// compression id -2 of QuickTime's versions 1 and 2.
Bytes audioFields(uint16_t soundVersion, uint16_t channels, uint32_t rate) {
  return ByteWriter()
      .be(0, 6).be(1, 2).be(soundVersion, 2).be(0, 2).u32(0)
      .be(channels, 2).be(16, 2).be(soundVersion == 0 ? 0 : 0xFFFE, 2).be(0, 2)
      .u32(rate).bytes;
}

const Bytes kAvcC = ByteWriter::box("avcC", Bytes{1, 0x64, 0, 0x28, 0xFF, 0xE1, 0, 0});
const Bytes kFree = ByteWriter::box("free", Bytes(4, 7));

TEST(ChildFactories, EachTypeYieldsItsClassAndOthersStayOpaque) {
  StblAtom stbl(headerOf("stbl"));
  StsdAtom stsd(headerOf("stsd"));
  const Bytes audio = audioFields(0, 1, 8000u << 16), video = visualFields(640, 480, "");
  const Bytes empty(8, 0), empty12(12, 0), gpmd = ByteWriter().u32(0).u32(1).u32(0).bytes;
  const struct {
    Atom* parent;
    const char* type;
    const Bytes& body;
    const std::type_info& kind;
  } cases[] = {
      {&stbl, "stsd", empty, typeid(StsdAtom)},     {&stbl, "stts", empty, typeid(SttsAtom)},
      {&stbl, "stsc", empty, typeid(StscAtom)},     {&stbl, "stsz", empty12, typeid(StszAtom)},
      {&stbl, "stss", empty, typeid(StssAtom)},     {&stbl, "stco", empty, typeid(StcoAtom)},
      {&stbl, "co64", empty, typeid(Co64Atom)},     {&stbl, "STTS", empty, typeid(UserDefAtom)},
      {&stsd, "gpmd", gpmd, typeid(GpmdAtom)},      {&stsd, "mp4a", audio, typeid(Mp4aAtom)},
      {&stsd, "alaw", audio, typeid(AlawAtom)},     {&stsd, "ulaw", audio, typeid(UlawAtom)},
      {&stsd, "avc1", video, typeid(Avc1Atom)},     {&stsd, "hvc1", video, typeid(Hvc1Atom)},
      {&stsd, "apch", video, typeid(ProresAtom)},   {&stsd, "apco", video, typeid(ProresAtom)},
      {&stsd, "apcn", video, typeid(ProresAtom)},   {&stsd, "apcs", video, typeid(ProresAtom)},
      {&stsd, "apcx", video, typeid(UserDefAtom)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    const Bytes box = ByteWriter::box(c.type, c.body);
    MemoryStream in(join({box, kFree}));
    Box child(c.parent->ReadChild(&in));
    ASSERT_NE(child, nullptr);
    const Atom& read = *child;
    EXPECT_EQ(typeid(read), c.kind);
    EXPECT_EQ(in.getOffset(), static_cast<long long>(box.size()));  // stopped at its end
    if (auto* prores = dynamic_cast<ProresAtom*>(child.get())) {
      EXPECT_EQ(prores->variant, c.type);
    }
    EXPECT_EQ(written(*child), box);
  }
}

TEST(ChildFactories, FailuresYieldNullWithOneLine) {
  StblAtom stbl(headerOf("stbl"));
  StsdAtom stsd(headerOf("stsd"));
  GpmdAtom gpmd(headerOf("gpmd"));
  LogCapture log;
  EXPECT_EQ(stbl.ReadChild(nullptr), nullptr);
  EXPECT_TRUE(isNullParamLine(log.only(), "ReadChild")) << log.only();
  for (Atom* box : {static_cast<Atom*>(&stsd), static_cast<Atom*>(&gpmd)}) {
    log.clear();
    EXPECT_EQ(box->readData(nullptr) + box->writeData(nullptr), -2);
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_TRUE(isNullParamLine(log.lines()[0], "readData"));
    EXPECT_TRUE(isNullParamLine(log.lines()[1], "writeData"));
  }
  log.clear();
  const struct { Atom* parent; const char* type; } noMemory[] = {{&stbl, "stts"}, {&stsd, "mp4a"}};
  for (const auto& c : noMemory) {
    MemoryStream in(ByteWriter::box(c.type, Bytes(28, 0)));
    failNextNothrowNew = true;
    EXPECT_EQ(c.parent->ReadChild(&in), nullptr);
    EXPECT_FALSE(failNextNothrowNew);  // the child was asked for without throwing
    EXPECT_EQ(log.only(), (LogLine{"MP4", 3, std::string("new ") + c.type + " atom no memory\n"}));
    EXPECT_EQ(in.getOffset(), 8);
    log.clear();
  }
  // A gpmd preamble refused after n bytes names the word at offset n.
  for (unsigned n : {0u, 4u, 8u}) {
    FaultStream out;
    out.refuseWritesPast(n);
    EXPECT_EQ(gpmd.writeData(&out), -1);
    EXPECT_EQ(log.only(), (LogLine{"IO", 3, "offset:" + std::to_string(n) + ", writeBe32 fail\n"}));
    log.clear();
  }
  // Three runs claimed, two held: the half-read table is deleted, not leaked.
  const Bytes body = ByteWriter().u32(0).u32(3).u32(1).u32(10).u32(1).u32(20).bytes;
  MemoryStream in(join({ByteWriter::box("stts", body), ByteWriter::box("free", Bytes(16, 0))}));
  EXPECT_EQ(stbl.ReadChild(&in), nullptr);
  EXPECT_EQ(log.only(), (LogLine{"MP4", 3, "read 24 bytes to stts buf failed\n"}));
}

// The two deliberate changes of a round trip: a gpmd preamble is written as
// constants (reference index 1), the stsd count as the number of entries held.
TEST(Stsd, RoundTripResetsTheGpmdPreambleAndTheCount) {
  auto stsd = [](uint32_t count, const Bytes& preamble) {
    return ByteWriter::box("stsd", join({ByteWriter().u32(0).u32(count).bytes,
                                         ByteWriter::box("gpmd", preamble),
                                         ByteWriter::box("alaw", audioFields(0, 1, 8000u << 16))}));
  };
  const Bytes odd = {1, 2, 3, 4, 5, 6, 0, 2, 0xAA, 0xBB, 0xCC, 0xDD};
  for (uint32_t stored : {5u, 0u, 1u, 2u}) {
    StblAtom stbl(headerOf("stbl"));
    MemoryStream in(stsd(stored, odd));
    Box read(stbl.ReadChild(&in));
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(written(*read), stsd(2, ByteWriter().u32(0).u32(1).u32(0).bytes)) << stored;
  }
}

template <class Entry>
std::unique_ptr<Entry> readEntry(const Bytes& box) {
  MemoryStream in(join({box, kFree}));
  StsdAtom stsd(headerOf("stsd"));
  Box child(stsd.ReadChild(&in));
  if (dynamic_cast<Entry*>(child.get()) == nullptr) return nullptr;
  EXPECT_EQ(written(*child), box);
  return std::unique_ptr<Entry>(static_cast<Entry*>(child.release()));
}

// Fields read from golden bytes, and what follows them kept as child boxes
// when it is a clean run of boxes, as raw bytes otherwise; all written back.
TEST(SampleEntry, FieldsAndWhatFollowsThemRoundTrip) {
  auto avc1 = readEntry<Avc1Atom>(
      ByteWriter::box("avc1", join({visualFields(1920, 1080, "AVC Coding"), kAvcC})));
  auto hvc1 = readEntry<Hvc1Atom>(
      ByteWriter::box("hvc1", join({visualFields(320, 240, "x"), kAvcC, Bytes{0xAB, 0xCD}})));
  // Sound version 2: struct size 72, 48000.0 as a double, 6 channels, 24
  // bits, float|packed, 18 bytes a packet, one frame a packet.
  const Bytes v2 = ByteWriter().u32(72).u64(0x40E7700000000000).u32(6).u32(0x7F000000).u32(24)
                       .u32(0x0C).u32(18).u32(1).bytes;
  auto mp4a = readEntry<Mp4aAtom>(ByteWriter::box("mp4a", join({audioFields(2, 3, 0x10000), v2})));
  // Sound version 1: 1024 samples a packet, 6 bytes a packet, 12 a frame, 2
  // a sample; then a wave box holding frma and esds, and a chan box.
  const Bytes wave = ByteWriter::box("wave", join({ByteWriter::box("frma", ByteWriter().text("mp4a").bytes),
                                                   ByteWriter::box("esds", Bytes{0, 0, 0, 0, 3, 0x19})}));
  const Bytes chan = ByteWriter::box("chan", Bytes(12, 0));
  auto v1 = readEntry<Mp4aAtom>(ByteWriter::box(
      "mp4a", join({audioFields(1, 2, 44100u << 16), ByteWriter().u32(1024).u32(6).u32(12).u32(2).bytes,
                    wave, chan})));
  ASSERT_TRUE(avc1 && hvc1 && mp4a && v1);
  EXPECT_EQ(std::make_tuple(avc1->width, avc1->height, avc1->vendor, avc1->spatialQuality,
                            avc1->compressorName[1], avc1->colorTableId),
            std::make_tuple(1920, 1080, 0x6170706Cu, 0x300u, 'A', 0xFFFF));
  ASSERT_EQ(avc1->children.size(), 1u);
  EXPECT_EQ(dynamic_cast<UserDefAtom&>(*avc1->children.front()).body,
            Bytes(kAvcC.begin() + 8, kAvcC.end()));
  EXPECT_TRUE(avc1->tail.empty());
  EXPECT_TRUE(hvc1->children.empty());
  EXPECT_EQ(hvc1->tail, join({kAvcC, Bytes{0xAB, 0xCD}}));
  EXPECT_EQ(std::make_tuple(mp4a->channelCount, mp4a->sampleRate, mp4a->compressionId,
                            mp4a->v2StructSize, mp4a->v2SampleRate),
            std::make_tuple(3, 0x10000u, 0xFFFE, 72u, 0x40E7700000000000u));
  EXPECT_EQ(mp4a->v2, (std::array<uint32_t, 6>{6, 0x7F000000, 24, 0x0C, 18, 1}));
  EXPECT_TRUE(mp4a->children.empty() && mp4a->tail.empty());
  EXPECT_EQ(std::make_tuple(v1->soundVersion, v1->channelCount, v1->sampleRate, v1->v1, v1->tail.size()),
            std::make_tuple(1, 2, 44100u << 16, std::array<uint32_t, 4>{1024, 6, 12, 2}, size_t{0}));
  ASSERT_EQ(v1->children.size(), 2u);
  EXPECT_EQ(dynamic_cast<UserDefAtom&>(*v1->children.front()).body, Bytes(wave.begin() + 8, wave.end()));
  EXPECT_EQ(v1->children.back()->header.type, "chan");
}

// A body cut short fails at the offset reached, never reading into the next box.
TEST(SampleEntry, TruncatedFieldsFailWithTheStreamOffset) {
  StblAtom stbl(headerOf("stbl"));
  StsdAtom stsd(headerOf("stsd"));
  const struct { Atom* parent; const char* type; Bytes fields; const char* text; } cases[] = {
      {&stsd, "mp4a", Bytes(20, 0), "offset:28, readBe16 fail\n"},
      {&stsd, "alaw", join({audioFields(1, 2, 0), Bytes(8, 0)}), "offset:44, readBe32 fail\n"},
      {&stsd, "mp4a", join({audioFields(2, 2, 0), Bytes(7, 0)}), "offset:43, readBe64 fail\n"},
      {&stsd, "avc1", Bytes(50, 0), "offset:58, readBytes fail\n"},
      {&stsd, "gpmd", Bytes(8, 0), "offset:16, readBe32 fail\n"},
      {&stbl, "stsd", ByteWriter().u8(1).u24(0x0A0B0C).bytes, "offset:12, readBe32 fail\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    MemoryStream in(join({ByteWriter::box(c.type, c.fields), kFree}));
    LogCapture log;
    EXPECT_EQ(c.parent->ReadChild(&in), nullptr);
    EXPECT_EQ(log.only(), (LogLine{"IO", 3, c.text}));
  }
}

}  // namespace
