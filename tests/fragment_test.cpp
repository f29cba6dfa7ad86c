// Fragmented files built byte by byte: where each fragment sample lies,
// when it decodes and whether it is a key frame, the defaults and base
// offsets that decide it, and what a broken fragment gives.
#include <mp4stbl/box/fragment_boxes.h>
#include "support/test.h"

namespace {

// Big-endian 32-bit words.
Bytes words(std::initializer_list<uint32_t> values) {
  ByteWriter out;
  for (uint32_t value : values) out.u32(value);
  return out.bytes;
}

Bytes boxOf(const std::string& type, std::initializer_list<Bytes> children) {
  return ByteWriter::box(type, concat(children));
}
constexpr auto fullBox = &ByteWriter::fullBox;

// The parts of a one-track fragmented file (time scale 1000), each a
// field a case can change before the file is put together.
struct Fragmented {
  uint32_t trexTrack = 1;
  // trex: description 1, duration 100, size 0, samples not sync.
  Bytes trexDefaults = ByteWriter().u32(1).u32(100).u32(0).u32(kSampleIsNonSync).bytes;
  // Fragment 1 counts its data from the moof; decode time 5000. Run A
  // (version 1): data offset 156, the first sample a key frame, sizes 10,
  // 20, 30 and composition offsets 200, -100, 0. Run B follows A's data
  // with no offset of its own: durations 50, 60, sizes 5, 7.
  uint32_t traf1Track = 1;
  uint32_t runACount = 3;
  uint32_t runBCount = 2;
  uint32_t runBFlags = TrunAtom::kDuration | TrunAtom::kSize;
  Bytes runA = words({156, 0x02000000, 10, 200, 20, static_cast<uint32_t>(-100), 30, 0});
  // Fragment 2 has no base flags: its first track fragment counts from the
  // moof (data offset 132, size 8, duration 40 from tfhd), the second
  // from the end of the first one's data (size 9, key frame by tfhd).
  Bytes mdat2 = Bytes(17, 0xBB);
  // Edits (segment duration, media time); with any, an mvhd of time scale
  // 1000 and an edts are added.
  std::vector<std::pair<uint32_t, int32_t>> edits;

  Bytes bytes() const {
    using W = ByteWriter;
    const Bytes stbl =
        boxOf("stbl", {fullBox("stsd", 0, 0, ByteWriter().u32(1).append(W::box("test", {})).bytes),
                       fullBox("stts", 0, 0, Bytes(4)), fullBox("stsc", 0, 0, Bytes(4)),
                       fullBox("stsz", 0, 0, Bytes(8)), fullBox("stco", 0, 0, Bytes(4))});
    const Bytes mdia =
        boxOf("mdia", {fullBox("mdhd", 0, 0, W().u32(0).u32(0).u32(1000).u32(0).u32(0).bytes),
                       fullBox("hdlr", 0, 0, W().u32(0).text("vide").append(Bytes(13)).bytes),
                       boxOf("minf", {stbl})});
    const Bytes tkhd = fullBox("tkhd", 0, 3, W().u32(0).u32(0).u32(1).u32(0).u32(0).bytes);
    const Bytes trex = fullBox("trex", 0, 0, W().u32(trexTrack).append(trexDefaults).bytes);
    Bytes moov = boxOf("moov", {boxOf("trak", {tkhd, mdia}), boxOf("mvex", {trex})});
    if (!edits.empty()) {
      W elst = W().u32(static_cast<uint32_t>(edits.size()));
      for (const auto& [duration, start] : edits) elst.u32(duration).u32(static_cast<uint32_t>(start)).u32(0x10000);
      const Bytes edts = boxOf("edts", {fullBox("elst", 0, 0, elst.bytes)});
      moov = boxOf("moov", {fullBox("mvhd", 0, 0, words({0, 0, 1000, 0})), boxOf("trak", {tkhd, edts, mdia}),
                            boxOf("mvex", {trex})});
    }
    const Bytes traf1 =
        boxOf("traf", {fullBox("tfhd", 0, TfhdAtom::kDefaultBaseIsMoof, W().u32(traf1Track).bytes),
                       fullBox("tfdt", 1, 0, W().u64(5000).bytes),
                       fullBox("trun", 1, 0x000A05, W().u32(runACount).append(runA).bytes),
                       fullBox("trun", 0, runBFlags, words({runBCount, 50, 5, 60, 7}))});
    const Bytes moof1 = boxOf("moof", {fullBox("mfhd", 0, 0, W().u32(1).bytes), traf1});
    const Bytes moof2 = boxOf(
        "moof",
        {fullBox("mfhd", 0, 0, W().u32(2).bytes),
         boxOf("traf", {fullBox("tfhd", 0, TfhdAtom::kDefaultDuration, W().u32(1).u32(40).bytes),
                        fullBox("trun", 0, 0x000201, W().u32(1).u32(132).u32(8).bytes)}),
         boxOf("traf", {fullBox("tfhd", 0, TfhdAtom::kDefaultFlags, W().u32(1).u32(0).bytes),
                        fullBox("trun", 0, 0x000200, W().u32(1).u32(9).bytes)})});
    return W()
        .append(moov)
        .append(moof1)
        .append(W::box("mdat", Bytes(72, 0xAA)))
        .append(moof2)
        .append(W::box("mdat", mdat2))
        .bytes;
  }
};

struct Walked {
  std::vector<std::string> rows;  // every sample, or the reason the track was refused
  std::unique_ptr<ReadFile> read;
  FoundTracks found;
};

Walked walk(const Bytes& bytes) {
  Walked walked;
  walked.read = std::make_unique<ReadFile>(bytes);
  if (!walked.read->status.ok()) walked.rows = {walked.read->status.message()};
  if (!walked.read->status.ok()) return walked;
  walked.found = findTracks(walked.read->file);
  walked.rows = walked.found.unreadable;
  for (const Track& track : walked.found.tracks) {
    walkSamples(track, [&](const SampleInfo& s) {
      walked.rows.push_back(std::to_string(s.number) + " run " + std::to_string(s.chunk) + " at " +
                            std::to_string(s.offset) + "+" + std::to_string(s.size) + " time " +
                            std::to_string(s.decodeTime) + "+" + std::to_string(s.duration) +
                            " cto " + std::to_string(s.compositionOffset) + (s.sync ? " key" : "") +
                            (s.missing ? " missing" : ""));
    });
  }
  return walked;
}

// moov is 269 bytes, moof 1 starts there (148 bytes, its mdat 80), moof 2 at
// 497 (124 bytes, its mdat 25).
TEST(Fragments, WalkFollowsDefaultsBaseOffsetsAndDecodeTimes) {
  const Bytes bytes = Fragmented().bytes();
  ASSERT_EQ(bytes.size(), 646u);
  const Walked walked = walk(bytes);
  EXPECT_EQ(walked.rows, (std::vector<std::string>{
                             "1 run 1 at 425+10 time 5000+100 cto 200 key",
                             "2 run 1 at 435+20 time 5100+100 cto -100",
                             "3 run 1 at 455+30 time 5200+100 cto 0",
                             "4 run 2 at 485+5 time 5300+50 cto 0",
                             "5 run 2 at 490+7 time 5350+60 cto 0",
                             "6 run 3 at 629+8 time 5410+40 cto 0",
                             "7 run 4 at 637+9 time 5450+100 cto 0 key",
                         }));
  ASSERT_EQ(walked.found.tracks.size(), 1u);
  const Track& track = walked.found.tracks[0];
  EXPECT_EQ(track.sampleCount(), 7u);
  EXPECT_EQ(track.totalSampleBytes(), 89u);
  EXPECT_EQ(track.fragments().endTime, 5550u);
  // The fragments start decoding at 5000: the media lasts what the samples do.
  EXPECT_EQ(track.mediaDuration(), 550u);
  EXPECT_EQ(track.fragments().syncSamples, 2u);
  EXPECT_EQ(track.chunkOffset(3), 629u);
  // The sample at a time is the last to decode at or before it.
  const std::pair<uint64_t, uint32_t> times[] = {{0, 1},    {5099, 1}, {5100, 2},
                                                 {5449, 6}, {5450, 7}, {UINT64_MAX, 7}};
  for (const auto& [time, sample] : times) EXPECT_EQ(sampleAtTime(track, time), sample) << time;
  // Key frames 1 and 7: the last at or before, or the first at or after.
  const std::tuple<uint32_t, bool, uint32_t> keys[] = {
      {1, false, 1}, {4, false, 1}, {4, true, 7}, {7, false, 7}, {7, true, 7}};
  for (const auto& [asked, after, key] : keys) {
    EXPECT_EQ(keyFrameNear(track, asked, after), key) << asked << (after ? " after" : "");
  }
}

// The edit list over the fragments' 550 units: an edit of duration 0, as
// writers leave it when moov comes before the length is known, lasts from
// its media time to the end of the samples; its media time still shifts
// presentation. Edits with a duration keep it.
TEST(Fragments, AnEditOfDurationZeroLastsToTheEndOfTheSamples) {
  const struct {
    std::vector<std::pair<uint32_t, int32_t>> edits;
    uint64_t presented;
    int64_t shift;
  } cases[] = {
      {{{0, 0}}, 550, 0},
      {{{0, 100}}, 450, -100},
      {{{0, 600}}, 0, -600},
      {{{200, -1}, {0, 100}}, 650, 100},
      {{{300, 100}}, 300, -100},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.presented);
    Fragmented built;
    built.edits = c.edits;
    const Walked walked = walk(built.bytes());
    ASSERT_EQ(walked.found.tracks.size(), 1u);
    const Track& track = walked.found.tracks[0];
    EXPECT_EQ(track.presentationDuration(), c.presented);
    EXPECT_EQ(track.presentationShift(), c.shift);
  }
}

// Fragments that do not fit their file or their tracks.
TEST(Fragments, BrokenFragmentsNameTheirTrackOrAreRefused) {
  const std::string trak = "track 1 (vide, test): ";
  const struct {
    std::function<void(Fragmented&)> change;
    std::string row;  // a row of the walk
  } cases[] = {
      {[](Fragmented& f) { f.trexTrack = 2; }, trak + "has fragments but no trex in mvex"},
      {[](Fragmented& f) { f.trexDefaults[3] = 2; },
       trak + "the fragment run at offset 337 names sample description 2 of 1 in stsd"},
      // Fragment 2's samples still belong to track 1.
      {[](Fragmented& f) { f.traf1Track = 9; },
       "track 9: the movie fragment at offset 269 has samples for it, but no trak"},
      // The last sample lies one byte past the end of the file.
      {[](Fragmented& f) { f.mdat2.pop_back(); },
       "7 run 4 at 637+9 time 5450+100 cto 0 key missing"},
      // Run A's data offset counts back before the file: its samples are
      // missing, the runs after it are unaffected.
      {[](Fragmented& f) { f.runA[3] = 0, f.runA[0] = 0xFF; },
       "1 run 1 at 18446744073692774669+10 time 5000+100 cto 200 key missing"},
      {[](Fragmented& f) { f.runA[3] = 0, f.runA[0] = 0xFF; },
       "7 run 4 at 637+9 time 5450+100 cto 0 key"},
      // A count of 2^32-1 samples: its records would pass the end of trun.
      {[](Fragmented& f) { f.runACount = UINT32_MAX; },
       "4294967295 records of 8 bytes at offset 361 run past the box"},
      // One more record than the box holds.
      {[](Fragmented& f) { f.runACount = 4; },
       "4 records of 8 bytes at offset 361 run past the box"},
      // 2^32-1 samples of the defaults take no bytes of the box, but more
      // samples than the file has bytes are refused before any walk.
      {[](Fragmented& f) { f.runBFlags = 0, f.runBCount = UINT32_MAX; },
       trak + "fragments hold 4294967300 samples, more than the file can"},
  };
  for (const auto& c : cases) {
    Fragmented built;
    c.change(built);
    const std::vector<std::string> rows = walk(built.bytes()).rows;
    EXPECT_NE(std::find(rows.begin(), rows.end(), c.row), rows.end())
        << c.row << "\nnot in\n"
        << testing::PrintToString(rows);
  }
}

}  // namespace
