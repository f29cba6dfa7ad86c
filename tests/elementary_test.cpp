// The elementary-stream readers against ffmpeg: streams made by libx264,
// libx265 and ffmpeg's AAC encoder are read in pieces of every size; the
// frames must be the samples, key flags and records ffmpeg writes when it
// copies the stream into MP4, in the order ffmpeg's decoder shows them.
#include <cstdlib>
#include <map>
#include <random>
#include <sstream>

#include "media/bits.h"
#include "media/elementary.h"
#include "support/test.h"

namespace {

std::string run(const std::string& command) {
  std::string out;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char chunk[4096];
  for (size_t got; (got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) out.append(chunk, got);
  ::pclose(pipe);
  return out;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> all;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) all.push_back(line);
  }
  return all;
}

struct Frame {
  Bytes data;
  uint64_t presentation = 0;
  bool key = false;
  bool operator==(const Frame& o) const {
    return data == o.data && presentation == o.presentation && key == o.key;
  }
};

struct VideoRead {
  Status status;
  std::vector<Frame> frames;
  Bytes record;
};

// Reads `stream` fed in pieces of `piece` bytes (0: pieces of random sizes
// from a fixed seed), taking frames after every piece.
VideoRead readVideo(const Bytes& stream, size_t piece) {
  VideoRead read;
  AnnexBReader reader;
  std::mt19937 random(17);
  VideoFrame frame;
  auto take = [&] {
    while (reader.next(&frame)) {
      EXPECT_EQ(frame.decodeIndex, read.frames.size());
      EXPECT_LE(frame.decodeIndex, frame.presentationIndex + reader.reorderDelay());
      read.frames.push_back({frame.data, frame.presentationIndex, frame.key});
    }
  };
  for (size_t at = 0; at < stream.size() && read.status.ok();) {
    const size_t size = std::min(stream.size() - at, piece ? piece : 1 + random() % 9000);
    read.status = reader.feed(stream.data() + at, size);
    at += size;
    take();
  }
  if (read.status.ok()) read.status = reader.finish();
  take();
  if (reader.config() != nullptr) read.record = reader.config()->record;
  return read;
}

// The body of the first box of `type` in the file's bytes.
Bytes boxBody(const Bytes& file, const std::string& type) {
  for (size_t i = 4; i + 4 <= file.size(); ++i) {
    if (std::equal(type.begin(), type.end(), file.begin() + i)) {
      const size_t size = size_t{file[i - 4]} << 24 | file[i - 3] << 16 | file[i - 2] << 8 | file[i - 1];
      if (size >= 8 && i - 4 + size <= file.size()) return Bytes(file.begin() + i + 4, file.begin() + i - 4 + size);
    }
  }
  return {};
}

// The decoder specific information (tag 5) of an esds body.
Bytes decoderSpecificInfo(const Bytes& esds) {
  for (size_t i = 0; i + 2 < esds.size(); ++i) {
    if (esds[i] != 5) continue;
    size_t at = i + 1, length = 0;
    while (at < esds.size() && esds[at] & 0x80) length = length << 7 | (esds[at++] & 0x7F);
    if (at >= esds.size()) break;
    length = length << 7 | esds[at++];
    if (length >= 2 && length <= 5 && at + length <= esds.size()) {
      return Bytes(esds.begin() + at, esds.begin() + at + length);
    }
  }
  return {};
}

// A sample's NAL units, each without the zero bytes that end it: ffmpeg
// 5.1 keeps the first zero of a 4-byte start code at the end of an HEVC
// access unit (its parser cuts there), where this code drops it.
Bytes withoutTrailingZeros(const Bytes& sample) {
  Bytes out;
  for (size_t at = 0; at + 4 <= sample.size();) {
    const size_t size = size_t{sample[at]} << 24 | sample[at + 1] << 16 | sample[at + 2] << 8 | sample[at + 3];
    const size_t end = std::min(sample.size(), at + 4 + size);
    size_t last = end;
    while (last > at + 4 && sample[last - 1] == 0) --last;
    ByteWriter nal;
    nal.u32(static_cast<uint32_t>(last - at - 4)).bytes.insert(nal.bytes.end(), sample.begin() + at + 4, sample.begin() + last);
    out.insert(out.end(), nal.bytes.begin(), nal.bytes.end());
    at = end;
  }
  return out;
}

// The samples of the file's only track, with their sync flags.
std::vector<std::pair<Bytes, bool>> samplesOf(const std::string& path) {
  std::vector<std::pair<Bytes, bool>> samples;
  Mp4File file;
  EXPECT_TRUE(file.open(path).ok()) << path;
  FoundTracks found = findTracks(file);
  EXPECT_EQ(found.tracks.size(), 1u) << path;
  if (found.tracks.empty()) return samples;
  const Bytes all = readFile(path);
  EXPECT_EQ(walkSamples(found.tracks.front(), [&](const SampleInfo& s) {
    samples.emplace_back(Bytes(all.begin() + s.offset, all.begin() + s.offset + s.size), s.sync);
  }), "");
  return samples;
}

// The place of each frame (in stream order) in the order ffmpeg's decoder
// outputs them.
std::vector<uint64_t> decoderOrder(const std::string& stream) {
  const std::string probe = "ffprobe -v error -of csv=p=0 ";
  std::map<uint64_t, uint64_t> rankAt;
  uint64_t rank = 0;
  for (const std::string& pos : lines(run(probe + "-show_frames -show_entries frame=pkt_pos " + stream))) {
    rankAt[std::stoull(pos)] = rank++;
  }
  std::vector<uint64_t> ranks;
  for (const auto& [pos, place] : rankAt) ranks.push_back(place);
  return ranks;
}

class Streams : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new ScratchDir("mp4stbl_elementary_");
    const std::string source = "-f lavfi -i testsrc2=size=128x96:rate=25:duration=2 ";
    const std::string x264 = "-c:v libx264 -preset veryfast -threads 1 ";
    const std::string x265 = "-c:v libx265 -preset ultrafast -x265-params "
                             "log-level=error:pools=none:frame-threads=1:keyint=20";
    made_ = make("bf3_pyramid.h264", source + x264 + "-bf 3 -x264-params b-pyramid=normal:keyint=20") &&
            make("baseline.h264", source + x264 + "-profile:v baseline -g 10") &&
            make("open_gop_slices.h264",
                 source + x264 + "-bf 2 -x264-params keyint=12:open-gop=1:slices=3:aud=1") &&
            make("intra_refresh.h264", source + x264 + "-bf 0 -x264-params keyint=12:intra-refresh=1") &&
            make("bframes.hevc", source + x265 + " -bf 4") &&
            make("no_bframes.hevc", source + x265 + ":bframes=0") &&
            make("stereo_44100.aac", "-f lavfi -i sine=sample_rate=44100:duration=1 -ac 2 -c:a aac") &&
            make("mono_48000.aac", "-f lavfi -i sine=sample_rate=48000:duration=1 -c:a aac");
  }
  static void TearDownTestSuite() { delete dir_; }

  // Encodes into the raw stream NAME and copies it into NAME.mp4 (hvc1
  // for HEVC, whose hvcC then says its arrays are complete).
  static bool make(const std::string& name, const std::string& options) {
    const std::string ffmpeg = "ffmpeg -nostdin -hide_banner -loglevel error -y ";
    const std::string format = name.substr(name.rfind('.') + 1) == "aac" ? "adts" : name.substr(name.rfind('.') + 1);
    const std::string tag = format == "hevc" ? " -tag:v hvc1" : "";
    return std::system((ffmpeg + options + " -f " + format + " " + (*dir_ / name)).c_str()) == 0 &&
           std::system((ffmpeg + "-i " + (*dir_ / name) + " -c copy" + tag + " " + (*dir_ / name) + ".mp4").c_str()) == 0;
  }
  static std::string path(const std::string& name) { return *dir_ / name; }

  static ScratchDir* dir_;
  static bool made_;
};
ScratchDir* Streams::dir_ = nullptr;
bool Streams::made_ = false;

// Every frame is the sample ffmpeg writes, with its key flag; the frames
// come in the order ffmpeg's decoder shows them; the avcC or hvcC record
// is ffmpeg's byte for byte; the pieces the stream is fed in change none
// of it.
TEST_F(Streams, VideoMatchesFfmpeg) {
  if (!made_) GTEST_SKIP() << "ffmpeg with libx264 and libx265 is needed";
  for (const char* name : {"bf3_pyramid.h264", "baseline.h264", "open_gop_slices.h264",
                           "intra_refresh.h264", "bframes.hevc", "no_bframes.hevc"}) {
    SCOPED_TRACE(name);
    const Bytes stream = readFile(path(name));
    const VideoRead whole = readVideo(stream, stream.size());
    ASSERT_TRUE(whole.status.ok()) << whole.status.message();
    const auto samples = samplesOf(path(name) + ".mp4");
    const std::vector<uint64_t> shown = decoderOrder(path(name));
    ASSERT_EQ(whole.frames.size(), samples.size());
    ASSERT_EQ(shown.size(), samples.size());
    for (size_t i = 0; i < samples.size(); ++i) {
      EXPECT_EQ(whole.frames[i].data, withoutTrailingZeros(samples[i].first)) << "frame " << i;
      EXPECT_EQ(whole.frames[i].key, samples[i].second) << "frame " << i;
      EXPECT_EQ(whole.frames[i].presentation, shown[i]) << "frame " << i;
    }
    const Bytes file = readFile(path(name) + ".mp4");
    EXPECT_EQ(whole.record, boxBody(file, std::string(name).find("hevc") != std::string::npos ? "hvcC" : "avcC"));
    for (size_t piece : {size_t{1}, size_t{7}, size_t{4096}, size_t{0}}) {
      if (piece == 1 && stream.size() > 200000) continue;
      const VideoRead pieces = readVideo(stream, piece);
      EXPECT_TRUE(pieces.status.ok()) << pieces.status.message();
      EXPECT_TRUE(pieces.frames == whole.frames) << "pieces of " << piece;
    }
  }
}

// What the parameter sets say of the picture, its rate and its reordering.
TEST_F(Streams, VideoConfiguration) {
  if (!made_) GTEST_SKIP() << "ffmpeg with libx264 and libx265 is needed";
  struct Case {
    const char* name;
    VideoConfig::Codec codec;
    uint32_t timeScale, unitsPerFrame, reorder;
  };
  for (const Case& c : {Case{"bf3_pyramid.h264", VideoConfig::Codec::H264, 50, 2, 2},
                        Case{"baseline.h264", VideoConfig::Codec::H264, 50, 2, 0},
                        Case{"bframes.hevc", VideoConfig::Codec::Hevc, 25, 1, 2},
                        Case{"no_bframes.hevc", VideoConfig::Codec::Hevc, 25, 1, 0}}) {
    SCOPED_TRACE(c.name);
    const Bytes stream = readFile(path(c.name));
    AnnexBReader reader;
    ASSERT_TRUE(reader.feed(stream.data(), stream.size()).ok());
    ASSERT_NE(reader.config(), nullptr);
    const VideoConfig& config = *reader.config();
    EXPECT_EQ(config.codec, c.codec);
    EXPECT_EQ(config.width, 128);
    EXPECT_EQ(config.height, 96);
    EXPECT_EQ(config.timeScale, c.timeScale);
    EXPECT_EQ(config.unitsPerFrame, c.unitsPerFrame);
    EXPECT_EQ(config.reorderFrames, c.reorder);
    EXPECT_EQ(reader.reorderDelay(), c.reorder);
  }
}

// ADTS frames are the samples ffmpeg writes, their configuration the
// esds's AudioSpecificConfig, in pieces of any size.
TEST_F(Streams, AdtsMatchesFfmpeg) {
  if (!made_) GTEST_SKIP() << "ffmpeg is needed";
  for (const auto& [name, rate, channels] : {std::tuple{"stereo_44100.aac", 44100u, 2u},
                                             std::tuple{"mono_48000.aac", 48000u, 1u}}) {
    SCOPED_TRACE(name);
    const Bytes stream = readFile(path(name));
    const auto samples = samplesOf(path(name) + ".mp4");
    const Bytes specific = decoderSpecificInfo(boxBody(readFile(path(name) + ".mp4"), "esds"));
    for (size_t piece : {size_t{1}, size_t{7}, size_t{4096}, stream.size()}) {
      AdtsReader reader;
      std::vector<Bytes> frames;
      Bytes frame;
      for (size_t at = 0; at < stream.size(); at += piece) {
        ASSERT_TRUE(reader.feed(stream.data() + at, std::min(piece, stream.size() - at)).ok());
        while (reader.next(&frame)) frames.push_back(frame);
      }
      ASSERT_TRUE(reader.finish().ok());
      ASSERT_EQ(frames.size(), samples.size()) << "pieces of " << piece;
      for (size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(frames[i], samples[i].first);
      ASSERT_NE(reader.config(), nullptr);
      EXPECT_EQ(reader.config()->specificConfig, specific);
      EXPECT_EQ(reader.config()->sampleRate, rate);
      EXPECT_EQ(reader.config()->channels, channels);
    }
  }
}

}  // namespace
