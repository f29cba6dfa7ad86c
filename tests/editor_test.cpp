// Trim, join and remux of the shipped files: the samples of a new file are
// the source's samples byte for byte, with their durations, key frames and
// descriptions; the edit list shows the window asked for; a fragmented
// source comes out regular; refusals leave no file behind.
#include <sys/wait.h>

#include <csignal>
#include <fstream>

#include <mp4stbl/box/fragment_boxes.h>
#include <mp4stbl/edit/editor.h>
#include <mp4stbl/edit/media_copy.h>
#include "support/co64.h"
#include "support/test.h"

namespace {

const std::string kData = MP4STBL_TEST_DATA;
const std::string kClip = kData + "/h264_aac.mp4";  // 10 frames at 25/s, a key frame every 4
// 20 frames in three fragments of 8, 8 and 4 (key frames 1, 9, 17) with
// negative composition offsets, and 19 AAC frames.
const std::string kFragmented = kData + "/frag_h264_aac.mp4";

// A sample's bytes, duration, key flag and description index.
using Sample = std::tuple<Bytes, uint32_t, bool, uint32_t>;

struct Read {
  std::vector<std::vector<Sample>> tracks;
  std::vector<std::vector<uint64_t>> edits;  // duration, media time pairs of each elst
  uint64_t movieDuration = 0;
};

// Every sample of every track of the file open at `path`, each the row
// that `make(bytes, sample)` makes of it.
template <class Row, class Make>
std::vector<std::vector<Row>> rowsOf(Mp4File& file, const std::string& path, Make make) {
  std::vector<std::vector<Row>> tracks;
  const Bytes all = readFile(path);
  FoundTracks found = findTracks(file);
  EXPECT_TRUE(found.unreadable.empty());
  for (const Track& track : found.tracks) {
    std::vector<Row>& rows = tracks.emplace_back();
    EXPECT_EQ(walkSamples(track, [&](const SampleInfo& s) {
      rows.push_back(make(Bytes(all.begin() + s.offset, all.begin() + s.offset + s.size), s));
    }), "");
  }
  return tracks;
}

Read readBack(const std::string& path) {
  Read read;
  Mp4File file;
  EXPECT_TRUE(file.open(path).ok()) << path;
  read.tracks = rowsOf<Sample>(file, path, [](Bytes bytes, const SampleInfo& s) {
    return Sample{std::move(bytes), s.duration, s.sync, s.descriptionIndex};
  });
  for (Atom* elst : file.find("moov/trak/edts/elst")) {
    std::vector<uint64_t>& pairs = read.edits.emplace_back();
    for (const ElstEntry& edit : dynamic_cast<ElstAtom&>(*elst).entries) {
      pairs.push_back(edit.segmentDuration);
      pairs.push_back(static_cast<uint64_t>(edit.mediaTime));
    }
  }
  read.movieDuration = dynamic_cast<MvhdAtom&>(*file.find("moov/mvhd").front()).duration;
  return read;
}

std::vector<Sample> range(const std::vector<Sample>& samples, size_t first, size_t last) {
  return std::vector<Sample>(samples.begin() + first - 1, samples.begin() + last);
}

class Edit : public ::testing::Test {
 protected:
  std::string out(const std::string& name) const { return dir_ / name; }
  // The directory holds exactly `names`: no temporary is left.
  void expectFiles(std::vector<std::string> names) const { EXPECT_EQ(dir_.names(), names); }
  const ScratchDir dir_{"mp4stbl_edit_"};
};

// The window starts where the video frame showing at --from starts (0.1
// lies inside the frame of 0.08); video from the key frame at or before
// it, audio from the frame before the one that holds it (AAC's pre-roll);
// one edit starts each track at that time, the audio's priming (1024)
// included, and a frame that starts at --to is left out (movie time scale
// 1000, video 12800, audio 22050 units a second).
TEST_F(Edit, TrimKeepsWholeSamplesAndShowsTheWindow) {
  const Read source = readBack(kClip);
  const struct {
    double from, to;
    bool keyframe;
    size_t videoFirst, videoLast, audioFirst, audioLast;
    std::vector<std::vector<uint64_t>> edits;
  } cases[] = {
      {0.1, 0.3, false, 1, 8, 2, 8, {{220, 1024}, {220, 1764}}},
      {0.2, 0.4, false, 5, 10, 5, 10, {{200, 512}, {200, 4410 - 3072}}},
      {0.2, 0.32, false, 5, 8, 5, 8, {{120, 512}, {120, 4410 - 3072}}},
      {0.2, 0.3, true, 5, 8, 5, 8, {}},
      {0.0, 99, false, 1, 10, 1, 10, {{400, 0}, {400, 1024}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.from) + (c.keyframe ? " keyframe" : ""));
    EditOptions options;
    options.keyframe = c.keyframe;
    ASSERT_TRUE(trim(kClip, c.from, c.to, out("cut.mp4"), options).ok());
    const Read cut = readBack(out("cut.mp4"));
    ASSERT_EQ(cut.tracks.size(), 2u);
    EXPECT_TRUE(cut.tracks[0] == range(source.tracks[0], c.videoFirst, c.videoLast));
    EXPECT_TRUE(cut.tracks[1] == range(source.tracks[1], c.audioFirst, c.audioLast));
    EXPECT_EQ(cut.edits, c.edits);
  }
  expectFiles({"cut.mp4"});
}

// What a trim cuts away does not reach the new file: between the kept
// samples of interleaved tracks lie samples of the other track that the
// window drops (audio before its pre-roll, video after the last frame),
// and none of their bytes may be copied along.
TEST_F(Edit, TrimLeavesNoByteOfWhatItCutAway) {
  const Read source = readBack(kClip);
  ASSERT_TRUE(trim(kClip, 0.3, 0.36, out("cut.mp4")).ok());
  const Read cut = readBack(out("cut.mp4"));
  const Bytes written = readFile(out("cut.mp4"));
  size_t dropped = 0;
  for (size_t t = 0; t < 2; ++t) {
    for (const Sample& sample : source.tracks[t]) {
      const Bytes& bytes = std::get<0>(sample);
      const bool kept = std::any_of(cut.tracks[t].begin(), cut.tracks[t].end(),
                                    [&](const Sample& k) { return std::get<0>(k) == bytes; });
      if (kept) continue;
      ++dropped;
      EXPECT_EQ(std::search(written.begin(), written.end(), bytes.begin(), bytes.end()),
                written.end()) << "track " << t + 1;
    }
  }
  EXPECT_GE(dropped, 8u);
}

// Pre-roll and descriptions come from the source's samples: AAC keeps the
// frame before the window's first one though no "roll" group says so, and
// a trim across a change of sample description keeps each sample's own.
TEST_F(Edit, TrimKeepsPreRollAndEachSamplesDescription) {
  Mp4File bare;
  ASSERT_TRUE(bare.open(kClip).ok());
  for (Atom* stbl : bare.find("moov/trak/mdia/minf/stbl")) {
    for (auto it = stbl->children.begin(); it != stbl->children.end();) {
      const bool group = (*it)->header.type == "sgpd" || (*it)->header.type == "sbgp";
      if (group) delete *it;
      it = group ? stbl->children.erase(it) : std::next(it);
    }
  }
  ASSERT_TRUE(bare.save(out("bare.mp4")).ok());
  ASSERT_TRUE(trim(out("bare.mp4"), 0.2, 0.4, out("cut.mp4")).ok());
  const Read source = readBack(kClip);
  EXPECT_TRUE(readBack(out("cut.mp4")).tracks[1] == range(source.tracks[1], 5, 10));

  Mp4File wider;
  ASSERT_TRUE(wider.open(kClip).ok());
  dynamic_cast<VisualSampleEntry&>(
      *wider.find("moov/trak/mdia/minf/stbl/stsd").front()->children.front()).width = 100;
  ASSERT_TRUE(wider.save(out("wider.mp4")).ok());
  ASSERT_TRUE(join({kClip, out("wider.mp4")}, out("joined.mp4")).ok());
  ASSERT_TRUE(trim(out("joined.mp4"), 0.32, 0.48, out("across.mp4")).ok());
  std::vector<uint32_t> descriptions;
  const Read across = readBack(out("across.mp4"));
  for (const Sample& sample : across.tracks[0]) {
    descriptions.push_back(std::get<3>(sample));
  }
  EXPECT_EQ(descriptions, (std::vector<uint32_t>{1, 1, 2, 2}));
}

// A source whose chunk offsets are 64-bit cuts to the same samples; the
// small new file goes back to stco.
TEST_F(Edit, Co64SourceCutsLikeStco) {
  Mp4File wide;
  ASSERT_TRUE(wide.open(kClip).ok());
  widenChunkOffsets(wide, 0);  // moov follows mdat: no sample moves
  ASSERT_TRUE(wide.save(out("co64.mp4")).ok());
  ASSERT_TRUE(trim(kClip, 0.1, 0.3, out("a.mp4")).ok());
  ASSERT_TRUE(trim(out("co64.mp4"), 0.1, 0.3, out("b.mp4")).ok());
  EXPECT_TRUE(readBack(out("a.mp4")).tracks == readBack(out("b.mp4")).tracks);
  Mp4File cut;
  ASSERT_TRUE(cut.open(out("b.mp4")).ok());
  EXPECT_EQ(cut.find("moov/trak/mdia/minf/stbl/stco").size(), 2u);
}

// N clips play one after the other on one edit: the samples in order, the
// later clips' AAC priming frame dropped, their first video sample led by
// the clip's parameter sets in band; a clip whose sample entry differs adds
// a second entry.
TEST_F(Edit, JoinAppendsClipsOnOneTimelineAndSharesEqualEntries) {
  Mp4File wider;
  ASSERT_TRUE(wider.open(kClip).ok());
  auto& avc1 = dynamic_cast<VisualSampleEntry&>(
      *wider.find("moov/trak/mdia/minf/stbl/stsd").front()->children.front());
  avc1.width = 100;
  ASSERT_TRUE(wider.save(out("wider.mp4")).ok());

  ASSERT_TRUE(join({kClip, kClip, out("wider.mp4")}, out("joined.mp4")).ok());
  const Read source = readBack(kClip);
  const Read joined = readBack(out("joined.mp4"));
  ASSERT_EQ(joined.tracks.size(), 2u);
  const std::vector<Sample>& video = source.tracks[0];
  const std::vector<Sample>& audio = source.tracks[1];
  std::vector<Sample> expected[2];
  for (uint32_t clip = 0; clip < 3; ++clip) {
    for (Sample sample : video) {
      if (clip == 2) std::get<3>(sample) = 2;
      expected[0].push_back(sample);
    }
    expected[1].insert(expected[1].end(), audio.begin() + (clip == 0 ? 0 : 1), audio.end());
  }
  for (size_t clip : {1, 2}) {
    // SPS (NAL type 7) and PPS, each behind a four-byte length, then the frame.
    Bytes& first = std::get<0>(expected[0][clip * video.size()]);
    const Bytes& led = std::get<0>(joined.tracks[0][clip * video.size()]);
    ASSERT_GT(led.size(), first.size() + 8);
    EXPECT_EQ(led[4] & 0x1F, 7);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), led.end() - first.size()));
    first = led;
  }
  EXPECT_TRUE(joined.tracks[0] == expected[0]);
  EXPECT_TRUE(joined.tracks[1] == expected[1]);
  EXPECT_EQ(joined.edits, (std::vector<std::vector<uint64_t>>{{1200, 0}, {1200, 1024}}));
  EXPECT_EQ(joined.movieDuration, 1200u);
}

// A sample as a player takes it: bytes, decode time, composition offset,
// key flag and description.
using Timed = std::tuple<Bytes, uint64_t, int64_t, bool, uint32_t>;

std::vector<std::vector<Timed>> timedSamples(const std::string& path) {
  Mp4File file;
  EXPECT_TRUE(file.open(path).ok()) << path;
  return rowsOf<Timed>(file, path, [](Bytes bytes, const SampleInfo& s) {
    return Timed{std::move(bytes), s.decodeTime, s.compositionOffset, s.sync, s.descriptionIndex};
  });
}

template <class Box>
Box* childOfType(Atom& parent) {
  for (Atom* child : parent.children) {
    if (auto* box = dynamic_cast<Box*>(child)) return box;
  }
  return nullptr;
}

std::vector<std::string> topLevel(Mp4File& file) {
  std::vector<std::string> types;
  for (const Atom* box : file.root.children) types.push_back(box->header.type);
  return types;
}

// The fragments come out as one table per track: every sample where and
// when it was, each run of the fragments one chunk, composition offsets
// signed (ctts version 1), the media's length in mdhd, movie box first
// unless asked last. A regular file whose movie box follows its media
// comes out the same but for the order.
TEST_F(Edit, RemuxGathersFragmentsIntoOneTable) {
  for (const bool moovLast : {false, true}) {
    SCOPED_TRACE(moovLast);
    EditOptions options;
    options.moovLast = moovLast;
    ASSERT_TRUE(remux(kFragmented, out("flat.mp4"), options).ok());
    EXPECT_TRUE(timedSamples(out("flat.mp4")) == timedSamples(kFragmented));
    Mp4File flat;
    ASSERT_TRUE(flat.open(out("flat.mp4")).ok());
    EXPECT_EQ(topLevel(flat), (moovLast ? std::vector<std::string>{"ftyp", "mdat", "moov"}
                                        : std::vector<std::string>{"ftyp", "moov", "mdat"}));
    EXPECT_TRUE(flat.find("moov/mvex").empty());
    Atom& video = *flat.find("moov/trak/mdia/minf/stbl").front();
    EXPECT_EQ(childOfType<StscAtom>(video)->entries, (std::vector<StscEntry>{{1, 8, 1}, {3, 4, 1}}));
    EXPECT_EQ(childOfType<StssAtom>(video)->entries, (std::vector<uint32_t>{1, 9, 17}));
    EXPECT_EQ(childOfType<CttsAtom>(video)->version, 1);
    EXPECT_EQ(childOfType<StcoAtom>(video)->entries.size(), 3u);
    std::vector<uint64_t> durations;
    for (Atom* mdhd : flat.find("moov/trak/mdia/mdhd")) {
      durations.push_back(dynamic_cast<MdhdAtom&>(*mdhd).duration);
    }
    EXPECT_EQ(durations, (std::vector<uint64_t>{20 * 512, 18 * 1024 + 232}));
  }
  ASSERT_TRUE(remux(kClip, out("flat.mp4")).ok());
  EXPECT_TRUE(timedSamples(out("flat.mp4")) == timedSamples(kClip));
  EXPECT_EQ(readBack(out("flat.mp4")).edits, readBack(kClip).edits);
  Mp4File flat;
  ASSERT_TRUE(flat.open(out("flat.mp4")).ok());
  EXPECT_EQ(topLevel(flat), (std::vector<std::string>{"ftyp", "free", "moov", "mdat"}));
}

// The shipped fragmented clip with an edit list on its video track and its
// video fragments' decode times moved: all of them by `start`, the second
// and third by `gap` more each. The flattened video decodes from 0, each
// sample until the next one decodes (a gap lengthens the sample before
// it); its media times move back by `start`, a segment that would start
// before the media starts after an empty one, and a segment of no length
// plays to the end of what the media shows (10240 units of 12800 a second,
// composition time, movie time scale 1000); alone from 0, it goes.
TEST_F(Edit, FlattenedEditListsHaveLengths) {
  using Edits = std::vector<std::vector<uint64_t>>;
  const uint64_t empty = static_cast<uint64_t>(-1);
  const struct {
    std::vector<ElstEntry> elst;
    uint64_t start, gap;
    Edits edits;
    std::vector<SttsEntry> stts;
  } cases[] = {
      {{{0, 1024, 1, 0}}, 0, 0, {{720, 1024}}, {{20, 512}}},
      {{{0, 0, 1, 0}}, 0, 0, {}, {{20, 512}}},
      {{}, 2560, 0, {{200, empty, 800, 0}}, {{20, 512}}},
      {{{0, 1024, 1, 0}}, 2560, 0, {{120, empty, 800, 0}}, {{20, 512}}},
      {{{500, 3072, 1, 0}}, 2560, 0, {{500, 512}}, {{20, 512}}},
      {{{0, 1024, 1, 0}}, 0, 256, {{760, 1024}},
       {{7, 512}, {1, 768}, {7, 512}, {1, 768}, {4, 512}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.start) + " " + std::to_string(c.gap) + " " +
                 std::to_string(c.elst.size()));
    Mp4File file;
    ASSERT_TRUE(file.open(kFragmented).ok());
    Atom* trak = file.find("moov/trak").front();
    if (!c.elst.empty()) {
      Atom* edts = attach<ContainerAtom>(trak, "edts");
      attach<ElstAtom>(edts, "elst")->entries = c.elst;
    }
    uint64_t moved = c.start;
    for (Atom* traf : file.find("moof/traf")) {
      if (childOfType<TfhdAtom>(*traf)->trackId != 1) continue;
      childOfType<TfdtAtom>(*traf)->baseMediaDecodeTime += moved;
      moved += c.gap;
    }
    ASSERT_TRUE(file.save(out("moved.mp4")).ok());
    ASSERT_TRUE(remux(out("moved.mp4"), out("flat.mp4")).ok());
    EXPECT_EQ(readBack(out("flat.mp4")).edits, c.edits);
    Mp4File flat;
    ASSERT_TRUE(flat.open(out("flat.mp4")).ok());
    Atom& video = *flat.find("moov/trak/mdia/minf/stbl").front();
    EXPECT_EQ(childOfType<SttsAtom>(video)->entries, c.stts);
    const auto source = timedSamples(out("moved.mp4"))[0], flattened = timedSamples(out("flat.mp4"))[0];
    ASSERT_EQ(flattened.size(), source.size());
    for (size_t i = 0; i < source.size(); ++i) {
      EXPECT_EQ(std::get<1>(flattened[i]), std::get<1>(source[i]) - c.start) << i;
    }
  }
}

// A fragmented source trims and joins as its regular remux does.
TEST_F(Edit, FragmentedSourceEditsLikeItsRemux) {
  ASSERT_TRUE(remux(kFragmented, out("flat.mp4")).ok());
  ASSERT_TRUE(trim(kFragmented, 0.35, 0.6, out("a.mp4")).ok());
  ASSERT_TRUE(trim(out("flat.mp4"), 0.35, 0.6, out("b.mp4")).ok());
  EXPECT_TRUE(timedSamples(out("a.mp4")) == timedSamples(out("b.mp4")));
  EXPECT_EQ(readBack(out("a.mp4")).edits, readBack(out("b.mp4")).edits);
  ASSERT_TRUE(join({kFragmented, out("flat.mp4")}, out("a.mp4")).ok());
  ASSERT_TRUE(join({out("flat.mp4"), out("flat.mp4")}, out("b.mp4")).ok());
  EXPECT_TRUE(timedSamples(out("a.mp4")) == timedSamples(out("b.mp4")));
  EXPECT_EQ(readBack(out("a.mp4")).edits, readBack(out("b.mp4")).edits);
}

// What an edit refuses, and a job stopped by its caller: a clear reason,
// no output, no temporary, inputs untouched.
TEST_F(Edit, RefusalsLeaveNoFile) {
  const Bytes before = readFile(kClip);
  const ScratchDir inputs("mp4stbl_edit_inputs_");
  const std::string noTrex = inputs / "no_trex.mp4";
  Mp4File fragmented;
  ASSERT_TRUE(fragmented.open(kFragmented).ok());
  Atom* mvex = fragmented.find("moov/mvex").front();
  fragmented.find("moov").front()->children.remove(mvex);
  delete mvex;
  ASSERT_TRUE(fragmented.save(noTrex).ok());
  EditOptions stop;
  stop.progress = [](uint64_t, uint64_t) { return false; };
  Mp4File many;
  ASSERT_TRUE(many.open(kClip).ok());
  auto& edits = dynamic_cast<ElstAtom&>(*many.find("moov/trak/edts/elst").front());
  edits.entries.assign(5000, {1, 0, 1, 0});  // a millisecond each
  ASSERT_TRUE(many.save(out("many.mp4")).ok());
  // Movie box first, media cut short: a clip whose samples are not all there.
  ASSERT_TRUE(trim(kClip, 0, 1, out("whole.mp4")).ok());
  const Bytes whole = readFile(out("whole.mp4"));
  std::ofstream(out("short.mp4"), std::ios::binary)
      .write(reinterpret_cast<const char*>(whole.data()), static_cast<std::streamsize>(whole.size() / 2));
  const struct { Status status; std::string reason; } cases[] = {
      {trim(out("many.mp4"), 0, 99, out("a.mp4")).status(), "5000 stretches"},
      {join({kClip, out("short.mp4")}, out("a.mp4")).status(),
       out("short.mp4") + ": track 1 (vide, avc1): sample"},
      {trim(kClip, 0.3, 0.3, out("a.mp4")).status(), "is empty"},
      {trim(kClip, 5, 6, out("a.mp4")).status(), "nothing plays"},
      {trim(kClip, 0, 1, kClip).status(), "is one of the inputs"},
      {trim(kData + "/none.mp4", 0, 1, out("a.mp4")).status(), "none.mp4"},
      {join({kClip}, out("a.mp4")).status(), "two files or more"},
      {remux(noTrex, out("a.mp4")).status(), "track 1 (vide, avc1): has fragments but no trex"},
      {join({kClip, kData + "/hevc.mp4"}, out("a.mp4")).status(), "has 1 track where"},
      {join({kClip, kData + "/prores_apch_aac.mov"}, out("a.mp4")).status(), "is vide/apch"},
      {trim(kClip, 0, 1, out("a.mp4"), stop).status(), "stopped"},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(c.status.ok());
    EXPECT_NE(c.status.message().find(c.reason), std::string::npos) << c.status.message();
  }
  expectFiles({"many.mp4", "short.mp4", "whole.mp4"});
  EXPECT_TRUE(readFile(kClip) == before);
}

// A job stopped by its caller or killed mid-way leaves nothing beside its
// target, and a file already there as it was: the new file has no name
// until it is whole. The killed job is a child process stopped in the
// middle of copying the media, after the movie box went to the file.
TEST_F(Edit, StoppedOrKilledJobLeavesNothingBesideTheTarget) {
  std::ofstream(out("old.mp4")) << "old";
  EditOptions stop;
  stop.progress = [](uint64_t, uint64_t) { return false; };
  EXPECT_NE(trim(kClip, 0, 1, out("old.mp4"), stop).message().find("stopped"), std::string::npos);
  EXPECT_NE(join({kClip, kClip}, out("new.mp4"), stop).message().find("stopped"),
            std::string::npos);
  expectFiles({"old.mp4"});
  EXPECT_EQ(readFile(out("old.mp4")), (Bytes{'o', 'l', 'd'}));

  int midway[2];
  ASSERT_EQ(pipe(midway), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    EditOptions hold;
    hold.progress = [&midway](uint64_t, uint64_t) {
      const char mark = 'x';
      if (write(midway[1], &mark, 1) == 1) pause();
      return false;
    };
    _exit(trim(kClip, 0, 1, out("killed.mp4"), hold).ok() ? 0 : 1);
  }
  close(midway[1]);
  char mark = 0;
  EXPECT_EQ(read(midway[0], &mark, 1), 1);
  close(midway[0]);
  expectFiles({"old.mp4"});
  kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  expectFiles({"old.mp4"});
  EXPECT_EQ(readFile(out("old.mp4")), (Bytes{'o', 'l', 'd'}));
}

}  // namespace

// Media is laid out source by source; a small gap is copied along, a large
// one skipped. A block of 16 MiB or more keeps its source's offset within a
// page wherever the media data starts, its first whole page on a 64 KiB
// boundary of the file; a small one is not padded.
TEST(Layout, JoinsRangesAndAlignsLargeBlocks) {
  constexpr uint64_t kLarge = 16 << 20;
  edit::Layout layout;
  layout.add(0, 100, 10);
  layout.add(0, 200, 10);
  layout.add(0, 5000 + kLarge, kLarge);
  layout.add(1, 7, 2 * kLarge);
  layout.finish();
  for (uint64_t start : {0, 48, 4095, 70000}) {
    SCOPED_TRACE(start);
    layout.place(start);
    EXPECT_EQ(layout.map(0, 100), 0u);
    EXPECT_EQ(layout.map(0, 205), 105u);
    const uint64_t large = start + layout.map(0, 5000 + kLarge);
    EXPECT_EQ(large % 4096, (5000 + kLarge) % 4096);
    EXPECT_EQ((large + 4096 - 5000 % 4096) % 65536, 0u);
    EXPECT_LT(large, start + 110 + 65536);
    const uint64_t second = start + layout.map(1, 7);
    EXPECT_EQ((second + 4096 - 7) % 65536, 0u);
    EXPECT_EQ(layout.length(), layout.map(1, 7) + 2 * kLarge);
    EXPECT_LE(layout.length(), layout.longest());
  }
}
