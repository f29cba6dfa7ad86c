// Tracks and the per-sample walk, on well-formed tables and on tables that
// disagree with each other.
#include "support/test.h"

namespace {

// One video track in memory: six samples of 10..60 bytes, 100 units each
// (in time runs that include empty ones), two samples in chunks 1 and 2 and
// one in chunks 3 and 4, the last ending where the file ends; key frames 1,
// 4 and 6.
struct OneTrack {
  Mp4File file;
  Atom* trak = attach<ContainerAtom>(attach<ContainerAtom>(&file.root, "moov"), "trak");
  Atom* mdia = attach<ContainerAtom>(trak, "mdia");
  StblAtom* stbl = attach<StblAtom>(attach<ContainerAtom>(mdia, "minf"), "stbl");
  SttsAtom* stts = attach<SttsAtom>(stbl, "stts");
  StscAtom* stsc = attach<StscAtom>(stbl, "stsc");
  StszAtom* stsz = attach<StszAtom>(stbl, "stsz");
  StssAtom* stss = attach<StssAtom>(stbl, "stss");
  StcoAtom* stco = attach<StcoAtom>(stbl, "stco");
  uint64_t fileLength = 1000;

  OneTrack() {
    attach<TkhdAtom>(trak, "tkhd")->trackId = 7;
    attach<MdhdAtom>(mdia, "mdhd")->timescale = 1000;
    attach<HdlrAtom>(mdia, "hdlr")->handler = {'v', 'i', 'd', 'e'};
    attach<Avc1Atom>(attach<StsdAtom>(stbl, "stsd"), "avc1");
    stts->entries = {{0, 9}, {2, 100}, {0, 7}, {4, 100}};
    stsc->entries = {{1, 2, 1}, {3, 1, 1}};
    for (uint32_t size : {10, 20, 30, 40, 50, 60}) stsz->addEntry(size);
    stss->entries = {1, 4, 6};
    stco->entries = {100, 200, 300, 940};
  }

  // The tracks of the built file as a reader finds them: the tree is written
  // out, padded to fileLength with a free box and read back.
  Result<std::vector<Track>> find() {
    MemoryStream out;
    EXPECT_TRUE(file.write(&out).ok());
    Bytes bytes = ByteWriter().append(out.data()).u32(uint32_t(fileLength - out.data().size())).text("free").bytes;
    bytes.resize(fileLength);
    reread = std::make_unique<ReadFile>(bytes);
    EXPECT_TRUE(reread->status.ok());
    FoundTracks found = findTracks(reread->file);
    if (!found.unreadable.empty()) return Status::failure(found.unreadable.front());
    return std::move(found.tracks);
  }

  // Every sample as a row, or the error the walk ended on as the last row.
  std::vector<std::string> walk() {
    const Result<std::vector<Track>> tracks = find();
    if (!tracks.ok()) return {tracks.message()};
    EXPECT_EQ(tracks->size(), 1u);
    std::vector<std::string> rows;
    const std::string error = walkSamples(tracks->at(0), [&](const SampleInfo& s) {
      rows.push_back(std::to_string(s.number) + " chunk " + std::to_string(s.chunk) + " at " +
                     std::to_string(s.offset) + "+" + std::to_string(s.size) + " time " +
                     std::to_string(s.decodeTime) + "+" + std::to_string(s.duration) +
                     (s.sync ? " key" : "") + " entry " + std::to_string(s.descriptionIndex) +
                     (s.missing ? " missing" : ""));
    });
    if (!error.empty()) rows.push_back(error);
    return rows;
  }

  // Takes the first box of `type` out of stbl; with a body, puts a box of
  // that type holding it in its place, kept as bytes.
  void drop(const std::string& type, const Bytes* body = nullptr) {
    for (Atom* child : stbl->children) {
      if (child->header.type != type) continue;
      stbl->children.remove(child);
      delete child;
      break;
    }
    if (body != nullptr) attach<UserDefAtom>(stbl, type.c_str())->body = *body;
  }

  std::unique_ptr<ReadFile> reread;
};

TEST(Track, WalkFollowsRunsChunksAndSyncSamples) {
  OneTrack built;
  const Result<std::vector<Track>> tracks = built.find();
  ASSERT_TRUE(tracks.ok()) << tracks.message();
  // The sample at a time is the last to decode at or before it.
  for (const auto& [time, sample] : {std::pair<uint64_t, uint32_t>{0, 1}, {99, 1}, {100, 2},
                                     {199, 2}, {200, 3}, {599, 6}, {600, 6}, {1u << 30, 6}}) {
    EXPECT_EQ(sampleAtTime(tracks->at(0), time), sample) << time;
  }
  EXPECT_EQ(built.walk(), (std::vector<std::string>{
                              "1 chunk 1 at 100+10 time 0+100 key entry 1",
                              "2 chunk 1 at 110+20 time 100+100 entry 1",
                              "3 chunk 2 at 200+30 time 200+100 entry 1",
                              "4 chunk 2 at 230+40 time 300+100 key entry 1",
                              "5 chunk 3 at 300+50 time 400+100 entry 1",
                              "6 chunk 4 at 940+60 time 500+100 key entry 1",
                          }));
  // One byte further, the last sample lies past the end: a file cut short.
  built.stco->entries[3] = 941;
  EXPECT_EQ(built.walk().back(), "6 chunk 4 at 941+60 time 500+100 key entry 1 missing");
  // Without stss every sample is a sync sample.
  built.drop("stss");
  EXPECT_EQ(built.walk().at(1), "2 chunk 1 at 110+20 time 100+100 key entry 1");
  // A run of almost 2^32 samples per chunk puts them all in chunk 1.
  built.stsc->entries = {{1, 0xFFFFFFFF, 1}};
  EXPECT_EQ(built.walk().back(), "6 chunk 1 at 250+60 time 500+100 key entry 1");
}

TEST(Track, TablesThatDisagreeGiveAnErrorNamingTrackAndTable) {
  const std::string order = "stsc first chunks must start at 1 and rise, found ";
  const std::string late = " is out of order or past the sample count";
  const struct {
    std::function<void(OneTrack&)> change;
    std::string error;  // after "track 7 (vide, avc1): "
  } cases[] = {
      {[](OneTrack& t) { t.stsc->entries[0].firstChunk = 2; }, order + "2"},
      {[](OneTrack& t) { t.stsc->entries[1].firstChunk = 1; }, order + "1"},
      {[](OneTrack& t) { t.stsc->entries[1].samplesPerChunk = 0; },
       "stsc run with 0 samples per chunk"},
      {[](OneTrack& t) { t.stsc->entries[0].sampleDescriptionIndex = 0; },
       "stsc names sample description 0 of 1 in stsd"},
      {[](OneTrack& t) { t.stsc->entries[1].sampleDescriptionIndex = 2; },
       "stsc names sample description 2 of 1 in stsd"},
      {[](OneTrack& t) { t.stsc->entries.clear(); }, "stsc is empty"},
      {[](OneTrack& t) { t.stsc->entries = {{1, 1, 1}}; },
       "sample 5 lies in chunk 5, past the 4 chunks of stco"},
      {[](OneTrack& t) { t.stts->entries[3].sampleCount = 5; },
       "stts times 7 samples, stsz sizes 6"},
      {[](OneTrack& t) { t.stss->entries = {0, 4}; }, "stss entry 0" + late},
      {[](OneTrack& t) { t.stss->entries = {4, 1}; }, "stss entry 1" + late},
      {[](OneTrack& t) { t.stss->entries = {1, 7}; }, "stss entry 7" + late},
      {[](OneTrack& t) {
         t.drop("stco");
         attach<Co64Atom>(t.stbl, "co64")->entries = {100, 200, 300, UINT64_MAX - 20};
       },
       "sample 6 at offset 18446744073709551595 runs past the end of any file"},
      {[](OneTrack& t) { attach<StszAtom>(t.stbl, "stsz"); }, "its stbl has two stsz boxes"},
      {[](OneTrack& t) { attach<Co64Atom>(t.stbl, "co64"); }, "its stbl has both stco and co64"},
      {[](OneTrack& t) { t.drop("stts"); }, "its stbl has no stts"},
  };
  for (const auto& c : cases) {
    OneTrack built;
    c.change(built);
    EXPECT_EQ(built.walk().back(), "track 7 (vide, avc1): " + c.error);
  }
}

// A recording cut short inside its mdat, and a file with bytes after its
// last box: both read with one warning and write back as they were; a cut
// short before the first box ends is still refused.
TEST(Track, FilesCutShortOrPaddedReadWithAWarning) {
  const Bytes moov = ByteWriter::box("moov", ByteWriter::box("free", Bytes(4)));
  const Bytes cut = ByteWriter().append(moov).u32(100).text("mdat").append(Bytes(10)).bytes;
  const Bytes padded = ByteWriter().append(moov).text("abc").bytes;
  const std::pair<Bytes, std::string> cases[] = {
      {cut, "mdat at offset 20 claims 100 bytes, the file holds 18: it was cut short"},
      {padded, "3 bytes at offset 20 are not a box: kept as they are"},
  };
  for (const auto& [bytes, warning] : cases) {
    const ReadFile read(bytes);
    ASSERT_TRUE(read.status.ok());
    EXPECT_EQ(read.file.warnings(), std::vector<std::string>{warning});
  }
  EXPECT_FALSE(ReadFile(Bytes(cut.begin() + 20, cut.end())).status.ok());
}

// An stsz with one size for every sample and no table: the track reads and
// walks with that size; a table that cannot be read costs only its track.
TEST(Track, ConstantSampleSizeAndUnreadableTables) {
  OneTrack built;
  const Bytes constant = ByteWriter().u32(0).u32(50).u32(6).bytes;
  built.drop("stsz", &constant);
  const Result<std::vector<Track>> tracks = built.find();
  ASSERT_TRUE(tracks.ok()) << tracks.message();
  EXPECT_EQ(tracks->at(0).constantSampleSize(), 50u);
  EXPECT_EQ(tracks->at(0).totalSampleBytes(), 300u);
  EXPECT_EQ(built.walk().at(1), "2 chunk 1 at 150+50 time 100+100 entry 1");
  // A table that cannot be read is kept as bytes and its track reported:
  // the box, what it claims and what it holds, the reader's line as detail.
  const std::pair<std::pair<std::string, Bytes>, std::string> broken[] = {
      {{"stss", ByteWriter().u32(0).u32(9).bytes},
       "stss lists 9 entries of 4 bytes (36 bytes) but its box holds 0 bytes of entries "
       "(detail: read 36 bytes to stss buf failed)"},
      {{"stts", ByteWriter().u32(0).u32(0x20000000).u32(1).bytes},
       "stts lists 536870912 entries of 8 bytes (4294967296 bytes) but its box holds 4 bytes "
       "of entries (detail: stts entry count err)"},
      {{"stsc", ByteWriter().u32(0).bytes},
       "stsc is 4 bytes after its header, too short for its 8 bytes of fields "
       "(detail: offset:306, readBe32 fail)"},
      {{"stsd", ByteWriter().u32(0).u32(2).u32(8).text("\x01" "abc").u32(9).text("mp4a").bytes},
       "stsd sample entry 2 (mp4a) claims 9 bytes, 8 remain in stsd "
       "(detail: box mp4a at offset 256 claims 9 bytes, only 8 remain)"},
      {{"stsd", ByteWriter().u32(0).u32(1).u32(4).text("\x01" "abc").bytes},
       "stsd sample entry 1 (\\x01abc) claims 4 bytes, 8 remain in stsd "
       "(detail: box \x01" "abc at offset 248 has a bad size 4)"},
      {{"stsd", ByteWriter().u32(0).u32(1).u32(8).text("abcd").u32(0).bytes},
       "stsd has 4 bytes after its 1 sample entries (detail: offset:260, readBytes fail)"},
      {{"stsd", ByteWriter().u32(0).u32(3).u32(8).text("avc1").bytes},
       "stsd announces 3 sample entries but holds 1 (detail: offset:256, readBytes fail)"},
  };
  for (const auto& [box, reason] : broken) {
    OneTrack built;
    built.drop(box.first, &box.second);
    const std::string track = box.first == "stsd" ? "track 7 (vide): " : "track 7 (vide, avc1): ";
    EXPECT_EQ(built.walk().back(), track + reason);
  }
}

// Composition offsets and the edit list over the six samples of 100 units
// (track time scale 1000, movie time scale 500): each sample's offset and
// presentation time, or the error that stops the track.
TEST(Track, PresentationTimesFollowCompositionOffsetsAndTheEditList) {
  const std::vector<ElstEntry> none;
  const struct {
    uint8_t cttsVersion;
    std::vector<CttsEntry> offsets;  // no ctts when empty
    std::vector<ElstEntry> edits;    // no elst when empty
    std::string expected;
  } cases[] = {
      {0, {}, none, "0/0 0/100 0/200 0/300 0/400 0/500"},
      {0, {{1, 200}, {2, 0}, {1, 300}}, none, "200/200 0/100 0/200 300/600 0/400 0/500"},
      // The first edit's media time leads; a B-frame clip starts at 0.
      {0, {{1, 200}, {1, 500}, {4, 200}}, {{300, 200, 1, 0}},
       "200/0 500/400 200/200 200/300 200/400 200/500"},
      // Leading empty edits, in the movie's time scale, delay the media.
      {0, {}, {{100, -1, 1, 0}, {25, -1, 1, 0}, {300, 0, 1, 0}},
       "0/250 0/350 0/450 0/550 0/650 0/750"},
      {1, {{2, 0xFFFFFF9C}, {4, 0}}, {{1, -1, 1, 0}, {300, 100, 1, 0}},
       "-100/-198 -100/-98 0/102 0/202 0/302 0/402"},
      // Audio priming: samples before the edit come out negative.
      {0, {}, {{300, 250, 1, 0}}, "0/-250 0/-150 0/-50 0/50 0/150 0/250"},
      // A short ctts leaves the rest at offset 0; a long one is refused.
      {0, {{2, 50}}, none, "50/50 50/150 0/200 0/300 0/400 0/500"},
      {0, {{2, 50}, {5, 1}}, none, "track 7 (vide, avc1): ctts offsets 7 samples, stsz sizes 6"},
  };
  for (const auto& c : cases) {
    OneTrack built;
    attach<MvhdAtom>(built.file.root.children.front(), "mvhd")->timescale = 500;
    if (!c.offsets.empty()) {
      auto* ctts = attach<CttsAtom>(built.stbl, "ctts");
      ctts->version = c.cttsVersion;
      ctts->entries = c.offsets;
    }
    if (!c.edits.empty()) {
      attach<ElstAtom>(attach<ContainerAtom>(built.trak, "edts"), "elst")->entries = c.edits;
    }
    const Result<std::vector<Track>> tracks = built.find();
    if (!tracks.ok()) {
      EXPECT_EQ(tracks.message(), c.expected);
      continue;
    }
    std::string shown;
    walkSamples(tracks->at(0), [&](const SampleInfo& s) {
      shown += (shown.empty() ? "" : " ") + std::to_string(s.compositionOffset) + "/" +
               std::to_string(s.presentationTime);
    });
    EXPECT_EQ(shown, c.expected);
    uint64_t edited = 0;
    for (const ElstEntry& edit : c.edits) edited += edit.segmentDuration;
    EXPECT_EQ(tracks->at(0).presentationDuration(), edited);
  }
}

// Durations are summed in 64 bits: runs past 2^32 units, as a long
// recording of many samples reaches, are not cut (stts's own total keeps
// 32 bits per run).
TEST(Track, DurationsPast32BitsComeFromTheWalk) {
  OneTrack built;
  built.stts->entries = {{2, 0xC0000000}, {4, 100}};
  const Result<std::vector<Track>> tracks = built.find();
  ASSERT_TRUE(tracks.ok()) << tracks.message();
  EXPECT_EQ(tracks->at(0).mediaDuration(), 0x180000000ull + 400);
  EXPECT_EQ(tracks->at(0).stts().totalDuration(), 0x80000000ull + 400);
  EXPECT_EQ(built.walk().back(), "6 chunk 4 at 940+60 time 6442451244+100 key entry 1");
  // Ten million samples of 1001 units, all of one size in one chunk.
  const Bytes constant = ByteWriter().u32(0).u32(1).u32(10000000).bytes;
  built.drop("stsz", &constant);
  built.stts->entries = {{10000000, 1001}};
  built.stsc->entries = {{1, 10000000, 1}};
  const Result<std::vector<Track>> recording = built.find();
  ASSERT_TRUE(recording.ok()) << recording.message();
  EXPECT_EQ(recording->at(0).mediaDuration(), 10010000000ull);
}

}  // namespace
