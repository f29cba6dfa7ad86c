// Tracks and the per-sample walk, on well-formed tables and on tables that
// disagree with each other.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "box/movie_boxes.h"
#include "media/track.h"
#include "support/log_capture.h"

namespace {

template <class Box>
Box* attach(Atom* parent, const char* type) {
  AtomHeader header;
  header.type = type;
  auto* box = new Box(header);
  parent->children.push_back(box);
  return box;
}

// One video track in memory: six samples of 10..60 bytes, 100 units each,
// two samples in chunks 1 and 2 and one in chunks 3 and 4, key frames 1, 4.
struct OneTrack {
  Mp4File file;
  StblAtom* stbl;
  StsdAtom* stsd;
  SttsAtom* stts;
  StscAtom* stsc;
  StszAtom* stsz;
  StssAtom* stss;
  StcoAtom* stco;
  uint64_t fileLength = 1000;

  OneTrack() {
    Atom* trak = attach<ContainerAtom>(attach<ContainerAtom>(&file.root, "moov"), "trak");
    attach<TkhdAtom>(trak, "tkhd")->trackId = 7;
    Atom* mdia = attach<ContainerAtom>(trak, "mdia");
    attach<MdhdAtom>(mdia, "mdhd")->timescale = 1000;
    attach<HdlrAtom>(mdia, "hdlr")->handler = {'v', 'i', 'd', 'e'};
    stbl = attach<StblAtom>(attach<ContainerAtom>(mdia, "minf"), "stbl");
    stsd = attach<StsdAtom>(stbl, "stsd");
    attach<Avc1Atom>(stsd, "avc1");
    stts = attach<SttsAtom>(stbl, "stts");
    stts->entries = {{6, 100}};
    stsc = attach<StscAtom>(stbl, "stsc");
    stsc->entries = {{1, 2, 1}, {3, 1, 1}};
    stsz = attach<StszAtom>(stbl, "stsz");
    stsz->entries = {10, 20, 30, 40, 50, 60};
    stss = attach<StssAtom>(stbl, "stss");
    stss->entries = {1, 4};
    stco = attach<StcoAtom>(stbl, "stco");
    stco->entries = {100, 200, 300, 400};
  }

  // The track, or the error that finding it gave.
  std::string find(Track* track) {
    std::vector<Track> tracks;
    std::string error;
    if (findTracks(file, fileLength, &tracks, &error) != 0) return error;
    EXPECT_EQ(tracks.size(), 1u);
    *track = tracks.at(0);
    return "";
  }

  // Every sample, or the error the walk ended on.
  std::string walk(std::vector<SampleInfo>* samples) {
    Track track;
    std::string error = find(&track);
    if (!error.empty()) return error;
    SampleWalker walker(track);
    SampleInfo sample;
    while (walker.next(&sample)) samples->push_back(sample);
    return walker.error();
  }
};

TEST(Track, WalkFollowsRunsChunksAndSyncSamples) {
  OneTrack built;
  Track track;
  ASSERT_EQ(built.find(&track), "");
  EXPECT_EQ(track.id, 7u);
  EXPECT_STREQ(track.kind(), "video");
  EXPECT_EQ(track.entryType(), "avc1");
  EXPECT_EQ(track.chunkCount(), 4u);

  std::vector<SampleInfo> samples;
  ASSERT_EQ(built.walk(&samples), "");
  struct Expected {
    uint32_t chunk;
    uint64_t offset;
    bool sync;
  };
  const Expected expected[] = {{1, 100, true},  {1, 110, false}, {2, 200, false},
                               {2, 230, true},  {3, 300, false}, {4, 400, false}};
  ASSERT_EQ(samples.size(), 6u);
  for (size_t i = 0; i < samples.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(samples[i].number, i + 1);
    EXPECT_EQ(samples[i].chunk, expected[i].chunk);
    EXPECT_EQ(samples[i].offset, expected[i].offset);
    EXPECT_EQ(samples[i].size, 10 * (i + 1));
    EXPECT_EQ(samples[i].decodeTime, 100 * i);
    EXPECT_EQ(samples[i].duration, 100u);
    EXPECT_EQ(samples[i].sync, expected[i].sync);
    EXPECT_EQ(samples[i].descriptionIndex, 1u);
  }
}

TEST(Track, WithoutStssEverySampleIsSync) {
  OneTrack built;
  built.stbl->children.remove(built.stss);
  delete built.stss;
  std::vector<SampleInfo> samples;
  ASSERT_EQ(built.walk(&samples), "");
  for (const SampleInfo& sample : samples) EXPECT_TRUE(sample.sync);
}

TEST(Track, SamplesPerChunkNear32BitsPutsEverySampleInChunkOne) {
  OneTrack built;
  built.stsc->entries = {{1, 0xFFFFFFFF, 1}};
  std::vector<SampleInfo> samples;
  ASSERT_EQ(built.walk(&samples), "");
  EXPECT_EQ(samples.back().chunk, 1u);
  EXPECT_EQ(samples.back().offset, 250u);
}

TEST(Track, SampleAtTime) {
  OneTrack built;
  built.stts->entries = {{2, 100}, {0, 7}, {4, 50}};
  Track track;
  ASSERT_EQ(built.find(&track), "");
  const std::pair<uint64_t, uint32_t> cases[] = {
      {0, 1}, {99, 1}, {100, 2}, {199, 2}, {200, 3}, {249, 3}, {250, 4}, {399, 6}, {400, 6},
      {1u << 30, 6}};
  for (const auto& [time, sample] : cases) EXPECT_EQ(sampleAtTime(track, time), sample) << time;
}

struct Disagreement {
  const char* name;
  std::function<void(OneTrack&)> change;
  std::string error;  // the message, after "track 7: "
};

void PrintTo(const Disagreement& d, std::ostream* out) { *out << d.name; }

class TablesThatDisagree : public ::testing::TestWithParam<Disagreement> {};

TEST_P(TablesThatDisagree, GiveAnErrorNamingTrackAndTable) {
  OneTrack built;
  GetParam().change(built);
  std::vector<SampleInfo> samples;
  EXPECT_EQ(built.walk(&samples), "track 7: " + GetParam().error);
}

const std::string kStscOrder = "stsc first chunks must start at 1 and rise, found ";

INSTANTIATE_TEST_SUITE_P(
    Cases, TablesThatDisagree,
    ::testing::Values(
        Disagreement{"FirstChunkZero", [](OneTrack& t) { t.stsc->entries[0].firstChunk = 0; },
                     kStscOrder + "0"},
        Disagreement{"FirstChunkNotOne", [](OneTrack& t) { t.stsc->entries[0].firstChunk = 2; },
                     kStscOrder + "2"},
        Disagreement{"FirstChunkRepeated", [](OneTrack& t) { t.stsc->entries[1].firstChunk = 1; },
                     kStscOrder + "1"},
        Disagreement{"FirstChunkFalling",
                     [](OneTrack& t) { t.stsc->entries.push_back({2, 1, 1}); }, kStscOrder + "2"},
        Disagreement{"NoSamplesPerChunk",
                     [](OneTrack& t) { t.stsc->entries[1].samplesPerChunk = 0; },
                     "stsc run with 0 samples per chunk"},
        Disagreement{"DescriptionZero",
                     [](OneTrack& t) { t.stsc->entries[0].sampleDescriptionIndex = 0; },
                     "stsc names sample description 0 of 1 in stsd"},
        Disagreement{"DescriptionPastStsd",
                     [](OneTrack& t) { t.stsc->entries[1].sampleDescriptionIndex = 2; },
                     "stsc names sample description 2 of 1 in stsd"},
        Disagreement{"EmptyStsc", [](OneTrack& t) { t.stsc->entries.clear(); }, "stsc is empty"},
        Disagreement{"RunsPastTheLastChunk", [](OneTrack& t) { t.stsc->entries = {{1, 1, 1}}; },
                     "sample 5 lies in chunk 5, past the 4 chunks of stco"},
        Disagreement{"MoreDurationsThanSizes", [](OneTrack& t) { t.stts->entries[0].sampleCount = 7; },
                     "stts times 7 samples, stsz sizes 6"},
        Disagreement{"FewerDurationsThanSizes", [](OneTrack& t) { t.stsz->entries.push_back(1); },
                     "stts times 6 samples, stsz sizes 7"},
        Disagreement{"SyncSampleZero", [](OneTrack& t) { t.stss->entries = {0, 4}; },
                     "stss entry 0 is out of order or past the sample count"},
        Disagreement{"SyncSamplesUnsorted", [](OneTrack& t) { t.stss->entries = {4, 1}; },
                     "stss entry 1 is out of order or past the sample count"},
        Disagreement{"SyncSamplePastTheEnd", [](OneTrack& t) { t.stss->entries = {1, 7}; },
                     "stss entry 7 is out of order or past the sample count"},
        Disagreement{"SamplePastTheFile", [](OneTrack& t) { t.stco->entries[3] = 950; },
                     "sample 6 at offset 950 runs past the end of the file"},
        Disagreement{"SamplePast64Bits",
                     [](OneTrack& t) {
                       t.fileLength = 0;  // unknown: only the 64-bit bound is left
                       t.stbl->children.remove(t.stco);
                       delete t.stco;
                       auto* co64 = attach<Co64Atom>(t.stbl, "co64");
                       co64->entries = {100, 200, 300, UINT64_MAX - 20};
                     },
                     "sample 6 at offset 18446744073709551595 runs past the end of the file"},
        Disagreement{"TwoSizeTables", [](OneTrack& t) { attach<StszAtom>(t.stbl, "stsz"); },
                     "two stsz boxes"},
        Disagreement{"BothOffsetTables", [](OneTrack& t) { attach<Co64Atom>(t.stbl, "co64"); },
                     "needs exactly one stco or co64"},
        Disagreement{"NoDurations",
                     [](OneTrack& t) {
                       t.stbl->children.remove(t.stts);
                       delete t.stts;
                     },
                     "needs exactly one stts"}),
    [](const ::testing::TestParamInfo<Disagreement>& info) { return info.param.name; });

}  // namespace
