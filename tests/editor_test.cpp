// Trim and join of the shipped files: the samples of a new file are the
// source's samples byte for byte, with their durations, key frames and
// descriptions; the edit list shows the window asked for; refusals leave no
// file behind.
#include <sys/wait.h>

#include <csignal>
#include <fstream>

#include "edit/editor.h"
#include "edit/media_copy.h"
#include "support/co64.h"
#include "support/test.h"

namespace {

const std::string kData = MP4STBL_TEST_DATA;
const std::string kClip = kData + "/h264_aac.mp4";  // 10 frames at 25/s, a key frame every 4

// A sample's bytes, duration, key flag and description index.
using Sample = std::tuple<Bytes, uint32_t, bool, uint32_t>;

struct Read {
  std::vector<std::vector<Sample>> tracks;
  std::vector<std::vector<uint64_t>> edits;  // duration, media time pairs of each elst
  uint64_t movieDuration = 0;
};

Read readBack(const std::string& path) {
  Read read;
  Mp4File file;
  EXPECT_TRUE(file.open(path).ok()) << path;
  const Bytes all = readFile(path);
  FoundTracks found = findTracks(file);
  EXPECT_TRUE(found.unreadable.empty());
  for (const Track& track : found.tracks) {
    std::vector<Sample>& samples = read.tracks.emplace_back();
    EXPECT_EQ(walkSamples(track, [&](const SampleInfo& s) {
      samples.emplace_back(Bytes(all.begin() + s.offset, all.begin() + s.offset + s.size),
                           s.duration, s.sync, s.descriptionIndex);
    }), "");
  }
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

// Video from the key frame at or before the start, audio from the frame
// before the one that holds it (AAC's pre-roll); the edit list starts each
// track at the requested time, the audio's priming (1024) included (movie
// time scale 1000, video 12800, audio 22050 units a second).
TEST_F(Edit, TrimKeepsWholeSamplesAndShowsTheWindow) {
  const Read source = readBack(kClip);
  const struct {
    double from, to;
    bool keyframe;
    size_t videoFirst, videoLast, audioFirst, audioLast;
    std::vector<std::vector<uint64_t>> edits;
  } cases[] = {
      {0.1, 0.3, false, 1, 8, 3, 8, {{200, 1280}, {200, 2205 - 1024}}},
      {0.2, 0.4, false, 5, 10, 5, 10, {{200, 512}, {200, 4410 - 3072}}},
      {0.2, 0.3, true, 5, 8, 4, 8, {}},
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

// N clips give N times the samples in order, each clip one edit segment on
// every track; a clip whose sample entry differs adds a second entry.
TEST_F(Edit, JoinAppendsClipsAndSharesEqualEntries) {
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
  for (size_t t = 0; t < 2; ++t) {
    std::vector<Sample> expected;
    for (uint32_t clip = 0; clip < 3; ++clip) {
      for (Sample sample : source.tracks[t]) {
        if (t == 0 && clip == 2) std::get<3>(sample) = 2;
        expected.push_back(sample);
      }
    }
    EXPECT_TRUE(joined.tracks[t] == expected) << t;
  }
  const uint64_t videoMedia = 10 * 512;
  uint64_t audioMedia = 0;
  for (const Sample& sample : source.tracks[1]) audioMedia += std::get<1>(sample);
  EXPECT_EQ(joined.edits, (std::vector<std::vector<uint64_t>>{
                              {400, 0, 400, videoMedia, 400, 2 * videoMedia},
                              {400, 1024, 400, audioMedia + 1024, 400, 2 * audioMedia + 1024}}));
  EXPECT_EQ(joined.movieDuration, 1200u);
}

// What an edit refuses, and a job stopped by its caller: a clear reason,
// no output, no temporary, inputs untouched.
TEST_F(Edit, RefusalsLeaveNoFile) {
  const Bytes before = readFile(kClip);
  EditOptions stop;
  stop.progress = [](uint64_t, uint64_t) { return false; };
  const struct { Status status; const char* reason; } cases[] = {
      {trim(kClip, 0.3, 0.3, out("a.mp4")), "is empty"},
      {trim(kClip, 5, 6, out("a.mp4")), "nothing plays"},
      {trim(kClip, 0, 1, kClip), "is one of the inputs"},
      {trim(kData + "/none.mp4", 0, 1, out("a.mp4")), "none.mp4"},
      {join({kClip}, out("a.mp4")), "two files or more"},
      {trim(kData + "/frag_h264_aac.mp4", 0, 1, out("a.mp4")), "fragmented files cannot be edited"},
      {join({kClip, kData + "/hevc.mp4"}, out("a.mp4")), "has 1 tracks"},
      {join({kClip, kData + "/prores_apch_aac.mov"}, out("a.mp4")), "is vide/apch"},
      {trim(kClip, 0, 1, out("a.mp4"), stop), "stopped"},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(c.status.ok());
    EXPECT_NE(c.status.message().find(c.reason), std::string::npos) << c.status.message();
  }
  expectFiles({});
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
