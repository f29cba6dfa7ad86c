// The child factories of stbl and stsd, and the sample entries beneath stsd.
#include <array>
#include <new>
#include <typeinfo>

#include "support/test.h"

namespace {
bool failNextNothrowNew = false;
}  // namespace

// Boxes are allocated without throwing; armed, the next such allocation
// fails. Otherwise it allocates through the throwing form, so that every
// block is released by the matching operator delete.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (std::exchange(failNextNothrowNew, false)) return nullptr;
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}

namespace {

using Box = std::unique_ptr<Atom>;

// The 78 bytes of a visual entry's fields: vendor "appl", qualities 0x200
// and 0x300, 72 dpi, one frame, compressor name, depth 24, no colour table.
Bytes visualFields(uint16_t width, uint16_t height, const std::string& name) {
  Bytes compressor(32, 0);
  compressor[0] = static_cast<unsigned char>(name.size());
  std::copy(name.begin(), name.end(), compressor.begin() + 1);
  return ByteWriter().be(0, 6).be(1, 2).u32(0).text("appl").u32(0x200).u32(0x300).be(width, 2).be(height, 2)
      .u32(0x00480000).u32(0x00480000).u32(0).be(1, 2).append(compressor).be(0x18, 2).be(0xFFFF, 2).bytes;
}

// The 28 bytes every audio entry starts with; sample size 16, and the
// compression id -2 of QuickTime's versions 1 and 2.
Bytes audioFields(uint16_t soundVersion, uint16_t channels, uint32_t rate) {
  return ByteWriter().be(0, 6).be(1, 2).be(soundVersion, 2).be(0, 2).u32(0).be(channels, 2).be(16, 2)
      .be(soundVersion == 0 ? 0 : 0xFFFE, 2).be(0, 2).u32(rate).bytes;
}

const Bytes kAvcC = ByteWriter::box("avcC", Bytes{1, 0x64, 0, 0x28, 0xFF, 0xE1, 0, 0});
const Bytes kFree = ByteWriter::box("free", Bytes(4, 7));
StblAtom stbl{AtomHeader()};
StsdAtom stsd{AtomHeader()};

// Read from a stream in which a free box follows: the child stops at its end
// and is written back byte for byte. Null unless it is an Entry.
template <class Entry = Atom>
std::unique_ptr<Entry> readChild(Atom& parent, const Bytes& box) {
  MemoryStream in(concat({box, kFree})), out;
  Box child(parent.ReadChild(&in));
  if (dynamic_cast<Entry*>(child.get()) == nullptr) return nullptr;
  EXPECT_EQ(in.getOffset(), static_cast<long long>(box.size()));
  EXPECT_EQ(child->Write(&out), 0);
  EXPECT_EQ(out.data(), box);
  return std::unique_ptr<Entry>(static_cast<Entry*>(child.release()));
}

TEST(ChildFactories, EachTypeYieldsItsClassAndOthersStayOpaque) {
  const Bytes audio = audioFields(0, 1, 8000u << 16), video = visualFields(640, 480, "");
  const Bytes empty(8, 0), empty12(12, 0), gpmd = ByteWriter().u32(0).u32(1).u32(0).bytes;
  const struct { Atom& parent; const char* type; const Bytes& body; const std::type_info& kind; } cases[] = {
      {stbl, "stsd", empty, typeid(StsdAtom)},   {stbl, "stts", empty, typeid(SttsAtom)},
      {stbl, "stsc", empty, typeid(StscAtom)},   {stbl, "stsz", empty12, typeid(StszAtom)},
      {stbl, "stss", empty, typeid(StssAtom)},   {stbl, "stco", empty, typeid(StcoAtom)},
      {stbl, "co64", empty, typeid(Co64Atom)},   {stbl, "STTS", empty, typeid(UserDefAtom)},
      {stsd, "gpmd", gpmd, typeid(GpmdAtom)},    {stsd, "mp4a", audio, typeid(Mp4aAtom)},
      {stsd, "alaw", audio, typeid(AlawAtom)},   {stsd, "ulaw", audio, typeid(UlawAtom)},
      {stsd, "avc1", video, typeid(Avc1Atom)},   {stsd, "hvc1", video, typeid(Hvc1Atom)},
      {stsd, "apch", video, typeid(ProresAtom)}, {stsd, "apco", video, typeid(ProresAtom)},
      {stsd, "apcn", video, typeid(ProresAtom)}, {stsd, "apcs", video, typeid(ProresAtom)},
      {stsd, "apcx", video, typeid(UserDefAtom)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    Box child = readChild(c.parent, ByteWriter::box(c.type, c.body));
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(typeid(*child), c.kind);
    auto* prores = dynamic_cast<ProresAtom*>(child.get());
    EXPECT_EQ(prores ? prores->variant : c.type, c.type);
  }
}

// A null stream, no memory for the child, a table or an entry cut short: no
// child, and one line; the half-read box is deleted, not leaked.
TEST(ChildFactories, FailuresYieldNullWithOneLine) {
  GpmdAtom gpmd{AtomHeader()};
  LogCapture log;
  EXPECT_EQ(stbl.ReadChild(nullptr), nullptr);
  EXPECT_TRUE(isNullParamLine(log.only(), "ReadChild")) << log.only();
  for (Atom* box : {static_cast<Atom*>(&stsd), static_cast<Atom*>(&gpmd)}) {
    log.clear();
    EXPECT_EQ(box->readData(nullptr) + box->writeData(nullptr), -2);
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_TRUE(isNullParamLine(log.lines()[0], "readData") && isNullParamLine(log.lines()[1], "writeData"));
  }
  auto mp4 = [](const char* text) { return LogLine{"MP4", 3, text}; };
  auto io = [](const char* text) { return LogLine{"IO", 3, text}; };
  const std::tuple<Atom&, const char*, Bytes, bool, long long, LogLine> cases[] = {
      {stbl, "stts", Bytes(28, 0), true, 8, mp4("new stts atom no memory\n")},
      {stsd, "mp4a", Bytes(28, 0), true, 8, mp4("new mp4a atom no memory\n")},
      {stbl, "stts", ByteWriter().u32(0).u32(3).u32(1).u32(10).u32(1).u32(20).bytes, false, -1,
       mp4("read 24 bytes to stts buf failed\n")},
      // A body cut short fails at the offset reached, never reading into the next box.
      {stsd, "mp4a", Bytes(20, 0), false, -1, io("offset:28, readBe16 fail\n")},
      {stsd, "alaw", concat({audioFields(1, 2, 0), Bytes(8, 0)}), false, -1,
       io("offset:44, readBe32 fail\n")},
      {stsd, "mp4a", concat({audioFields(2, 2, 0), Bytes(7, 0)}), false, -1,
       io("offset:43, readBe64 fail\n")},
      {stsd, "avc1", Bytes(50, 0), false, -1, io("offset:58, readBytes fail\n")},
      {stsd, "gpmd", Bytes(8, 0), false, -1, io("offset:16, readBe32 fail\n")},
      {stbl, "stsd", ByteWriter().u8(1).u24(0x0A0B0C).bytes, false, -1, io("offset:12, readBe32 fail\n")},
  };
  for (const auto& [parent, type, body, noMemory, offset, line] : cases) {
    SCOPED_TRACE(line.text);
    log.clear();
    MemoryStream in(concat({ByteWriter::box(type, body), kFree}));
    failNextNothrowNew = noMemory;
    EXPECT_EQ(parent.ReadChild(&in), nullptr);
    EXPECT_FALSE(failNextNothrowNew);  // the child was asked for without throwing
    EXPECT_EQ(log.only(), line);
    EXPECT_EQ(offset < 0 || in.getOffset() == offset, true);
  }
}

// A file's stsd reads more kinds of entry as plain visual or audio entries;
// one too short for those fields is kept as bytes, as an unknown kind is.
TEST(ChildFactories, FileStsdReadsMoreKindsAndKeepsShortOnesAsBytes) {
  FileStsdAtom fileStsd{AtomHeader()};
  const Bytes video = visualFields(96, 64, ""), audio = audioFields(0, 2, 48000u << 16);
  const struct { const char* type; const Bytes& body; const std::type_info& kind; } cases[] = {
      {"vp09", video, typeid(VisualSampleEntry)}, {"av01", video, typeid(VisualSampleEntry)},
      {"mp4v", video, typeid(VisualSampleEntry)}, {"jpeg", video, typeid(VisualSampleEntry)},
      {"Opus", audio, typeid(AudioSampleEntry)},  {"fLaC", audio, typeid(AudioSampleEntry)},
      {"vp10", video, typeid(UserDefAtom)},       {"avc1", video, typeid(Avc1Atom)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    Box child = readChild(fileStsd, ByteWriter::box(c.type, c.body));
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(typeid(*child), c.kind);
  }
  EXPECT_EQ(readChild<VisualSampleEntry>(fileStsd, ByteWriter::box("av01", video))->width, 96);
  LogCapture quiet;
  for (const char* type : {"vp09", "fLaC"}) {
    SCOPED_TRACE(type);
    Box child = readChild(fileStsd, ByteWriter::box(type, Bytes(20, 0xEE)));
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(typeid(*child), typeid(UserDefAtom));
  }
}

// In a file, an entry of a type not known here is read by its track's
// handler: a video track's as a visual entry, a sound track's as an audio
// one (the file written back identical). One too short for its kind's
// fields, and any entry of another handler, stay bytes, with no log line.
TEST(ChildFactories, FileReadsUnknownEntriesByTheTracksHandler) {
  const Bytes video = visualFields(256, 120, "DNxHR"), v1 = ByteWriter().u32(64).u32(34).u32(68).u32(2).bytes;
  const struct { const char* handler; const char* type; Bytes body; const std::type_info& kind; std::string shown; } cases[] = {
      {"vide", "AVdh", video, typeid(VisualSampleEntry), "256x120"},
      {"vide", "rle ", concat({video, ByteWriter::box("pasp", Bytes(8, 1))}), typeid(VisualSampleEntry), "256x120"},
      {"soun", "ima4", concat({audioFields(1, 1, 48000u << 16), v1}), typeid(AudioSampleEntry), "1ch 48000Hz"},
      {"soun", "agsm", audioFields(0, 2, 8000u << 16), typeid(AudioSampleEntry), "2ch 8000Hz"},
      {"soun", "ima4", audioFields(1, 1, 48000u << 16), typeid(UserDefAtom), ""},
      {"vide", "AVdh", Bytes(video.begin(), video.end() - 1), typeid(UserDefAtom), ""},
      {"text", "AVdh", video, typeid(UserDefAtom), ""},
      {"soun", "AVdh", Bytes(20, 0), typeid(UserDefAtom), ""},
      {"vide", "avc1", video, typeid(Avc1Atom), "256x120"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.handler) + " " + c.type);
    using W = ByteWriter;
    const Bytes stsd = W::fullBox("stsd", 0, 0, W().u32(1).append(W::box(c.type, c.body)).bytes);
    const Bytes hdlr = W::fullBox("hdlr", 0, 0, W().u32(0).text(c.handler).append(Bytes(13)).bytes);
    const Bytes moov = W::box("moov", W::box("trak", W::box("mdia", concat({hdlr, W::box("minf", W::box("stbl", stsd))}))));
    LogCapture log;
    ReadFile read(moov);
    ASSERT_TRUE(read.status.ok()) << read.status.message();
    EXPECT_TRUE(log.lines().empty()) << log.lines().front();
    const std::vector<Atom*> found = read.file.find("moov/trak/mdia/minf/stbl/stsd");
    ASSERT_EQ(found.size(), 1u);
    ASSERT_EQ(found.front()->children.size(), 1u);
    const Atom& entry = *found.front()->children.front();
    EXPECT_EQ(typeid(entry), c.kind);
    std::string shown;
    if (const auto* visual = dynamic_cast<const VisualSampleEntry*>(&entry)) {
      shown = std::to_string(visual->width) + "x" + std::to_string(visual->height);
    } else if (const auto* audio = dynamic_cast<const AudioSampleEntry*>(&entry)) {
      shown = std::to_string(audio->channels()) + "ch " + std::to_string(static_cast<int>(audio->samplesPerSecond())) + "Hz";
    }
    EXPECT_EQ(shown, c.shown);
  }
}

// The two deliberate changes of a round trip: a gpmd preamble is written as
// constants (reference index 1), the stsd count as the number of entries held.
TEST(Stsd, RoundTripResetsTheGpmdPreambleAndTheCount) {
  auto box = [](uint32_t count, const Bytes& preamble) {
    return ByteWriter::box("stsd", concat({ByteWriter().u32(0).u32(count).bytes, ByteWriter::box("gpmd", preamble),
                                         ByteWriter::box("alaw", audioFields(0, 1, 8000u << 16))}));
  };
  for (uint32_t stored : {5u, 0u, 1u}) {
    MemoryStream in(box(stored, {1, 2, 3, 4, 5, 6, 0, 2, 0xAA, 0xBB, 0xCC, 0xDD})), out;
    Box read(stbl.ReadChild(&in));
    ASSERT_NE(read, nullptr);
    ASSERT_EQ(read->Write(&out), 0);
    EXPECT_EQ(out.data(), box(2, ByteWriter().u32(0).u32(1).u32(0).bytes)) << stored;
  }
}

// esds around a decoder configuration (AAC's unless another object type
// is given), descriptor lengths in one byte or, as ffmpeg writes them, in
// four.
Bytes esdsBox(Bytes config, bool longLengths, uint8_t objectType = 0x40) {
  auto length = [&](size_t n) {
    return longLengths ? ByteWriter().u8(0x80).u8(0x80).u8(0x80).u8(static_cast<unsigned>(n)).bytes
                       : Bytes{static_cast<unsigned char>(n)};
  };
  const Bytes decoderInfo = concat({{5}, length(config.size()), config});
  const Bytes decoder = concat({{4}, length(13 + decoderInfo.size()), {objectType, 0x15}, Bytes(11, 0), decoderInfo});
  return ByteWriter::box("esds", concat({Bytes(4, 0), {3}, length(3 + decoder.size()), {0, 1, 0}, decoder}));
}

// Fields read from golden bytes, and what follows them kept as child boxes
// when it is a clean run of boxes, as raw bytes otherwise; all written back.
TEST(SampleEntry, FieldsAndWhatFollowsThemRoundTrip) {
  auto avc1 = readChild<Avc1Atom>(stsd, ByteWriter::box("avc1", concat({visualFields(1920, 1080, "AVC Coding"), kAvcC})));
  auto hvc1 = readChild<Hvc1Atom>(stsd,
      ByteWriter::box("hvc1", concat({visualFields(320, 240, "x"), kAvcC, Bytes{0xAB, 0xCD}})));
  // Sound version 2: struct size 72, 48000.0 as a double, 6 channels, 24
  // bits, float|packed, 18 bytes a packet, one frame a packet.
  const Bytes v2 = ByteWriter().u32(72).u64(0x40E7700000000000).u32(6).u32(0x7F000000).u32(24)
                       .u32(0x0C).u32(18).u32(1).bytes;
  auto mp4a = readChild<Mp4aAtom>(stsd, ByteWriter::box("mp4a", concat({audioFields(2, 3, 0x10000), v2})));
  // Sound version 1: 1024 samples a packet, 6 bytes a packet, 12 a frame, 2
  // a sample; then a wave box holding frma and esds, and a chan box.
  const Bytes wave = ByteWriter::box("wave", concat({ByteWriter::box("frma", ByteWriter().text("mp4a").bytes),
                                                   ByteWriter::box("esds", Bytes{0, 0, 0, 0, 3, 0x19})}));
  auto v1 = readChild<Mp4aAtom>(stsd, ByteWriter::box("mp4a", concat({audioFields(1, 2, 44100u << 16),
      ByteWriter().u32(1024).u32(6).u32(12).u32(2).bytes, wave, ByteWriter::box("chan", Bytes(12, 0))})));
  ASSERT_TRUE(avc1 && hvc1 && mp4a && v1);
  EXPECT_EQ(std::make_tuple(avc1->width, avc1->height, avc1->vendor, avc1->spatialQuality,
                            avc1->compressorName[1], avc1->colorTableId, avc1->children.size(), avc1->tail.size()),
            std::make_tuple(1920, 1080, 0x6170706Cu, 0x300u, 'A', 0xFFFF, size_t{1}, size_t{0}));
  EXPECT_EQ(dynamic_cast<UserDefAtom&>(*avc1->children.front()).body, Bytes(kAvcC.begin() + 8, kAvcC.end()));
  EXPECT_TRUE(hvc1->children.empty());
  EXPECT_EQ(hvc1->tail, concat({kAvcC, Bytes{0xAB, 0xCD}}));
  EXPECT_EQ(std::make_tuple(mp4a->channelCount, mp4a->sampleRate, mp4a->compressionId, mp4a->v2StructSize,
                            mp4a->v2SampleRate, mp4a->children.size() + mp4a->tail.size()),
            std::make_tuple(3, 0x10000u, 0xFFFE, 72u, 0x40E7700000000000u, size_t{0}));
  EXPECT_EQ(mp4a->v2, (std::array<uint32_t, 6>{6, 0x7F000000, 24, 0x0C, 18, 1}));
  EXPECT_EQ(std::make_tuple(v1->soundVersion, v1->channelCount, v1->sampleRate, v1->v1, v1->tail.size()),
            std::make_tuple(1, 2, 44100u << 16, std::array<uint32_t, 4>{1024, 6, 12, 2}, size_t{0}));
  ASSERT_EQ(v1->children.size(), 2u);
  EXPECT_EQ(dynamic_cast<UserDefAtom&>(*v1->children.front()).body, Bytes(wave.begin() + 8, wave.end()));
  EXPECT_EQ(v1->children.back()->header.type, "chan");
}

// A 4-byte zero word after the children ends them, as QuickTime writers
// put it: the children are kept (typed) and the word is written back after
// them. Anything else after the boxes keeps the whole rest as bytes.
TEST(SampleEntry, ChildrenEndAtAZeroWordWrittenBackAfterThem) {
  const Bytes pasp = ByteWriter::box("pasp", ByteWriter().u32(1).u32(1).bytes), zero(4, 0);
  const Bytes video = visualFields(96, 64, ""), audio = audioFields(0, 2, 44100u << 16);
  const Bytes aac = esdsBox({0x12, 0x08}, true);  // AAC LC, 44100 Hz, 1 channel
  const struct {
    const char* type;
    Bytes rest;
    std::string expected;  // children's types, "+0" for the zero word, or the tail's size
  } cases[] = {
      {"avc1", concat({kAvcC, pasp, zero}), "avcC pasp +0"},
      {"mp4a", concat({aac, zero}), "esds +0"},
      {"avc1", zero, "+0"},
      {"avc1", concat({kAvcC, pasp}), "avcC pasp"},
      {"avc1", concat({kAvcC, Bytes(3, 0)}), "tail 19"},
      {"avc1", concat({kAvcC, zero, Bytes{1}}), "tail 21"},
      {"avc1", concat({kAvcC, Bytes{0, 0, 0, 1}}), "tail 20"},
      {"mp4a", Bytes(8, 0), "tail 8"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    const bool visual = c.type[0] == 'a';
    Box entry = readChild(stsd, ByteWriter::box(c.type, concat({visual ? video : audio, c.rest})));
    ASSERT_NE(entry, nullptr);
    const auto* asVisual = dynamic_cast<const VisualSampleEntry*>(entry.get());
    const auto* asAudio = dynamic_cast<const AudioSampleEntry*>(entry.get());
    const Bytes& tail = asVisual != nullptr ? asVisual->tail : asAudio->tail;
    const bool terminated = asVisual != nullptr ? asVisual->terminated : asAudio->terminated;
    std::string shown;
    for (const Atom* child : entry->children) shown += (shown.empty() ? "" : " ") + child->header.type;
    if (terminated) shown += shown.empty() ? "+0" : " +0";
    if (!tail.empty()) shown += "tail " + std::to_string(tail.size());
    EXPECT_EQ(shown, c.expected);
  }
  auto aacEntry = readChild<Mp4aAtom>(stsd, ByteWriter::box("mp4a", concat({audio, aac, zero})));
  ASSERT_TRUE(aacEntry && !aacEntry->children.empty());
  EXPECT_EQ(dynamic_cast<const EsdsAtom&>(*aacEntry->children.front()).channels(), 1u);
}

// What an entry's decoder configuration child tells: profile@level, length
// size and parameter set counts, or the channels and rate of an AAC stream.
std::string configOf(const Atom& entry) {
  auto n = [](uint64_t value) { return std::to_string(value); };
  const Atom* child = entry.children.empty() ? nullptr : entry.children.front();
  if (auto* avc = dynamic_cast<const AvcConfigAtom*>(child)) {
    return avc->profileName() + "@" + avc->levelName() + " len" + n(avc->lengthSize) + " sps" +
           n(avc->spsCount) + " pps" + n(avc->ppsCount);
  }
  if (auto* hevc = dynamic_cast<const HevcConfigAtom*>(child)) {
    return hevc->profileName() + "@" + hevc->levelName() + " len" + n(hevc->lengthSize) + " vps" +
           n(hevc->vpsCount) + " sps" + n(hevc->spsCount) + " pps" + n(hevc->ppsCount);
  }
  if (auto* esds = dynamic_cast<const EsdsAtom*>(child)) {
    return esds->parsed ? n(esds->channels()) + "ch " + n(esds->sampleRate) + "Hz" : "unknown";
  }
  auto* audio = dynamic_cast<const AudioConfigAtom*>(child);
  if (audio == nullptr) return "untyped";
  if (audio->channels() == 0) return "unknown";
  return n(audio->channels()) + "ch" + (audio->samplesPerSecond() != 0 ? " " + n(audio->samplesPerSecond()) + "Hz" : "");
}

// hvcC's 23 leading bytes: the profile byte (space, tier, idc), Main
// compatibility, level, 4:2:0 8-bit, 4-byte lengths, then `arrays`.
Bytes hvcC(uint8_t general, uint8_t level, uint8_t arrays) {
  return ByteWriter().u8(1).u8(general).u32(0x60000000).be(0x900000000000, 6).u8(level).be(0xF000, 2)
      .u8(0xFC).u8(0xFD).u8(0xF8).u8(0xF8).be(0, 2).u8(0x0F).u8(arrays).bytes;
}

// The configuration children parsed from golden bytes; short or garbage
// ones read as unknown and, like every case, are written back byte for byte.
TEST(CodecConfig, ProfileLevelAndCountsFromGoldenBytesOthersKeptWhole) {
  const Bytes sps = {0x67, 0x64, 0x00, 0x1F}, pps = {0x68, 0xEE};
  const Bytes high = concat({{1, 100, 0, 31, 0xFF, 0xE1, 0, 4}, sps, {1, 0, 2}, pps});
  const Bytes arrays = concat({{0xA0, 0, 1, 0, 2, 0x40, 0x01}, {0xA1, 0, 1, 0, 1, 0x42},
                             {0xA2, 0, 2, 0, 1, 0x44, 0, 1, 0x44}});
  const Bytes main31 = hvcC(0x01, 93, 3);
  const std::pair<Bytes, std::string> cases[] = {
      {ByteWriter::box("avcC", high), "High@3.1 len4 sps1 pps1"},
      {ByteWriter::box("avcC", {1, 66, 0xC0, 10, 0xFD, 0xE0, 0}), "Constrained Baseline@1 len2 sps0 pps0"},
      {ByteWriter::box("avcC", {1, 77, 0x10, 11, 0xFC, 0xE0, 0}), "Main@1b len1 sps0 pps0"},
      {ByteWriter::box("avcC", {1, 100, 0x10, 9, 0xFF, 0xE0, 0}), "High@1b len4 sps0 pps0"},
      {ByteWriter::box("avcC", Bytes(high.begin(), high.end() - 1)), "unknown@unknown len4 sps1 pps1"},
      {ByteWriter::box("avcC", {0, 100, 0, 31, 0xFF, 0xE0, 0}), "unknown@unknown len4 sps0 pps0"},
      {ByteWriter::box("avcC", {}), "unknown@unknown len1 sps0 pps0"},
      {ByteWriter::box("hvcC", concat({main31, arrays})), "Main@L3.1 len4 vps1 sps1 pps2"},
      {ByteWriter::box("hvcC", hvcC(0x22, 120, 0)), "Main 10@H4 len4 vps0 sps0 pps0"},
      {ByteWriter::box("hvcC", concat({main31, Bytes(arrays.begin(), arrays.end() - 1)})),
       "unknown@unknown len4 vps1 sps1 pps2"},
      {ByteWriter::box("hvcC", Bytes(main31.begin(), main31.begin() + 12)),
       "unknown@unknown len1 vps0 sps0 pps0"},
      {esdsBox({0x11, 0x90}, false), "2ch 48000Hz"},
      {esdsBox({0x13, 0x88}, true), "1ch 22050Hz"},
      {esdsBox({0x17, 0x80, 0x56, 0x22, 0x08}, false), "1ch 44100Hz"},  // rate written out in 24 bits
      {esdsBox({0x13}, true), "unknown"},
      {ByteWriter::box("esds", {0, 0, 0, 0, 4, 2, 0x40}), "unknown"},
      // MPEG-2 AAC LC's configuration is an AudioSpecificConfig too; MP3's
      // object type has none.
      {esdsBox({0x11, 0x90}, true, 0x67), "2ch 48000Hz"},
      {esdsBox({0x11, 0x90}, true, 0x6B), "unknown"},
      // Vorbis: three Xiph-laced headers, the first naming 2 channels at
      // 48000 Hz (read as an AudioSpecificConfig: 3 channels at 44100).
      {esdsBox(concat({{0x02, 0x1E, 0x44, 0x01}, ByteWriter().text("vorbis").u32(0).u8(2).bytes,
                       {0x80, 0xBB, 0, 0}, Bytes(8, 0)}), true, 0xDD), "2ch 48000Hz"},
      {esdsBox(concat({{0x02, 0xFF, 0x01, 0x44, 0x01}, ByteWriter().text("vorbis").u32(0).u8(6).bytes,
                       {0x44, 0xAC, 0, 0}}), false, 0xDD), "6ch 44100Hz"},
      {esdsBox(concat({{0x02, 0x1E, 0x44, 0x03}, ByteWriter().text("vorbis").u32(0).u8(2).bytes,
                       {0x80, 0xBB, 0, 0}}), true, 0xDD), "unknown"},
      {esdsBox({0x02, 0x1E, 0x44, 0x01, 'v', 'o'}, true, 0xDD), "unknown"},
      // AC-3: 3/2 with LFE, 2/0, 1/0 with LFE, 1+1; cut short.
      {ByteWriter::box("dac3", {0x10, 0x3D, 0xE0}), "6ch"},
      {ByteWriter::box("dac3", {0x10, 0x10, 0x00}), "2ch"},
      {ByteWriter::box("dac3", {0x10, 0x0C, 0x00}), "2ch"},
      {ByteWriter::box("dac3", {0x10, 0x00, 0x00}), "2ch"},
      {ByteWriter::box("dac3", {0x10, 0x3D}), "unknown"},
      // E-AC-3, 448 kbit/s, one independent substream: 3/2 with LFE, 2/0, 3/0.
      {ByteWriter::box("dec3", {0x0E, 0x00, 0x20, 0x0F, 0x00}), "6ch"},
      {ByteWriter::box("dec3", {0x0E, 0x00, 0x20, 0x04, 0x00}), "2ch"},
      {ByteWriter::box("dec3", {0x0E, 0x00, 0x20, 0x06, 0x00}), "3ch"},
      {ByteWriter::box("dec3", {0x0E, 0x00, 0x20, 0x0F}), "unknown"},
      // ALAC: 4096 samples a frame, 16 bits, then channels and rate.
      {ByteWriter::box("alac", concat({Bytes(4, 0), ByteWriter().u32(4096).u8(0).u8(16).u8(40).u8(10).u8(14)
                                          .u8(1).be(0, 2).u32(0x2004).u32(0x177000).u32(96000).bytes})),
       "1ch 96000Hz"},
      {ByteWriter::box("alac", concat({Bytes(4, 0), ByteWriter().u32(4096).u8(0).u8(24).u8(40).u8(10).u8(14)
                                          .u8(6).be(0, 2).u32(0).u32(0).u32(44100).bytes})),
       "6ch 44100Hz"},
      {ByteWriter::box("alac", Bytes(27, 0)), "unknown"},
  };
  for (const auto& [config, expected] : cases) {
    SCOPED_TRACE(expected);
    const std::string box(config.begin() + 4, config.begin() + 8);
    const bool audio = box != "avcC" && box != "hvcC";
    const Bytes fields = audio ? audioFields(0, 2, 48000u << 16) : visualFields(64, 48, "");
    const std::string type = audio ? "mp4a" : box == "avcC" ? "avc1" : "hvc1";
    Box entry = readChild(stsd, ByteWriter::box(type, concat({fields, config})));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(configOf(*entry), expected);
  }
}

}  // namespace
