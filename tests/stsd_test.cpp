// The sample table container, the sample description box, its child
// factories and the sample entries beneath it.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <string>
#include <typeinfo>
#include <vector>

#include "stbl.h"
#include "support/bytes.h"
#include "support/log_capture.h"

namespace {
bool failNextNothrowNew = false;
}  // namespace

// The boxes are allocated without throwing; armed, the next such
// allocation fails. Otherwise it allocates through the throwing form, so
// that every block is released by the matching operator delete.
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

Bytes compressor(const std::string& name) {
  Bytes field(32, 0);
  field[0] = static_cast<unsigned char>(name.size());
  std::copy(name.begin(), name.end(), field.begin() + 1);
  return field;
}

// The 78 bytes of a visual entry's fields: vendor "appl", qualities 0x200
// and 0x300, 72 dpi, one frame, depth 24, no colour table.
Bytes visualFields(uint16_t width, uint16_t height, const std::string& name) {
  return ByteWriter()
      .be(0, 6).be(1, 2).be(0, 2).be(0, 2).text("appl").u32(0x200).u32(0x300)
      .be(width, 2).be(height, 2).u32(0x00480000).u32(0x00480000).u32(0).be(1, 2)
      .append(compressor(name)).be(0x18, 2).be(0xFFFF, 2).bytes;
}

// The 28 bytes every audio entry starts with; sample size 16, and the
// compression id -2 of QuickTime's versions 1 and 2.
Bytes audioFields(uint16_t soundVersion, uint16_t channels, uint32_t rate) {
  return ByteWriter()
      .be(0, 6).be(1, 2).be(soundVersion, 2).be(0, 2).u32(0)
      .be(channels, 2).be(16, 2).be(soundVersion == 0 ? 0 : 0xFFFE, 2).be(0, 2)
      .u32(rate).bytes;
}

Bytes join(std::initializer_list<Bytes> parts) {
  ByteWriter all;
  for (const Bytes& part : parts) all.append(part);
  return all.bytes;
}

const Bytes kGpmdPreamble = ByteWriter().u32(0).u32(1).u32(0).bytes;
const Bytes kAvcC = ByteWriter::box("avcC", Bytes{1, 0x64, 0, 0x28, 0xFF, 0xE1, 0, 0});
const Bytes kEsds = ByteWriter::box("esds", ByteWriter().u32(0).u8(3).u8(0x19).be(0, 2).bytes);
const Bytes kMp4a = ByteWriter::box("mp4a", join({audioFields(0, 2, 48000u << 16), kEsds}));
const Bytes kAvc1 = ByteWriter::box("avc1", join({visualFields(1920, 1080, "AVC Coding"), kAvcC}));

struct ChildCase {
  const char* type;
  Bytes body;
  const std::type_info* kind;
  const char* variant;  // ProRes only
};

// Reads the box, followed by another, through the parent's factory, checks
// the class and that the child stopped at its end and writes back its box.
void expectChild(Atom& parent, const ChildCase& c) {
  SCOPED_TRACE(c.type);
  const Bytes box = ByteWriter::box(c.type, c.body);
  MemoryStream in(join({box, ByteWriter::box("free", Bytes(4, 7))}));
  Box child(parent.ReadChild(&in));
  ASSERT_NE(child, nullptr);
  const Atom& read = *child;
  EXPECT_EQ(typeid(read), *c.kind);
  EXPECT_EQ(child->header.type, c.type);
  EXPECT_EQ(child->auxWord, 0u);
  EXPECT_EQ(in.getOffset(), static_cast<long long>(box.size()));
  if (auto* opaque = dynamic_cast<UserDefAtom*>(child.get())) {
    EXPECT_EQ(opaque->body, c.body);
  }
  if (c.variant != nullptr) {
    EXPECT_EQ(dynamic_cast<ProresAtom&>(*child).variant, c.variant);
  }
  EXPECT_EQ(written(*child), box);
  EXPECT_TRUE(parent.children.empty());
}

TEST(StblChild, EachTableTypeYieldsItsClassAndOthersStayOpaque) {
  const ChildCase cases[] = {
      {"stsd", ByteWriter().u32(0).u32(0).bytes, &typeid(StsdAtom), nullptr},
      {"stts", ByteWriter().u32(0).u32(1).u32(5).u32(1000).bytes, &typeid(SttsAtom), nullptr},
      {"stsc", ByteWriter().u32(0).u32(1).u32(1).u32(4).u32(1).bytes, &typeid(StscAtom), nullptr},
      {"stsz", ByteWriter().u32(0).u32(0).u32(2).u32(9).u32(7).bytes, &typeid(StszAtom), nullptr},
      {"stss", ByteWriter().u32(0).u32(1).u32(1).bytes, &typeid(StssAtom), nullptr},
      {"stco", ByteWriter().u32(0).u32(1).u32(0x30).bytes, &typeid(StcoAtom), nullptr},
      {"co64", ByteWriter().u32(0).u32(1).u64(0x100000000).bytes, &typeid(Co64Atom), nullptr},
      {"STTS", ByteWriter().u32(0).u32(0).bytes, &typeid(UserDefAtom), nullptr},
      {"stz2", Bytes{1, 2, 3}, &typeid(UserDefAtom), nullptr},
  };
  StblAtom stbl(headerOf("stbl"));
  for (const ChildCase& c : cases) expectChild(stbl, c);
}

TEST(StsdChild, EachCodingYieldsItsEntryAndOthersStayOpaque) {
  const Bytes audio = audioFields(0, 1, 8000u << 16);
  const Bytes video = visualFields(640, 480, "");
  const ChildCase cases[] = {
      {"gpmd", kGpmdPreamble, &typeid(GpmdAtom), nullptr},
      {"mp4a", audio, &typeid(Mp4aAtom), nullptr},
      {"alaw", audio, &typeid(AlawAtom), nullptr},
      {"ulaw", audio, &typeid(UlawAtom), nullptr},
      {"avc1", video, &typeid(Avc1Atom), nullptr},
      {"hvc1", video, &typeid(Hvc1Atom), nullptr},
      {"apch", video, &typeid(ProresAtom), "apch"},
      {"apco", video, &typeid(ProresAtom), "apco"},
      {"apcn", video, &typeid(ProresAtom), "apcn"},
      {"apcs", video, &typeid(ProresAtom), "apcs"},
      {"apcx", video, &typeid(UserDefAtom), nullptr},
      {"avc3", video, &typeid(UserDefAtom), nullptr},
      {"mp4v", video, &typeid(UserDefAtom), nullptr},
  };
  StsdAtom stsd(headerOf("stsd"));
  for (const ChildCase& c : cases) expectChild(stsd, c);
}

TEST(ChildFactories, NullStreamAndUnreadableHeadersYieldNull) {
  StblAtom stbl(headerOf("stbl"));
  StsdAtom stsd(headerOf("stsd"));
  struct Case {
    Bytes bytes;
    LogLine line;  // the header reader's own line; the factory adds none
  };
  const Case cases[] = {
      {Bytes{}, {"IO", 3, "offset:0, readBe32 fail\n"}},
      {ByteWriter().u32(8).text("st").bytes, {"IO", 3, "offset:6, readBytes fail\n"}},
      {ByteWriter().u32(4).text("stts").bytes,
       {"MP4", 3, "box stts at offset 0 has a bad size 4\n"}},
      {ByteWriter().u32(100).text("mp4a").u64(0).bytes,
       {"MP4", 3, "box mp4a at offset 0 claims 100 bytes, only 16 remain\n"}},
  };
  for (Atom* parent : {static_cast<Atom*>(&stbl), static_cast<Atom*>(&stsd)}) {
    SCOPED_TRACE(parent->header.type);
    LogCapture log;
    EXPECT_EQ(parent->ReadChild(nullptr), nullptr);
    EXPECT_TRUE(isNullParamLine(log.only(), "ReadChild")) << log.only();
    for (const Case& c : cases) {
      SCOPED_TRACE(c.line.text);
      MemoryStream in(c.bytes);
      log.clear();
      EXPECT_EQ(parent->ReadChild(&in), nullptr);
      EXPECT_EQ(log.only(), c.line);
    }
  }
}

TEST(ChildFactories, AllocationFailureIsLoggedAndYieldsNull) {
  StblAtom stbl(headerOf("stbl"));
  StsdAtom stsd(headerOf("stsd"));
  struct Case {
    Atom* parent;
    Bytes box;
    const char* text;
  };
  const Case cases[] = {
      {&stbl, ByteWriter::box("stts", Bytes(8, 0)), "new stts atom no memory\n"},
      {&stsd, kMp4a, "new mp4a atom no memory\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    MemoryStream in(c.box);
    LogCapture log;
    failNextNothrowNew = true;
    EXPECT_EQ(c.parent->ReadChild(&in), nullptr);
    EXPECT_FALSE(failNextNothrowNew);  // the child was asked for without throwing
    EXPECT_EQ(log.only(), (LogLine{"MP4", 3, c.text}));
    EXPECT_EQ(in.getOffset(), 8);  // left where the header read left it
  }
}

TEST(ChildFactories, ChildWhoseBodyFailsIsDeleted) {
  // Three runs claimed, two held: the half-read table must not leak.
  const Bytes body = ByteWriter().u32(0).u32(3).u32(1).u32(10).u32(1).u32(20).bytes;
  MemoryStream in(join({ByteWriter::box("stts", body), ByteWriter::box("free", Bytes(16, 0))}));
  StblAtom stbl(headerOf("stbl"));
  LogCapture log;
  EXPECT_EQ(stbl.ReadChild(&in), nullptr);
  EXPECT_EQ(log.only(), (LogLine{"MP4", 3, "read 24 bytes to stts buf failed\n"}));
}

TEST(FreshBoxes, HoldTheirInitialFields) {
  const StszAtom stsz(headerOf("stsz"));
  EXPECT_EQ(stsz.sample_size, 0u);
  EXPECT_EQ(stsz.sample_count, 0u);
  EXPECT_TRUE(stsz.entries.empty());
  EXPECT_TRUE(UserDefAtom(headerOf("free")).body.empty());

  // A-law and mu-law are distinct classes with the same fields as MPEG-4 audio.
  const AtomHeader header = headerOf("alaw");
  const Mp4aAtom mp4a(header);
  const AlawAtom alaw(header);
  const UlawAtom ulaw(header);
  for (const AudioSampleEntry* entry : {static_cast<const AudioSampleEntry*>(&mp4a),
                                        static_cast<const AudioSampleEntry*>(&alaw),
                                        static_cast<const AudioSampleEntry*>(&ulaw)}) {
    EXPECT_EQ(entry->sampleRate, 0u);
    EXPECT_EQ(entry->channelCount, 0u);
    EXPECT_EQ(entry->samplesPerFrame, 1024u);
    EXPECT_EQ(entry->auxWord, 0u);
    EXPECT_EQ(entry->header.type, "alaw");
  }
  EXPECT_EQ(dynamic_cast<const UlawAtom*>(static_cast<const G711Atom*>(&alaw)), nullptr);
}

// ---- stsd ----

Bytes stsdBox(uint32_t count, const Bytes& entries) {
  return ByteWriter::box("stsd", join({ByteWriter().u8(0).u24(1).u32(count).bytes, entries}));
}

TEST(Stsd, StoredCountIsDroppedAndTheChildrenAreCounted) {
  struct Case {
    uint32_t stored;
    Bytes entries;
    uint32_t children;
  };
  const Bytes both = join({kMp4a, kAvc1});
  const Case cases[] = {
      {2, both, 2}, {7, both, 2}, {0, kMp4a, 1}, {3, Bytes{}, 0}, {0, Bytes{}, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.stored);
    MemoryStream in(stsdBox(c.stored, c.entries));
    StsdAtom stsd(headerOf("stsd"));
    LogCapture log;
    ASSERT_EQ(stsd.Read(&in), 0);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(stsd.flags, 1u);
    EXPECT_EQ(stsd.entryCount, 0u);
    EXPECT_EQ(stsd.children.size(), c.children);
    EXPECT_EQ(written(stsd), stsdBox(c.children, c.entries));
  }
}

TEST(Stsd, StreamEndingAfterTheFlagsFailsWithTheFileOffset) {
  // The box sits after a 12-byte free box and holds only version and flags.
  MemoryStream in(join({ByteWriter::box("free", Bytes(4, 0)),
                       ByteWriter::box("stsd", ByteWriter().u8(1).u24(0x0A0B0C).bytes)}));
  ASSERT_EQ(in.seek(12), 0);
  StsdAtom stsd(headerOf("stsd"));
  LogCapture log;
  EXPECT_EQ(stsd.Read(&in), -1);
  EXPECT_EQ(log.only(), (LogLine{"IO", 3, "offset:24, readBe32 fail\n"}));
  EXPECT_EQ(stsd.version, 1);
  EXPECT_EQ(stsd.flags, 0x0A0B0Cu);
  EXPECT_EQ(stsd.entryCount, 0u);
}

TEST(StsdAndGpmdNullArguments, AreLoggedAndRefused) {
  StsdAtom stsd(headerOf("stsd"));
  GpmdAtom gpmd(headerOf("gpmd"));
  for (Atom* box : {static_cast<Atom*>(&stsd), static_cast<Atom*>(&gpmd)}) {
    SCOPED_TRACE(box->header.type);
    LogCapture log;
    EXPECT_EQ(box->readData(nullptr), -1);
    EXPECT_TRUE(isNullParamLine(log.only(), "readData")) << log.only();
    log.clear();
    EXPECT_EQ(box->writeData(nullptr), -1);
    EXPECT_TRUE(isNullParamLine(log.only(), "writeData")) << log.only();
  }
}

// ---- gpmd ----

TEST(Gpmd, WritesItsConstantPreambleWhateverWasRead) {
  GpmdAtom gpmd(headerOf("gpmd"));
  MemoryStream out;
  ASSERT_EQ(gpmd.writeData(&out), 0);
  EXPECT_EQ(out.data(), (Bytes{0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0}));

  MemoryStream eight(Bytes(8, 0xAA));
  LogCapture log;
  EXPECT_EQ(gpmd.readData(&eight), -1);
  EXPECT_EQ(log.only(), (LogLine{"IO", 3, "offset:8, readBe32 fail\n"}));

  // Data-reference index 2 and non-zero reserved words are not kept.
  const Bytes odd = ByteWriter().u32(0xFFFFFFFF).u32(2).u32(0xDEADBEEF).bytes;
  MemoryStream in(ByteWriter::box("gpmd", odd));
  StsdAtom stsd(headerOf("stsd"));
  Box read(stsd.ReadChild(&in));
  ASSERT_NE(dynamic_cast<GpmdAtom*>(read.get()), nullptr);
  EXPECT_EQ(written(*read), ByteWriter::box("gpmd", kGpmdPreamble));
}

// ---- sample entries ----

template <class Entry>
std::unique_ptr<Entry> readEntry(const Bytes& box) {
  MemoryStream in(box);
  StsdAtom stsd(headerOf("stsd"));
  Box child(stsd.ReadChild(&in));
  if (dynamic_cast<Entry*>(child.get()) == nullptr) return nullptr;
  return std::unique_ptr<Entry>(static_cast<Entry*>(child.release()));
}

const Bytes& opaqueBody(const Atom* box) { return dynamic_cast<const UserDefAtom&>(*box).body; }

TEST(SampleEntry, IsoEntriesWithTheirCodecBoxes) {
  auto avc1 = readEntry<Avc1Atom>(kAvc1);
  ASSERT_NE(avc1, nullptr);
  EXPECT_EQ(avc1->width, 1920);
  EXPECT_EQ(avc1->height, 1080);
  EXPECT_EQ(avc1->vendor, 0x6170706Cu);
  EXPECT_EQ(avc1->spatialQuality, 0x300u);
  EXPECT_EQ(Bytes(avc1->compressorName.begin(), avc1->compressorName.end()),
            compressor("AVC Coding"));
  EXPECT_EQ(avc1->colorTableId, 0xFFFF);
  EXPECT_TRUE(avc1->tail.empty());
  ASSERT_EQ(avc1->children.size(), 1u);
  EXPECT_EQ(avc1->children.front()->header.type, "avcC");
  EXPECT_EQ(opaqueBody(avc1->children.front()), Bytes(kAvcC.begin() + 8, kAvcC.end()));
  EXPECT_EQ(written(*avc1), kAvc1);

  auto mp4a = readEntry<Mp4aAtom>(kMp4a);  // sound version 0
  ASSERT_NE(mp4a, nullptr);
  EXPECT_EQ(mp4a->channelCount, 2);
  EXPECT_EQ(mp4a->sampleRate, 0xBB800000u);  // 48000.0
  ASSERT_EQ(mp4a->children.size(), 1u);
  EXPECT_EQ(opaqueBody(mp4a->children.front()), Bytes(kEsds.begin() + 8, kEsds.end()));
  EXPECT_EQ(written(*mp4a), kMp4a);
}

TEST(SampleEntry, SoundVersionOneWithAWaveBoxEndingInATerminator) {
  // frma, esds and the 4-byte zero terminator QuickTime ends the wave box with
  const Bytes waveBody =
      join({ByteWriter::box("frma", ByteWriter().text("mp4a").bytes), kEsds, Bytes(4, 0)});
  const Bytes v1Words = ByteWriter().u32(1024).u32(1536).u32(3072).u32(2).bytes;
  const Bytes box = ByteWriter::box(
      "mp4a", join({audioFields(1, 2, 44100u << 16), v1Words, ByteWriter::box("wave", waveBody)}));
  auto mp4a = readEntry<Mp4aAtom>(box);
  ASSERT_NE(mp4a, nullptr);
  EXPECT_EQ(mp4a->sampleRate, 0xAC440000u);
  EXPECT_EQ(mp4a->compressionId, 0xFFFE);
  EXPECT_EQ(mp4a->v1, (std::array<uint32_t, 4>{1024, 1536, 3072, 2}));
  EXPECT_TRUE(mp4a->tail.empty());
  ASSERT_EQ(mp4a->children.size(), 1u);
  EXPECT_EQ(mp4a->children.front()->header.type, "wave");
  EXPECT_EQ(opaqueBody(mp4a->children.front()), waveBody);
  EXPECT_EQ(written(*mp4a), box);
}

TEST(SampleEntry, SoundVersionTwoCarriesItsRateAsADouble) {
  // struct size 72, 48000.0, 6 channels, 24 bits, float|packed, 18 bytes a packet
  const Bytes v2Words = ByteWriter().u32(72).u64(0x40E7700000000000).u32(6).u32(0x7F000000)
                            .u32(24).u32(0x0C).u32(18).u32(1).bytes;
  const Bytes box = ByteWriter::box("mp4a", join({audioFields(2, 3, 0x00010000), v2Words}));
  auto mp4a = readEntry<Mp4aAtom>(box);
  ASSERT_NE(mp4a, nullptr);
  EXPECT_EQ(mp4a->channelCount, 3);
  EXPECT_EQ(mp4a->sampleRate, 0x00010000u);
  EXPECT_EQ(mp4a->v2StructSize, 72u);
  EXPECT_EQ(mp4a->v2SampleRate, 0x40E7700000000000u);  // 48000.0
  EXPECT_EQ(mp4a->v2, (std::array<uint32_t, 6>{6, 0x7F000000, 24, 0x0C, 18, 1}));
  EXPECT_TRUE(mp4a->children.empty());
  EXPECT_EQ(written(*mp4a), box);
}

TEST(SampleEntry, TailThatIsNotARunOfBoxesIsKeptRaw) {
  const Bytes audioTail(4, 0);
  const Bytes videoTail = join({kAvcC, Bytes{0xAB, 0xCD}});
  const Bytes audio = ByteWriter::box("ulaw", join({audioFields(0, 1, 8000u << 16), audioTail}));
  const Bytes video = ByteWriter::box("hvc1", join({visualFields(320, 240, "x"), videoTail}));
  auto ulaw = readEntry<UlawAtom>(audio);
  auto hvc1 = readEntry<Hvc1Atom>(video);
  ASSERT_NE(ulaw, nullptr);
  ASSERT_NE(hvc1, nullptr);
  EXPECT_EQ(ulaw->tail, audioTail);
  EXPECT_EQ(hvc1->tail, videoTail);
  EXPECT_TRUE(ulaw->children.empty());
  EXPECT_TRUE(hvc1->children.empty());
  EXPECT_EQ(written(*ulaw), audio);
  EXPECT_EQ(written(*hvc1), video);
}

TEST(SampleEntry, TruncatedFieldsFailWithTheStreamOffset) {
  struct Case {
    const char* type;
    Bytes fields;
    size_t kept;
    const char* text;
  };
  const Bytes v1 = join({audioFields(1, 2, 0), Bytes(16, 0)});
  const Bytes v2 = join({audioFields(2, 2, 0), Bytes(36, 0)});
  const Case cases[] = {
      {"mp4a", audioFields(0, 2, 0), 20, "offset:28, readBe16 fail\n"},
      {"alaw", v1, 36, "offset:44, readBe32 fail\n"},
      {"mp4a", v2, 35, "offset:43, readBe64 fail\n"},
      {"avc1", visualFields(1, 1, ""), 50, "offset:58, readBytes fail\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    MemoryStream in(ByteWriter::box(c.type, Bytes(c.fields.begin(), c.fields.begin() + c.kept)));
    StsdAtom stsd(headerOf("stsd"));
    LogCapture log;
    EXPECT_EQ(stsd.ReadChild(&in), nullptr);
    EXPECT_EQ(log.only(), (LogLine{"IO", 3, c.text}));
  }
}

}  // namespace
