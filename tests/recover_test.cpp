// Recovery of recordings whose movie box was never written: the NAL unit
// walk on golden bytes, and real files from ffmpeg and from the recorder,
// cut short, stripped of their movie box and recovered.
#include <sys/wait.h>

#include <fstream>
#include <sstream>

#include <mp4stbl/record/recorder.h>
#include <mp4stbl/recover/access_unit.h>
#include <mp4stbl/recover/presentation.h>
#include <mp4stbl/recover/recover.h>
#include "support/test.h"

namespace {

using recovery::AccessUnit;
using recovery::NalFormat;
using recovery::VideoCodec;

// NAL units behind big-endian lengths of `lengthSize` bytes.
std::vector<uint8_t> units(unsigned lengthSize, const std::vector<std::vector<uint8_t>>& nals) {
  std::vector<uint8_t> out;
  for (const auto& nal : nals) {
    for (unsigned i = lengthSize; i-- > 0;) out.push_back(static_cast<uint8_t>(nal.size() >> (8 * i)));
    out.insert(out.end(), nal.begin(), nal.end());
  }
  return out;
}

const std::vector<uint8_t> kAud = {0x09, 0xf0};
const std::vector<uint8_t> kSei = {0x06, 0x05, 0x01, 0x00, 0x80};
// Baseline, 160x128, frame_num and pic_order_cnt_lsb of 4 bits.
const std::vector<uint8_t> kSps = {0x67, 0x42, 0xc0, 0x1e, 0xf4, 0x14, 0x23, 0x20};
const std::vector<uint8_t> kPps = {0x68, 0xce, 0x3c, 0x80};
const std::vector<uint8_t> kIdr = {0x65, 0x88, 0x84, 0x00};   // first_mb_in_slice 0
const std::vector<uint8_t> kP = {0x41, 0x9a, 0x02, 0x03};     // first_mb_in_slice 0, POC lsb 1
const std::vector<uint8_t> kPart = {0x41, 0x10, 0x68, 0x0c};  // first_mb_in_slice 7, POC lsb 1
// A later slice of the same picture whose first_mb_in_slice runs across an
// emulation-prevention byte.
const std::vector<uint8_t> kPartEscaped = {0x41, 0x00, 0x00, 0x03, 0x01, 0xff, 0xff, 0xfe, 0x68, 0x0c};
const std::vector<uint8_t> kNoPps = {0x41, 0x99, 0x01, 0x40};  // pic_parameter_set_id 1
// Main profile, 160x120, order count lsb of 8 bits; its picture parameter set.
const std::vector<uint8_t> kHevcSps = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x00, 0x90, 0x00, 0x00,
                                       0x00, 0x00, 0x00, 0x5d, 0xa0, 0x14, 0x20, 0x79, 0x65, 0x95, 0xe0};
const std::vector<uint8_t> kHevcPps = {0x44, 0x01, 0xc1};

struct WalkCase {
  const char* name;
  VideoCodec codec;
  unsigned lengthSize;
  std::vector<std::vector<uint8_t>> nals;
  size_t unitNals;  // NAL units of the first access unit; 0: none starts here
  bool key;
  size_t cut = 0;   // bytes cut off the end
  bool cutShort = false;
};

TEST(AccessUnitWalk, EndsWhereTheNextPictureStarts) {
  const std::vector<uint8_t> hevcIdr = {0x26, 0x01, 0xaf, 0x00};     // IDR_W_RADL, first segment
  const std::vector<uint8_t> hevcTrail = {0x02, 0x01, 0xd0, 0x00};   // TRAIL_R, first segment
  const std::vector<uint8_t> hevcSecond = {0x26, 0x01, 0x40, 0x00};  // IDR_W_RADL, later segment
  const std::vector<uint8_t> hevcVps = {0x40, 0x01, 0x0c, 0x01};
  const std::vector<WalkCase> cases = {
      {"in-band parameter sets", VideoCodec::H264, 4, {kAud, kSps, kPps, kSei, kIdr, kAud, kP}, 5, true},
      {"2-byte lengths", VideoCodec::H264, 2, {kSps, kPps, kIdr, kP, kP}, 3, true},
      {"slices of one picture", VideoCodec::H264, 4, {kP, kPart, kPartEscaped, kP}, 3, false},
      {"SEI after a slice starts the next", VideoCodec::H264, 4, {kP, kSei, kP}, 1, false},
      {"a slice of another type is not the picture's", VideoCodec::H264, 4, {kIdr, kPart}, 1, true},
      {"a picture starts at its first slice", VideoCodec::H264, 4, {kPart, kP}, 0, false},
      {"a slice of a missing picture parameter set", VideoCodec::H264, 4, {kNoPps}, 0, false},
      {"no slice: nothing", VideoCodec::H264, 4, {kAud, kSps, kPps}, 0, false},
      {"forbidden bit", VideoCodec::H264, 4, {{0xe5, 0x88}}, 0, false},
      {"IDR of reference 0", VideoCodec::H264, 4, {{0x05, 0x88}}, 0, false},
      {"zeros", VideoCodec::H264, 4, {{0x00, 0x00}}, 0, false},
      {"next picture cut off", VideoCodec::H264, 4, {kIdr, kP}, 1, true, 1},
      {"own slice cut off", VideoCodec::H264, 4, {kP, kPart}, 1, false, 1, true},
      {"HEVC IRAP", VideoCodec::Hevc, 4, {hevcVps, hevcIdr, hevcSecond, hevcTrail}, 3, true},
      {"HEVC segment of another type", VideoCodec::Hevc, 4, {hevcIdr, {0x02, 0x01, 0x40, 0x00}}, 1, true},
      {"HEVC later segment first", VideoCodec::Hevc, 4, {hevcSecond, hevcTrail}, 0, false},
      {"HEVC layer 1", VideoCodec::Hevc, 4, {{0x02, 0x09, 0xd0}}, 0, false},
  };
  for (const WalkCase& c : cases) {
    SCOPED_TRACE(c.name);
    const bool avc = c.codec == VideoCodec::H264;
    Result<NalFormat> format = recovery::nalFormat(
        c.codec, c.lengthSize, units(c.lengthSize, {avc ? kSps : kHevcSps, avc ? kPps : kHevcPps}));
    ASSERT_TRUE(format.ok()) << format.message();
    std::vector<uint8_t> bytes = units(c.lengthSize, c.nals);
    bytes.resize(bytes.size() - c.cut);
    const AccessUnit unit = recovery::findAccessUnit(*format, bytes.data(), bytes.size());
    std::vector<std::vector<uint8_t>> first(c.nals.begin(), c.nals.begin() + c.unitNals);
    EXPECT_EQ(unit.length, units(c.lengthSize, first).size());
    EXPECT_EQ(unit.key, c.key);
    EXPECT_EQ(unit.cutShort, c.cutShort);
  }
}

TEST(AccessUnitWalk, FormatNeedsBothParameterSets) {
  EXPECT_FALSE(recovery::nalFormat(VideoCodec::H264, 4, units(4, {kSps})).ok());
  EXPECT_FALSE(recovery::nalFormat(VideoCodec::Hevc, 4, units(4, {kHevcPps})).ok());
  EXPECT_FALSE(recovery::nalFormat(VideoCodec::H264, 4, units(4, {{0x67, 0x42}, kPps})).ok());
}

// Pictures in decode order: I0 P6 B2 B4 P12 B8 B10 (order counts two
// apart, as x264 numbers frames), then a second IDR and its own pictures.
TEST(PictureTimes, OrderCountsPlacedAsTheReferenceShowsThem) {
  using recovery::PictureCount;
  const std::vector<PictureCount> gop = {{0, true}, {6, false}, {2, false}, {4, false},
                                         {12, false}, {8, false}, {10, false}};
  struct Case {
    const char* name;
    std::vector<PictureCount> pictures;
    std::vector<int64_t> offsets;  // ctts, 512 a frame, the first shown at 1024
  };
  std::vector<PictureCount> twoIdrs = gop;
  twoIdrs.insert(twoIdrs.end(), {{0, true}, {4, false}, {2, false}});
  const std::vector<Case> cases = {
      {"one sequence", gop, {1024, 2048, 512, 512, 2048, 512, 512}},
      // The B-frames before P12 were cut off: P12 keeps its own time.
      {"frames missing at the end", {gop.begin(), gop.begin() + 5}, {1024, 2048, 512, 512, 2048}},
      {"a new sequence follows all before it", twoIdrs,
       {1024, 2048, 512, 512, 2048, 512, 512, 1024, 1536, 512}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Result<std::vector<int64_t>> offsets = recovery::compositionOffsets(c.pictures, {2, 1024, 512});
    ASSERT_TRUE(offsets.ok()) << offsets.message();
    EXPECT_EQ(*offsets, c.offsets);
  }
  // An order count between two places is no picture of this stream.
  EXPECT_FALSE(recovery::compositionOffsets({{0, true}, {3, false}}, {2, 1024, 512}).ok());
}

// --- Real files ---

struct Outcome {
  int status = -1;
  std::string out;
};

Outcome run(const std::string& command) {
  Outcome result;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return result;
  char block[4096];
  size_t got;
  while ((got = std::fread(block, 1, sizeof block, pipe)) > 0) result.out.append(block, got);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

bool haveFfmpeg() { return run("ffmpeg -version").status == 0; }


std::string bytesOfFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  return all.str();
}

struct Sample {
  std::string bytes;
  uint64_t decodeTime;
  int64_t compositionOffset;
  bool sync;
};

std::vector<std::vector<Sample>> samplesOf(const std::string& path, uint64_t wholeBefore = UINT64_MAX) {
  Mp4File file;
  EXPECT_TRUE(file.open(path).ok()) << path;
  const std::string data = bytesOfFile(path);
  std::vector<std::vector<Sample>> tracks;
  for (const Track& track : findTracks(file).tracks) {
    auto& samples = tracks.emplace_back();
    SampleWalker walk(track);
    for (auto next = walk.next(); next.ok() && *next != nullptr; next = walk.next()) {
      const SampleInfo& s = **next;
      if (s.offset + s.size > wholeBefore) break;
      samples.push_back({data.substr(s.offset, s.size), s.decodeTime, s.compositionOffset, s.sync});
    }
  }
  return tracks;
}

// The share of the samples whole in the first `cut` bytes of `original`
// that `recovered` holds the same (bytes, size, decode time, composition
// offset and key flag), in the track where it is lowest.
double recoveredShare(const std::string& original, uint64_t cut, const std::string& recovered) {
  const auto want = samplesOf(original, cut);
  const auto got = samplesOf(recovered);
  if (want.size() != got.size()) return 0;
  double lowest = 1;
  for (size_t t = 0; t < want.size(); ++t) {
    // A sample more than the cut file holds whole is made of other bytes.
    if (got[t].size() > want[t].size()) return 0;
    size_t same = 0;
    for (size_t i = 0; i < got[t].size(); ++i) {
      const Sample& a = want[t][i];
      const Sample& b = got[t][i];
      same += a.bytes == b.bytes && a.decodeTime == b.decodeTime &&
              a.compositionOffset == b.compositionOffset && a.sync == b.sync;
    }
    if (!want[t].empty()) lowest = std::min(lowest, static_cast<double>(same) / want[t].size());
  }
  return lowest;
}

void cutFile(const std::string& from, uint64_t length, const std::string& to) {
  const std::string data = bytesOfFile(from);
  std::ofstream(to, std::ios::binary).write(data.data(), static_cast<std::streamsize>(length));
}

// Where the media data of a file with its moov last ends: the moov's offset.
uint64_t moovOffset(const std::string& path) {
  Mp4File file;
  EXPECT_TRUE(file.open(path).ok());
  const std::vector<Atom*> moov = file.find("moov");
  return moov.empty() ? 0 : moov.front()->header.headerOffset;
}

const std::string kCli = MP4STBL_CLI;

// Whether the command finds AAC frames (a build with libavcodec, which is
// installed).
bool findsAac() { return run(kCli + " --version").out.find("found with libavcodec") != std::string::npos; }
bool holdsAac(const std::string& path) { return bytesOfFile(path).find("mp4a") != std::string::npos; }

// The video frames ffmpeg decodes from a file, each as its presentation
// time and the checksum of its picture.
std::vector<std::string> decodedFrames(const std::string& path) {
  std::istringstream lines(run("ffmpeg -v error -i '" + path + "' -map 0:v -f framemd5 -").out);
  std::vector<std::string> frames;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> fields;
    std::istringstream split(line);
    for (std::string field; std::getline(split, field, ',');) fields.push_back(field);
    if (fields.size() == 6) frames.push_back(fields[2] + fields[5]);
  }
  return frames;
}

// Frames of `recovered` that `original` does not show at the same time
// with the same picture; and each recovered video sample must show.
void expectFramesOf(const std::string& original, const std::string& recovered) {
  const std::vector<std::string> want = decodedFrames(original);
  const std::vector<std::string> got = decodedFrames(recovered);
  EXPECT_EQ(got.size(), samplesOf(recovered).front().size());
  size_t strangers = 0;
  for (const std::string& frame : got) strangers += std::find(want.begin(), want.end(), frame) == want.end();
  EXPECT_EQ(strangers, 0u);
}

struct CorpusFile {
  std::string name;
  std::string file;       // to cut
  std::string reference;  // recorded apart with the same settings
};

// ffmpeg's, GStreamer's and the recorder's files, made by the script a user
// runs too.
std::vector<CorpusFile> makeCorpus(const std::string& dir) {
  const Outcome made = run("bash " MP4STBL_RECOVER_CORPUS " '" + dir + "' " + kCli + " 2>/dev/null");
  EXPECT_EQ(made.status, 0) << made.out;
  std::vector<CorpusFile> files;
  std::istringstream lines(made.out);
  for (CorpusFile file; lines >> file.name >> file.file >> file.reference;) files.push_back(file);
  return files;
}

// The first chunk of any track that starts in the second half of the media.
uint64_t chunkBoundary(const std::string& path, uint64_t media) {
  Mp4File file;
  EXPECT_TRUE(file.open(path).ok());
  uint64_t boundary = media;
  for (const Track& track : findTracks(file).tracks) {
    SampleWalker walk(track);
    uint32_t chunk = 0;
    for (auto next = walk.next(); next.ok() && *next != nullptr; next = walk.next()) {
      const SampleInfo& s = **next;
      if (s.chunk != chunk && s.offset > media / 2) boundary = std::min(boundary, s.offset);
      chunk = s.chunk;
    }
  }
  return boundary;
}

TEST(RecoverCorpus, CutFilesRecoveredWithAnotherFileAsReference) {
  if (!haveFfmpeg()) GTEST_SKIP() << "needs ffmpeg";
  ScratchDir dir("recover_corpus");
  const std::vector<CorpusFile> corpus = makeCorpus(dir / "corpus");
  EXPECT_GE(corpus.size(), 6u);
  std::string table = "file            cut             whole samples   recovered (lowest track)\n";
  for (const CorpusFile& corpusFile : corpus) {
    SCOPED_TRACE(corpusFile.name);
    if (holdsAac(corpusFile.file) && !findsAac()) continue;
    const std::string made[2] = {corpusFile.file, corpusFile.reference};
    const uint64_t media = moovOffset(made[0]);
    uint64_t midFrame = 0;  // halfway through a video frame in the middle of the media
    {
      Mp4File file;
      ASSERT_TRUE(file.open(made[0]).ok());
      const FoundTracks found = findTracks(file);
      SampleWalker walk(found.tracks.front());
      for (auto next = walk.next(); next.ok() && *next != nullptr; next = walk.next()) {
        if ((*next)->offset > media / 2) {
          midFrame = (*next)->offset + (*next)->size / 2;
          break;
        }
      }
    }
    const std::pair<const char*, uint64_t> cuts[] = {{"a third", media / 3},
                                                     {"chunk boundary", chunkBoundary(made[0], media)},
                                                     {"odd length", media * 2 / 3 + 1},
                                                     {"mid-frame", midFrame},
                                                     {"media's end", media}};
    for (const auto& [where, cut] : cuts) {
      SCOPED_TRACE(where);
      const std::string broken = dir / "broken";
      const std::string out = dir / ("out" + made[0].substr(made[0].rfind('.')));
      cutFile(made[0], cut, broken);
      const std::string before = bytesOfFile(broken);
      const Outcome done = run(kCli + " recover '" + broken + "' -y -o '" + out + "' --reference '" + made[1] + "'");
      ASSERT_EQ(done.status, 0) << done.out;
      EXPECT_EQ(bytesOfFile(broken), before);
      const double share = recoveredShare(made[0], cut, out);
      EXPECT_GE(share, 0.99);
      size_t whole = 0;
      for (const auto& samples : samplesOf(made[0], cut)) whole += samples.size();
      char row[128];
      std::snprintf(row, sizeof row, "%-15s %-15s %13zu %10.1f%%\n", corpusFile.name.c_str(), where,
                    whole, 100 * share);
      table += row;
      EXPECT_EQ(run("ffmpeg -v error -i '" + out + "' -f null -").out, "");
      EXPECT_NE(run(kCli + " verify '" + out + "'").out.find("identical"), std::string::npos);
      expectFramesOf(made[0], out);
    }
    // Zeros after the last whole sample, as a file system leaves blocks it
    // allocated and never wrote: audio runs on no more than a second past the video.
    const std::string zeroed = dir / "zeroed";
    cutFile(made[0], media / 2, zeroed);
    std::ofstream(zeroed, std::ios::binary | std::ios::app) << std::string(1 << 20, '\0');
    const std::string out = dir / "zeroed.mov";
    ASSERT_EQ(run(kCli + " recover '" + zeroed + "' -y -o '" + out + "' --reference '" + made[1] + "'").status, 0);
    Mp4File file;
    ASSERT_TRUE(file.open(out).ok());
    const FoundTracks found = findTracks(file);
    const double video = static_cast<double>(found.tracks[0].mediaDuration()) / found.tracks[0].timescale();
    const double audio = static_cast<double>(found.tracks[1].mediaDuration()) / found.tracks[1].timescale();
    EXPECT_LE(audio, video + 1.1);
  }
  std::printf("%s", table.c_str());
}

// A fragmented recording killed mid-way: its whole fragments, and the
// samples of a last fragment cut short, with no reference.
// A fragmented file cut whole, short by a seventh and at half plus 3
// bytes, recovered from its own fragments: the samples whole in each cut
// (as the file itself lists them, or, with no final moov, as the cut file's
// fragments do) come back, and ffmpeg decodes them without an error.
void recoverCutsOfFragments(const std::string& file, const ScratchDir& dir, bool fileHasAll) {
  const uint64_t length = fs::file_size(file);
  for (uint64_t cut : {length, length - length / 7, length / 2 + 3}) {
    SCOPED_TRACE(cut);
    const std::string broken = dir / "broken.mp4";
    const std::string out = dir / "out.mp4";
    cutFile(file, cut, broken);
    const Outcome done = run(kCli + " recover '" + broken + "' -y -o '" + out + "'");
    ASSERT_EQ(done.status, 0) << done.out;
    EXPECT_GE(recoveredShare(fileHasAll ? file : broken, cut, out), 0.99);
    EXPECT_EQ(run("ffmpeg -v error -i '" + out + "' -f null -").out, "");
  }
}

TEST(RecoverCorpus, FragmentedFileFromItsOwnFragments) {
  if (!haveFfmpeg()) GTEST_SKIP() << "needs ffmpeg";
  ScratchDir dir("recover_fragments");
  const std::string source = dir / "source.mp4";
  ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=25:duration=5 "
                "-f lavfi -i sine=duration=5 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p -c:a aac "
                "-movflags +frag_keyframe+empty_moov '" + source + "'").status, 0);
  recoverCutsOfFragments(source, dir, true);
}

#ifdef MP4STBL_RECORDER_LINKS
// A recording of the recorder killed mid-way: its fragments, and the
// samples of a last fragment cut short, with no reference.
TEST(RecoverCorpus, InterruptedRecordingFromItsOwnFragments) {
  if (!haveFfmpeg()) GTEST_SKIP() << "needs ffmpeg";
  ScratchDir dir("recover_recorder");
  const std::string source = dir / "source.mov";
  ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=25:duration=5 "
                "-f lavfi -i sine=duration=5 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p "
                "-c:a pcm_alaw -ar 8000 '" +
                source + "'")
                .status,
            0);
  Mp4File file;
  ASSERT_TRUE(file.open(source).ok());
  FoundTracks found = findTracks(file);
  ASSERT_EQ(found.tracks.size(), 2u);
  const auto* avc = dynamic_cast<const AvcConfigAtom*>(
      found.tracks[0].stsd().children.front()->children.front());
  ASSERT_NE(avc, nullptr);
  // The parameter sets of the avcC: 6 bytes, then one SPS and one PPS.
  const std::vector<unsigned char>& record = avc->body;
  const size_t spsLength = (record[6] << 8) | record[7];
  const Bytes sps(record.begin() + 8, record.begin() + 8 + static_cast<long>(spsLength));
  const size_t ppsAt = 8 + spsLength + 1;
  const Bytes pps(record.begin() + static_cast<long>(ppsAt) + 2,
                  record.begin() + static_cast<long>(ppsAt + 2 + ((record[ppsAt] << 8) | record[ppsAt + 1])));
  const std::string recording = dir / "recording.mp4";
  {
    auto recorder = Recorder::create(recording);
    ASSERT_TRUE(recorder.ok());
    const uint32_t video = *(*recorder)->addH264({sps}, {pps}, found.tracks[0].timescale());
    const uint32_t audio = *(*recorder)->addG711(G711Law::ALaw, 8000);
    const std::string data = bytesOfFile(source);
    std::vector<std::pair<uint64_t, std::pair<int, SampleInfo>>> order;
    for (int t = 0; t < 2; ++t) {
      SampleWalker walk(found.tracks[t]);
      for (auto next = walk.next(); next.ok() && *next != nullptr; next = walk.next()) {
        const double at = static_cast<double>((*next)->decodeTime) / found.tracks[t].timescale();
        order.push_back({static_cast<uint64_t>(at * 1e6), {t, **next}});
      }
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [at, sample] : order) {
      const SampleInfo& s = sample.second;
      const auto* bytes = reinterpret_cast<const uint8_t*>(data.data() + s.offset);
      ASSERT_TRUE((*recorder)->write(sample.first == 0 ? video : audio, bytes, s.size,
                                     {s.decodeTime, 0, 0, s.sync}).ok());
    }
    // Destroyed unfinished: the fragments are on disk, no final moov.
  }
  recoverCutsOfFragments(recording, dir, false);
}

#endif

TEST(RecoverRefuses, WhatCannotBeRecoveredSaysWhy) {
  if (!haveFfmpeg()) GTEST_SKIP() << "needs ffmpeg";
  if (!findsAac()) GTEST_SKIP() << "the command finds no AAC frames (no libavcodec)";
  ScratchDir dir("recover_refuses");
  const std::string good = dir / "good.mp4";
  const std::string pcm = dir / "pcm.mov";
  ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=25:duration=2 "
                "-f lavfi -i sine=duration=2 -c:v libx264 -bf 0 -pix_fmt yuv420p -c:a aac '" + good + "'").status, 0);
  ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i sine=duration=2 -c:a pcm_s16le '" + pcm + "'").status, 0);
  const std::string hevc = dir / "hevc.mp4";
  ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=25:duration=1 "
                "-f lavfi -i sine=duration=1 -c:v libx265 -x265-params log-level=error "
                "-pix_fmt yuv420p -c:a aac '" + hevc + "'").status, 0);
  // The same coding at another picture size: its slice headers read alike.
  const std::string larger = dir / "larger.mp4";
  ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i testsrc=size=320x240:rate=25:duration=1 "
                "-f lavfi -i sine=duration=1 -c:v libx264 -bf 0 -pix_fmt yuv420p -c:a aac '" +
                larger + "'")
                .status,
            0);
  // Another picture size whose key frames carry their parameter sets, which
  // a decoder takes over the reference's; and sound of two channels.
  const std::string inBand = dir / "in_band.mp4";
  ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i testsrc=size=320x240:rate=25:duration=1 "
                "-f lavfi -i sine=duration=1 -c:v libx264 -x264-params repeat-headers=1 -bf 0 "
                "-pix_fmt yuv420p -c:a aac '" + inBand + "'").status, 0);
  const std::string hevcInBand = dir / "hevc_in_band.mp4";
  ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i testsrc=size=320x240:rate=25:duration=1 "
                "-f lavfi -i sine=duration=1 -c:v libx265 -x265-params "
                "log-level=error:repeat-headers=1 -pix_fmt yuv420p -c:a aac '" + hevcInBand + "'")
                .status, 0);
  const std::string stereo = dir / "stereo.mp4";
  ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=25:duration=2 "
                "-f lavfi -i sine=duration=2 -c:v libx264 -bf 0 -pix_fmt yuv420p -c:a aac -ac 2 '" +
                stereo + "'").status, 0);
  const std::string data = bytesOfFile(good);
  const uint64_t media = moovOffset(good);
  const std::string cut = dir / "cut.mp4";
  cutFile(good, media / 2, cut);
  const std::string inBandCut = dir / "in_band_cut.mp4", hevcInBandCut = dir / "hevc_in_band_cut.mp4";
  const std::string stereoCut = dir / "stereo_cut.mp4";
  cutFile(inBand, moovOffset(inBand) / 2, inBandCut);
  cutFile(hevcInBand, moovOffset(hevcInBand) / 2, hevcInBandCut);
  cutFile(stereo, moovOffset(stereo) / 2, stereoCut);
  const std::string random = dir / "random.mp4";
  std::string noise(50000, '\0');
  uint32_t state = 12345;
  for (char& c : noise) c = static_cast<char>((state = state * 1103515245 + 12345) >> 24);
  std::ofstream(random, std::ios::binary) << noise;
  // An mdat that claims 2^62 bytes: read to the end of the file, no further.
  const std::string huge = dir / "huge.mp4";
  {
    std::string bytes = data.substr(0, media / 2);
    const size_t at = data.find("mdat") - 4;
    const std::string header = std::string("\0\0\0\1mdat\x40\0\0\0\0\0\0\0", 16);
    bytes.replace(at, 8, header.substr(0, 8));
    bytes.insert(at + 8, header.substr(8));
    std::ofstream(huge, std::ios::binary) << bytes;
  }
  const std::string out = dir / "out.mp4";
  struct Refusal {
    std::string args;
    std::string says;
  };
  const std::vector<Refusal> refusals = {
      {"'" + cut + "' -y -o '" + out + "'", "no movie box indexes its media data; recover it with --reference GOOD"},
      {"'" + random + "' -y -o '" + out + "' --reference '" + good + "'", "is not an MP4 file"},
      {"'" + cut + "' -y -o '" + out + "' --reference '" + pcm + "'", "the reference's 'qt  '"},
      {"'" + cut + "' -y -o '" + out + "' --reference '" + hevc + "'", "track 1 (vide, hev1): no sample of the reference's track is found"},
      {"'" + cut + "' -y -o '" + out + "' --reference '" + random + "'", "--reference"},
      {"'" + cut + "' -y -o '" + out + "' --reference '" + larger + "'",
       "track 1 (vide, avc1): the reference's parameter sets do not decode its video (the key "
       "frame at offset "},
      {"'" + cut + "' -o '" + cut + "' --reference '" + good + "'", "is one of the inputs"},
      {"'" + inBandCut + "' -y -o '" + out + "' --reference '" + good + "'",
       "track 1 (vide, avc1): its pictures are 320x240 and the reference's 160x120 (the key frame "
       "at offset "},
      {"'" + hevcInBandCut + "' -y -o '" + out + "' --reference '" + hevc + "'",
       "track 1 (vide, hev1): its pictures are 320x240 and the reference's 160x120 (the key frame "
       "at offset "},
      {"'" + stereoCut + "' -y -o '" + out + "' --reference '" + good + "'",
       "track 2 (soun, mp4a): its AAC frames hold 2 channels and the reference's 1 (the frame at "
       "offset "},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.args);
    const Outcome done = run(kCli + " recover " + refusal.args);
    EXPECT_EQ(done.status, 1);
    EXPECT_NE(done.out.find(refusal.says), std::string::npos) << done.out;
    EXPECT_FALSE(fs::exists(out));
  }
  EXPECT_EQ(bytesOfFile(cut), data.substr(0, media / 2));
  const Outcome hugeDone = run(kCli + " recover '" + huge + "' -y -o '" + out + "' --reference '" + good + "'");
  EXPECT_EQ(hugeDone.status, 0) << hugeDone.out;
}

// Raw sound does not carry its rate: recovered, each sound track says that
// its rate is the reference's.
TEST(RecoverRefuses, ASoundRateThatCannotBeCheckedIsNoted) {
  if (!haveFfmpeg()) GTEST_SKIP() << "needs ffmpeg";
  if (!findsAac()) GTEST_SKIP() << "the command finds no AAC frames (no libavcodec)";
  ScratchDir dir("recover_rates");
  struct Case {
    std::string file;
    std::string makes;
    std::string note;
  };
  const std::vector<Case> cases = {
      {"aac.mp4", "-f lavfi -i testsrc=size=160x120:rate=25:duration=2 -f lavfi -i "
                  "sine=r=48000:duration=2 -c:v libx264 -bf 0 -pix_fmt yuv420p -c:a aac",
       "track 2 (soun, mp4a): raw AAC frames do not carry their rate: 48000 Hz is the "
       "reference's, unchecked"},
      {"pcm.mov", "-f lavfi -i sine=r=22050:duration=2 -c:a pcm_s16le",
       "track 1 (soun, sowt): raw samples do not carry their rate: 22050 Hz is the reference's, "
       "unchecked"},
      {"alaw.mov", "-f lavfi -i sine=r=8000:duration=2 -c:a pcm_alaw",
       "track 1 (soun, alaw): raw samples do not carry their rate: 8000 Hz is the reference's, "
       "unchecked"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string file = dir / c.file, cut = dir / ("cut_" + c.file), out = dir / ("out_" + c.file);
    ASSERT_EQ(run("ffmpeg -v error -y " + c.makes + " '" + file + "'").status, 0);
    cutFile(file, moovOffset(file) / 2, cut);
    const Outcome done = run(kCli + " recover '" + cut + "' -y -o '" + out + "' --reference '" + file + "'");
    ASSERT_EQ(done.status, 0) << done.out;
    EXPECT_NE(done.out.find("\nnote: " + c.note + "\n"), std::string::npos) << done.out;
  }
}

}  // namespace
