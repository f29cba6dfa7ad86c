// The box layer: headers, the generic box reader and writer, the movie
// headers, and the log.
#include "support/test.h"

namespace {

// Each header read at offset 4, or refused with its one log line; nothing is
// stored on failure.
TEST(AtomHeader, ParsesOrRefusesWithOneLine) {
  auto bad = [](const std::string& text) { return LogLine{"MP4", 3, "box abcd at offset 4 " + text}; };
  const struct { Bytes bytes; uint32_t size; uint64_t largeSize, boxLength; LogLine refusal; } cases[] = {
      {ByteWriter().u32(12).text("abcd").u32(0).bytes, 12, 0, 12, {}},
      {ByteWriter().u32(1).text("abcd").u64(20).u32(0).bytes, 1, 20, 20, {}},
      {ByteWriter().u32(0).text("abcd").append(Bytes(6, 0)).bytes, 0, 14, 14, {}},
      {ByteWriter().u32(8).text("abcd").bytes, 8, 0, 8, {}},
      {ByteWriter().u32(7).text("abcd").bytes, 0, 0, 0, bad("has a bad size 7\n")},
      {ByteWriter().u32(1).text("abcd").u64(15).bytes, 0, 0, 0, bad("has a bad size 15\n")},
      {ByteWriter().u32(13).text("abcd").u32(0).bytes, 0, 0, 0, bad("claims 13 bytes, only 12 remain\n")},
      {ByteWriter().u32(1).text("abcd").u64(1ull << 62).bytes, 0, 0, 0,
       bad("claims 4611686018427387904 bytes, only 16 remain\n")},
      {ByteWriter().u32(16).text("ab").bytes, 0, 0, 0, {"IO", 3, "offset:10, readBytes fail\n"}},
      {ByteWriter().u32(1).text("abcd").u32(0).bytes, 0, 0, 0, {"IO", 3, "offset:16, readBe64 fail\n"}},
  };
  for (const auto& c : cases) {
    LogCapture log;
    MemoryStream stream(ByteWriter().text("pad!").append(c.bytes).bytes);
    stream.seek(4);
    AtomHeader header;
    const bool ok = c.refusal.text.empty();
    EXPECT_EQ(header.Read(&stream), ok ? 0 : -1) << c.refusal;
    EXPECT_EQ(std::make_tuple(header.type, header.size, header.largeSize, header.boxLength(),
                              header.headerOffset),
              std::make_tuple(std::string(ok ? "abcd" : "0000"), c.size, c.largeSize, c.boxLength,
                              uint64_t{ok ? 4u : 0u}));
    EXPECT_EQ(log.lines(), ok ? std::vector<LogLine>{} : std::vector<LogLine>{c.refusal});
  }
}

// A file whose moov has a 64-bit size and whose last box runs to the end:
// both keep their form when written back (the size written is the bytes
// written, whatever the header held), and the tables inside are typed.
TEST(Atom, ReadsATreeWritesItBackByteForByteAndDumpsIt) {
  const Bytes stts = ByteWriter::box("stts", ByteWriter().u32(0).u32(1).u32(7).u32(512).bytes);
  const Bytes body = ByteWriter().append(ByteWriter::box("aaaa", Bytes{1, 2, 3}))
                         .append(ByteWriter::box("trak", ByteWriter::box("stbl", stts))).bytes;
  const Bytes image = ByteWriter().append(ByteWriter::largeBox("moov", body)).u32(0).text("free").bytes;
  MemoryStream in(image), out, dump;
  Mp4File file;
  ASSERT_TRUE(file.read(&in).ok());
  const std::vector<Atom*> tables = file.find("moov/trak/stbl/stts");
  ASSERT_EQ(tables.size(), 1u);
  EXPECT_EQ(dynamic_cast<SttsAtom&>(*tables[0]).entries, (std::vector<SttsEntry>{{7, 512}}));
  ASSERT_EQ(file.root.Dump(&dump, 0), 0);
  EXPECT_EQ(std::string(dump.data().begin(), dump.data().end()),
            "0000 size=0 offset=0\n  moov size=67 offset=0\n    aaaa size=11 offset=16\n"
            "    trak size=40 offset=27\n      stbl size=32 offset=35\n        stts size=24 offset=43\n"
            "  free size=8 offset=67\n");
  file.root.children.front()->header.largeSize = 999;
  ASSERT_TRUE(file.write(&out).ok());
  EXPECT_EQ(out.data(), image);
}

// One run read of a body holding two: the next box is found at the end. A
// child that does not fit its parent, or a typed box of another type, fails.
TEST(Atom, BodyEndsAtItsBoxWhateverItReads) {
  const Bytes stts = ByteWriter::box("stts", ByteWriter().u32(0).u32(1).u64(5).u64(0).bytes);
  MemoryStream in(ByteWriter().append(stts).append(ByteWriter::box("next", Bytes{})).bytes);
  SttsAtom table{AtomHeader()};
  ASSERT_EQ(table.Read(&in), 0);
  EXPECT_EQ(in.getOffset(), static_cast<long long>(stts.size()));
  const Bytes broken[] = {
      ByteWriter().u32(100).text("aaaa").bytes,                    // child larger than parent
      ByteWriter().u32(4).text("aaaa").bytes,                      // child size below its header
      ByteWriter().u32(8).text("aaaa").u32(0).bytes,               // trailing bytes too few
      ByteWriter().u32(0).text("trak").u32(7).text("bbbb").bytes,  // runs to the parent's end
  };
  for (const Bytes& body : broken) {
    LogCapture log;
    MemoryStream file(ByteWriter().append(ByteWriter::box("moov", body))
                          .append(ByteWriter::box("tail", Bytes(64, 0))).bytes);
    ContainerAtom root{AtomHeader()};
    EXPECT_EQ(root.Read(&file), -1);
    EXPECT_FALSE(log.lines().empty());
  }
  MemoryStream free(ByteWriter::box("free", Bytes{}));
  LogCapture log;
  EXPECT_EQ(table.Read(&free), -1);
  EXPECT_EQ(log.only().level, 3);
}

// A table read with a 16-byte header and grown in memory keeps that header:
// its 64-bit size grows by the records added and is what is written.
TEST(Atom, LargeHeaderGrowsItsLargeSizeAndIsWrittenLarge) {
  const struct { const char* type; Bytes before, added; std::function<void(Atom&)> grow; } cases[] = {
      {"stts", ByteWriter().u32(2).u32(10).bytes, ByteWriter().u32(1).u32(20).bytes,
       [](Atom& b) { dynamic_cast<SttsAtom&>(b).addEntry(1, 20); }},
      {"stsc", ByteWriter().u32(1).u32(1).u32(1).bytes, ByteWriter().u32(2).u32(5).u32(1).bytes,
       [](Atom& b) { dynamic_cast<StscAtom&>(b).addEntry(2, 5, 1); }},
      {"co64", ByteWriter().u64(1ull << 33).bytes, ByteWriter().u64(3).bytes,
       [](Atom& b) { dynamic_cast<Co64Atom&>(b).addEntry(3); }},
      {"stco", ByteWriter().u32(1).bytes, ByteWriter().u32(3).bytes,
       [](Atom& b) { dynamic_cast<StcoAtom&>(b).addEntry(3); }},
  };
  for (const auto& c : cases) {
    auto box = [&](const Bytes& added) {  // version and flags, count, records
      const uint32_t count = added.empty() ? 1 : 2;
      return ByteWriter::largeBox(c.type, ByteWriter().u32(0).u32(count).append(c.before).append(added).bytes);
    };
    MemoryStream in(box({})), out;
    StblAtom stbl{AtomHeader()};
    std::unique_ptr<Atom> read(stbl.ReadChild(&in));
    ASSERT_NE(read, nullptr) << c.type;
    c.grow(*read);
    EXPECT_EQ(std::make_tuple(read->header.size, read->header.largeSize),
              std::make_tuple(1u, uint64_t{box(c.added).size()})) << c.type;
    ASSERT_EQ(read->Write(&out), 0);
    EXPECT_EQ(out.data(), box(c.added)) << c.type;
  }
}

// The movie, track and media headers read from golden bytes: 64-bit times in
// version 1, 32-bit in version 0, the body of another version kept whole;
// the facts info shows: the brands of ftyp (a partial brand or a short body
// left unnamed), the language of mdhd (packed letters or a Macintosh code)
// and the display size of tkhd. All are written back byte for byte.
TEST(MovieBoxes, FieldsAndFactsFromGoldenBytesWriteBackByteForByte) {
  auto factsOf = [](const Atom* box) -> std::string {
    auto join = [](std::initializer_list<uint64_t> values) {
      std::string text;
      for (uint64_t value : values) text += (text.empty() ? "" : " ") + std::to_string(value);
      return text;
    };
    if (auto* ftyp = dynamic_cast<const FtypAtom*>(box)) {
      std::string text = ftyp->parsed ? ftyp->majorBrand + " " + std::to_string(ftyp->minorVersion) : "none";
      for (const std::string& brand : ftyp->compatibleBrands) text += " " + brand;
      return text;
    }
    if (auto* b = dynamic_cast<const MvhdAtom*>(box))
      return join({b->version, b->creationTime, b->modificationTime, b->timescale, b->duration, b->rest.size()});
    if (auto* b = dynamic_cast<const MdhdAtom*>(box))
      return join({b->version, b->creationTime, b->modificationTime, b->timescale, b->duration, b->language}) +
             " " + b->languageCode();
    auto& b = dynamic_cast<const TkhdAtom&>(*box);
    uint32_t width = 0, height = 0;
    const bool known = b.displaySize(&width, &height);
    return join({b.version, b.creationTime, b.modificationTime, b.trackId, b.reserved, b.duration}) +
           (known ? " " + std::to_string(width) + "x" + std::to_string(height) : " no size");
  };
  const uint64_t t1 = 0x100000001, t2 = 0x200000002, t3 = 0x300000003;
  const std::string times = " 4294967297 8589934594 ", end = " 12884901891 ";
  const Bytes tail = {0, 1, 0, 0}, lang = {0x55, 0xC4, 0, 0};
  auto mdhd = [](uint16_t language) {
    return ByteWriter::box("mdhd", ByteWriter().u32(0).u32(1).u32(2).u32(600).u32(3).be(language, 2).be(0, 2).bytes);
  };
  // Version 0 tkhd: reserved words, layer, group, volume, the matrix, then 16.16 sizes.
  auto tkhd = [](size_t cut) {
    Bytes body = ByteWriter().u32(3).u32(1).u32(2).u32(7).u32(0).u32(9).append(Bytes(16, 0)).append(Bytes(36, 1))
                     .u32(1920u << 16 | 0x8000).u32(1080u << 16).bytes;
    return ByteWriter::box("tkhd", Bytes(body.begin(), body.end() - cut));
  };
  const std::pair<Bytes, std::string> cases[] = {
      {ByteWriter::box("mvhd", ByteWriter().u32(0x01000000).u64(t1).u64(t2).u32(90000).u64(t3).append(tail).bytes),
       "1" + times + "90000" + end + "4"},
      {ByteWriter::box("mvhd", ByteWriter().u32(0).u32(1).u32(2).u32(600).u32(0xFFFFFFFF).append(tail).bytes),
       "0 1 2 600 4294967295 4"},
      {ByteWriter::box("mvhd", ByteWriter().u32(0x02000000).u64(t1).u64(t2).bytes), "2 0 0 0 0 16"},
      {ByteWriter::box("tkhd", ByteWriter().u32(0x01000003).u64(t1).u64(t2).u32(7).u32(0xEE).u64(t3).bytes),
       "1" + times + "7 238" + end + "no size"},
      {ByteWriter::box("mdhd", ByteWriter().u32(0x01000000).u64(t1).u64(t2).u32(48000).u64(t3).append(lang).bytes),
       "1" + times + "48000" + end + "21956 und"},
      {ByteWriter::box("mdhd", ByteWriter().u32(0).u32(1).u32(2).u32(48000).u32(3).append(lang).bytes),
       "0 1 2 48000 3 21956 und"},
      {ByteWriter::box("ftyp", ByteWriter().text("isom").u32(512).text("isomavc1").bytes), "isom 512 isom avc1"},
      {ByteWriter::box("ftyp", ByteWriter().text("qt  ").u32(0x20050300).text("qt  ").u8(0).u8(0).bytes),
       "qt   537199360 qt  "},
      {ByteWriter::box("ftyp", ByteWriter().text("M4A ").bytes), "none"},
      {mdhd(0x15C7), "0 1 2 600 3 5575 eng"}, {mdhd(0), "0 1 2 600 3 0 eng"},
      {mdhd(2), "0 1 2 600 3 2 deu"},      {mdhd(0x3FF), "0 1 2 600 3 1023 und"},
      {mdhd(0x7FFF), "0 1 2 600 3 32767 und"},
      {tkhd(0), "0 1 2 7 0 9 1920x1080"}, {tkhd(1), "0 1 2 7 0 9 no size"},
  };
  for (const auto& [box, facts] : cases) {
    const ReadFile read(box);
    ASSERT_TRUE(read.status.ok());
    EXPECT_EQ(factsOf(read.file.root.children.front()), facts);
  }
}

// Lines from the sink's lowest level up, however long; the failure note
// takes the first failure; by default the library prints nothing and
// formats nothing, yet a failure note still gets its line.
TEST(Log, SinkLevelsFailureNoteAndTheDefault) {
  const std::string longText(1000, 'x');  // longer than the formatting buffer
  for (int lowest : {0, 3, 4}) {  // 4: failures are noted but not handed on
    LogCapture log(lowest);
    FailureNote note;
    EXPECT_EQ(logEnabled(0), lowest == 0);
    QX_LOG_Printf("MP4", 0, "%s|%d\n", longText.c_str(), 42);
    QX_LOG_Printf("MP4", 1, "notice\n");
    QX_LOG_Printf("MP4", 3, "first %d \n", 1);
    QX_LOG_Printf("IO", 3, "second\n");
    std::vector<LogLine> expected;
    if (lowest <= 3) expected = {{"MP4", 3, "first 1 \n"}, {"IO", 3, "second\n"}};
    if (lowest == 0) expected.insert(expected.begin(), {{"MP4", 0, longText + "|42\n"}, {"MP4", 1, "notice\n"}});
    EXPECT_EQ(log.lines(), expected);
    EXPECT_EQ(note.text(), "first 1");
  }
  EXPECT_FALSE(logEnabled(3));
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  {
    FailureNote note;
    QX_LOG_Printf("MP4", 3, "kept %d\n", 1);
    QX_LOG_Printf("MP4", 1, "dropped\n");
    EXPECT_EQ(note.text(), "kept 1");
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
