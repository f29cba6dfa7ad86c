// The elementary-stream readers against ffmpeg: streams made by libx264,
// libx265 and ffmpeg's AAC encoder are read in pieces of every size; the
// frames must be the samples, key flags and records ffmpeg writes when it
// copies the stream into MP4, in the order ffmpeg's decoder shows them.
#include <mp4stbl/media/elementary.h>

#include <cstdlib>
#include <map>
#include <random>
#include <sstream>

#include <mp4stbl/media/bits.h>
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
// from a fixed seed), taking frames after every piece; then the stream ends
// or, with `cut`, is cut off.
VideoRead readVideo(const Bytes& stream, size_t piece, bool cut = false) {
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
  if (read.status.ok()) read.status = cut ? reader.cut() : reader.finish();
  take();
  if (reader.config() != nullptr) read.record = reader.config()->record;
  return read;
}

// The body of the first box of `type` in the file's bytes.
Bytes boxBody(const Bytes& file, const std::string& type) {
  for (size_t i = 4; i + 4 <= file.size(); ++i) {
    if (std::equal(type.begin(), type.end(), file.begin() + i)) {
      const size_t size =
          size_t{file[i - 4]} << 24 | file[i - 3] << 16 | file[i - 2] << 8 | file[i - 1];
      if (size >= 8 && i - 4 + size <= file.size()) {
        return Bytes(file.begin() + i + 4, file.begin() + i - 4 + size);
      }
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
    const size_t size =
        size_t{sample[at]} << 24 | sample[at + 1] << 16 | sample[at + 2] << 8 | sample[at + 3];
    const size_t end = std::min(sample.size(), at + 4 + size);
    size_t last = end;
    while (last > at + 4 && sample[last - 1] == 0) --last;
    ByteWriter nal;
    nal.u32(static_cast<uint32_t>(last - at - 4))
        .bytes.insert(nal.bytes.end(), sample.begin() + at + 4, sample.begin() + last);
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
  EXPECT_EQ(walkSamples(found.tracks.front(),
                        [&](const SampleInfo& s) {
                          samples.emplace_back(
                              Bytes(all.begin() + s.offset, all.begin() + s.offset + s.size),
                              s.sync);
                        }),
            "");
  return samples;
}

// The place of each frame (in stream order) in the order ffmpeg's decoder
// outputs them.
std::vector<uint64_t> decoderOrder(const std::string& stream) {
  const std::string probe = "ffprobe -v error -of csv=p=0 ";
  std::map<uint64_t, uint64_t> rankAt;
  uint64_t rank = 0;
  for (const std::string& pos :
       lines(run(probe + "-show_frames -show_entries frame=pkt_pos " + stream))) {
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
    const std::string x265 =
        "-c:v libx265 -preset ultrafast -x265-params "
        "log-level=error:pools=none:frame-threads=1:keyint=20";
    made_ =
        make("bf3_pyramid.h264", source + x264 + "-bf 3 -x264-params b-pyramid=normal:keyint=20") &&
        make("baseline.h264", source + x264 + "-profile:v baseline -g 10") &&
        make("open_gop_slices.h264",
             source + x264 + "-bf 2 -x264-params keyint=12:open-gop=1:slices=3:aud=1") &&
        make("intra_refresh.h264",
             source + x264 + "-bf 0 -x264-params keyint=12:intra-refresh=1") &&
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
    const std::string format =
        name.substr(name.rfind('.') + 1) == "aac" ? "adts" : name.substr(name.rfind('.') + 1);
    const std::string tag = format == "hevc" ? " -tag:v hvc1" : "";
    return std::system((ffmpeg + options + " -f " + format + " " + (*dir_ / name)).c_str()) == 0 &&
           std::system(
               (ffmpeg + "-i " + (*dir_ / name) + " -c copy" + tag + " " + (*dir_ / name) + ".mp4")
                   .c_str()) == 0;
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
    EXPECT_EQ(whole.record,
              boxBody(file, std::string(name).find("hevc") != std::string::npos ? "hvcC" : "avcC"));
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
  for (const auto& [name, rate, channels] :
       {std::tuple{"stereo_44100.aac", 44100u, 2u}, std::tuple{"mono_48000.aac", 48000u, 1u}}) {
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

namespace {

// Writes bit fields and exp-Golomb codes; nal() escapes the payload as a
// byte stream carries it.
struct BitWriter {
  std::vector<bool> bits;
  BitWriter& u(uint64_t value, unsigned count) {
    for (unsigned i = count; i-- > 0;) bits.push_back((value >> i) & 1);
    return *this;
  }
  BitWriter& ue(uint32_t value) {
    unsigned length = 0;
    while ((uint64_t{value} + 1) >> (length + 1)) ++length;
    return u(0, length).u(uint64_t{value} + 1, length + 1);
  }
  BitWriter& se(int32_t value) { return ue(value > 0 ? 2 * value - 1 : -2 * value); }
  // The bits, zeros to the end of the last byte.
  Bytes raw() const {
    Bytes out((bits.size() + 7) / 8);
    for (size_t i = 0; i < bits.size(); ++i) {
      out[i / 8] |= static_cast<uint8_t>(bits[i] << (7 - i % 8));
    }
    return out;
  }
  // The header bytes, then the bits with the stop bit, escaped.
  Bytes nal(const Bytes& header) const {
    std::vector<bool> all = bits;
    all.push_back(true);
    while (all.size() % 8) all.push_back(false);
    Bytes out = header;
    unsigned zeros = 0;
    for (size_t i = 0; i < all.size(); i += 8) {
      uint8_t byte = 0;
      for (size_t j = 0; j < 8; ++j) byte = static_cast<uint8_t>(byte << 1 | all[i + j]);
      if (zeros >= 2 && byte <= 3) {
        out.push_back(3);
        zeros = 0;
      }
      zeros = byte == 0 ? zeros + 1 : 0;
      out.push_back(byte);
    }
    return out;
  }
};

// Main profile, 128x96, no VUI: the level's picture buffer sets the
// reorder depth (16 frames at level 3).
Bytes avcSps(unsigned log2FrameNum, unsigned log2PocLsb) {
  return BitWriter()
      .u(77, 8)
      .u(0, 8)
      .u(30, 8)
      .ue(0)
      .ue(log2FrameNum - 4)
      .ue(0)
      .ue(log2PocLsb - 4)
      .ue(1)
      .u(0, 1)
      .ue(7)
      .ue(5)
      .u(1, 1)
      .u(1, 1)
      .u(0, 1)
      .u(0, 1)
      .nal({0x67});
}
const Bytes kAvcPps =
    BitWriter().ue(0).ue(0).u(0, 2).ue(0).ue(0).ue(0).u(0, 3).se(0).se(0).se(0).u(0, 3).nal({0x68});

struct Slice {
  uint32_t firstMb, frameNum, pocLsb;
  bool idr, reference;
  uint32_t idrPicId = 0;
};

// A slice header followed by a few bytes of slice data.
Bytes avcSlice(const Slice& s, unsigned log2FrameNum, unsigned log2PocLsb) {
  BitWriter w;
  w.ue(s.firstMb).ue(s.idr ? 7 : 5).ue(0).u(s.frameNum, log2FrameNum);
  if (s.idr) w.ue(s.idrPicId);
  w.u(s.pocLsb, log2PocLsb).u(0x2A5, 10);
  return w.nal({static_cast<uint8_t>((s.reference ? 0x60 : 0) | (s.idr ? 5 : 1))});
}

const Bytes kStart4 = {0, 0, 0, 1}, kStart3 = {0, 0, 1};
const Bytes kAud = {0x09, 0xF0};
const Bytes kSeiRecovery = {0x06, 0x06, 0x01, 0x84, 0x80};  // recovery_frame_cnt 0

// The access unit of these NAL units as MP4 stores them.
Bytes lengthPrefixed(std::initializer_list<Bytes> nals) {
  ByteWriter out;
  for (const Bytes& nal : nals) out.u32(static_cast<uint32_t>(nal.size())).append(nal);
  return out.bytes;
}

// Start codes of 3 and 4 bytes, zero bytes before the first and after a
// NAL unit, delimiters and SEI in band, slices of one picture, an IDR
// slice header with an emulation-prevention byte before its order count
// (a 16-bit frame number of 0 and an idr_pic_id of 13 leading zeros): the
// frames come out whole, in presentation order by their order counts,
// whichever pieces the stream is fed in.
TEST(AnnexB, AccessUnitsOfAHandMadeStream) {
  const unsigned f = 16, p = 16;
  const Bytes sps = avcSps(f, p);
  const Bytes idr0 = avcSlice({0, 0, 0, true, true, 8191}, f, p);
  const Bytes idr1 = avcSlice({24, 0, 0, true, true, 8191}, f, p);
  const Bytes pic = avcSlice({0, 1, 6, false, true}, f, p);
  const Bytes b1 = avcSlice({0, 2, 2, false, false}, f, p),
              b2 = avcSlice({0, 2, 4, false, false}, f, p);
  const Bytes escape = {0, 0, 3};
  ASSERT_NE(std::search(idr0.begin(), idr0.begin() + 6, escape.begin(), escape.end()),
            idr0.begin() + 6);
  const Bytes stream =
      concat({{0, 0},  kStart4, kAud,    kStart4, sps,     kStart3, kAvcPps, {0, 0},
              kStart3, idr0,    kStart3, idr1,    kStart4, kAud,    kStart3, kSeiRecovery,
              kStart4, pic,     kStart3, b1,      {0},     kStart4, b2});
  const std::vector<Frame> expected = {{lengthPrefixed({kAud, sps, kAvcPps, idr0, idr1}), 0, true},
                                       {lengthPrefixed({kAud, kSeiRecovery, pic}), 3, true},
                                       {lengthPrefixed({b1}), 1, false},
                                       {lengthPrefixed({b2}), 2, false}};
  for (size_t piece : {size_t{1}, size_t{2}, size_t{3}, size_t{5}, size_t{0}, stream.size()}) {
    const VideoRead read = readVideo(stream, piece);
    EXPECT_EQ(read.status.message(), "");
    EXPECT_TRUE(read.frames == expected) << "pieces of " << piece;
  }
  // Cut off: the last access unit may be short and is left out, and the
  // frames held back before it are shown. Cut inside the last slice's
  // header, the cut NAL unit may be more of the picture before it, which is
  // left out too.
  auto shownAs = [&](std::vector<uint64_t> presentations) {
    std::vector<Frame> frames(expected.begin(), expected.begin() + static_cast<long>(presentations.size()));
    for (size_t i = 0; i < frames.size(); ++i) frames[i].presentation = presentations[i];
    return frames;
  };
  const std::pair<size_t, std::vector<Frame>> cuts[] = {{stream.size(), shownAs({0, 2, 1})},
                                                        {stream.size() - 3, shownAs({0, 1})}};
  for (const auto& [length, kept] : cuts) {
    const VideoRead read = readVideo(Bytes(stream.begin(), stream.begin() + static_cast<long>(length)),
                                     5, true);
    EXPECT_EQ(read.status.message(), "");
    EXPECT_TRUE(read.frames == kept) << "cut at " << length;
  }
}

// Picture order counts of 4 bits wrap every 16; an IDR starts the count
// again and first shows every frame before it.
TEST(AnnexB, PictureOrderWrapsAndRestarts) {
  const unsigned f = 4, p = 4;
  Bytes stream = concat({kStart4, avcSps(f, p), kStart4, kAvcPps});
  const Slice slices[] = {
      {0, 0, 0, true, true},    {0, 1, 6, false, true},  {0, 2, 2, false, false},
      {0, 2, 12, false, true},  {0, 3, 8, false, false}, {0, 3, 2, false, true},
      {0, 4, 14, false, false}, {0, 0, 4, true, true},   {0, 1, 0, false, true}};
  for (const Slice& slice : slices) stream = concat({stream, kStart3, avcSlice(slice, f, p)});
  const VideoRead read = readVideo(stream, 0);
  ASSERT_EQ(read.status.message(), "");
  std::vector<uint64_t> order;
  for (const Frame& frame : read.frames) order.push_back(frame.presentation);
  // POCs 0 6 2 12 8 18 14 | 4 0 -> shown 0 2 6 8 12 14 18, then 0 4.
  EXPECT_EQ(order, (std::vector<uint64_t>{0, 2, 1, 4, 3, 6, 5, 8, 7}));
}

}  // namespace

namespace {

std::string readError(const Bytes& stream) {
  AnnexBReader reader;
  Status status = reader.feed(stream.data(), stream.size());
  if (status.ok()) status = reader.finish();
  return status.message();
}

// Streams that are not H.264 or HEVC, or that this code does not take,
// are refused with the byte offset and the reason; none crashes.
TEST(AnnexB, RefusalsSayWhereAndWhy) {
  const Bytes sps = avcSps(4, 4), pps = kAvcPps;
  const Bytes idr = avcSlice({0, 0, 0, true, true}, 4, 4),
              pic = avcSlice({0, 1, 2, false, true}, 4, 4);
  const Bytes head = concat({kStart4, sps, kStart4, pps, kStart4, idr});
  Bytes otherSps = sps;
  otherSps[3] = 31;  // level 3.1
  const std::pair<Bytes, std::string> cases[] = {
      {{}, "no video frame in 0 bytes"},
      {Bytes(1000, 0), "no video frame in 1000 bytes"},
      {{0, 0, 'h', 'i', 0, 0, 1, 0x67},
       "at byte 2: not an H.264 or HEVC byte stream (no start code)"},
      {concat({kStart4, pic}),
       "at byte 4: the stream does not start with H.264 or HEVC parameter sets (NAL unit header "
       "97)"},
      {concat({kStart4, pps, kStart3, pic}), "at byte 11: a picture before its parameter sets"},
      {concat({kStart4, Bytes(sps.begin(), sps.begin() + 5), kStart4, pps, kStart4, idr}),
       "at byte 21: H.264 parameter sets: H.264 SPS: ends early, at bit 32"},
      {concat({head, kStart4, otherSps, kStart4, pic}),
       "parameter sets change at byte " + std::to_string(head.size() + 4) + "; not supported"},
      {concat({head, kStart3, {0xE1, 0x22}}),
       "at byte " + std::to_string(head.size() + 3) + ": NAL unit with its forbidden bit set"},
      {concat({kStart4, sps, kStart4, {0x68, 0x00, 0x7F}, kStart4, idr}),
       "at byte " + std::to_string(sps.size() + 15) +
           ": H.264 parameter sets: H.264 PPS: ids out of range or set ends early"},
  };
  for (const auto& [stream, error] : cases) EXPECT_EQ(readError(stream), error);
  // Random bytes, behind valid parameter sets and on their own.
  std::mt19937 random(5);
  for (int i = 0; i < 300; ++i) {
    Bytes noise(1 + random() % 300);
    for (uint8_t& byte : noise) byte = static_cast<uint8_t>(random() % 4 ? random() : 0);
    EXPECT_NE(readError(concat({kStart4, noise})), "");
    readError(concat({head, kStart3, noise}));
  }
}

// A NAL unit without end is refused once it passes 64 MiB, not held.
TEST(AnnexB, ANalUnitPast64MiBIsRefused) {
  AnnexBReader reader;
  const Bytes sps = avcSps(4, 4);
  const Bytes head = concat({kStart4,
                             sps,
                             kStart4,
                             kAvcPps,
                             kStart4,
                             avcSlice({0, 0, 0, true, true}, 4, 4),
                             {0, 0, 1, 0x65}});
  ASSERT_TRUE(reader.feed(head.data(), head.size()).ok());
  const Bytes block(1 << 20, 0xFF);
  Status status;
  for (int i = 0; i < 70 && status.ok(); ++i) status = reader.feed(block.data(), block.size());
  EXPECT_EQ(status.message(),
            "at byte " + std::to_string(head.size() - 1) + ": a NAL unit of more than 64 MiB");
}

// What an AudioSpecificConfig says: rate (the doubled one of explicit SBR),
// channels (8 for configuration 7, 2 with parametric stereo), frame
// length; refusals for what no sample entry can state.
TEST(Aac, SpecificConfigs) {
  struct Case {
    Bytes config;
    uint32_t rate, channels, samples;
    std::string error;
  };
  const Case cases[] = {
      {{0x12, 0x10}, 44100, 2, 1024, ""},
      {BitWriter().u(2, 5).u(3, 4).u(1, 4).u(1, 1).raw(), 48000, 1, 960, ""},
      {BitWriter().u(2, 5).u(15, 4).u(12345, 24).u(7, 4).u(0, 1).raw(), 12345, 8, 1024, ""},
      {BitWriter().u(5, 5).u(6, 4).u(2, 4).u(3, 4).u(2, 5).u(0, 3).raw(), 48000, 2, 1024, ""},
      {BitWriter().u(29, 5).u(6, 4).u(1, 4).u(3, 4).u(2, 5).u(0, 3).raw(), 48000, 2, 1024, ""},
      {BitWriter().u(31, 5).u(10, 6).u(4, 4).u(2, 4).u(0, 5).raw(), 44100, 2, 1024, ""},
      {{0x12, 0x00},
       0,
       0,
       0,
       "AudioSpecificConfig: channel configuration 0 (a program config element) is not supported"},
      {BitWriter().u(2, 5).u(13, 4).u(2, 4).u(0, 3).raw(), 0, 0, 0,
       "AudioSpecificConfig: reserved sampling frequency index"},
      {{0x12}, 0, 0, 0, "AudioSpecificConfig ends early"},
      {{0x02, 0x10}, 0, 0, 0, "AudioSpecificConfig: audio object type 0"},
  };
  for (const Case& c : cases) {
    const Result<AudioConfig> config = aacConfig(c.config);
    EXPECT_EQ(config.message(), c.error);
    if (!config.ok()) continue;
    EXPECT_EQ(config->specificConfig, c.config);
    EXPECT_EQ(config->sampleRate, c.rate);
    EXPECT_EQ(config->channels, c.channels);
    EXPECT_EQ(config->samplesPerFrame, c.samples);
  }
}

// An ADTS frame: header (with a CRC unless `crc` is false), then `payload`.
Bytes adts(unsigned rateIndex, unsigned channels, const Bytes& payload, bool crc = false,
           unsigned blocks = 0) {
  const size_t length = (crc ? 9 : 7) + payload.size();
  Bytes frame = BitWriter()
                    .u(0xFFF, 12)
                    .u(0, 3)
                    .u(crc ? 0 : 1, 1)
                    .u(1, 2)
                    .u(rateIndex, 4)
                    .u(0, 1)
                    .u(channels, 3)
                    .u(0, 4)
                    .u(length, 13)
                    .u(0x7FF, 11)
                    .u(blocks, 2)
                    .raw();
  if (crc) frame.insert(frame.end(), {0xAB, 0xCD});
  return concat({frame, payload});
}

// Headers of 7 and 9 bytes; frames of several blocks, junk, a change of
// configuration and a frame cut short are refused with the offset.
TEST(Adts, FramesAndRefusals) {
  const Bytes a = {1, 2, 3}, b = {4, 5, 6, 7};
  const Bytes good = concat({adts(4, 2, a), adts(4, 2, b, true)}), last = adts(4, 2, b);
  AdtsReader reader;
  ASSERT_TRUE(reader.feed(good.data(), good.size()).ok());
  ASSERT_TRUE(reader.finish().ok());
  Bytes frame;
  std::vector<Bytes> frames;
  while (reader.next(&frame)) frames.push_back(frame);
  EXPECT_EQ(frames, (std::vector<Bytes>{a, b}));
  EXPECT_EQ(reader.config()->specificConfig, (Bytes{0x12, 0x10}));
  const std::pair<Bytes, std::string> cases[] = {
      {concat({good, {'x', 'y', 'z', 0, 0, 0, 0}}), "ADTS at byte 23: no sync word"},
      {concat({good, adts(4, 2, a, false, 1)}),
       "ADTS at byte 23: a frame of several raw data blocks"},
      {concat({good, adts(3, 2, a)}), "ADTS at byte 23: the configuration changes; not supported"},
      {concat({good, adts(4, 0, a)}), "ADTS at byte 23: the configuration changes; not supported"},
      {concat({adts(4, 0, a)}),
       "ADTS at byte 0: AudioSpecificConfig: channel configuration 0 (a program config element) is "
       "not supported"},
      {concat({good, Bytes(last.begin(), last.end() - 1)}),
       "ADTS at byte 23: the last frame is cut short (10 bytes dropped)"},
      {{}, "no ADTS frame in the stream"},
  };
  for (const auto& [stream, error] : cases) {
    AdtsReader refusing;
    Status status = refusing.feed(stream.data(), stream.size());
    if (status.ok()) status = refusing.finish();
    EXPECT_EQ(status.message(), error);
  }
}

// Exp-Golomb codes and emulation-prevention bytes; a read past the end
// gives zeros and fails the reader.
TEST(Bits, ExpGolombAndEscapes) {
  const Bytes escaped = {0x00, 0x00, 0x03, 0x01, 0x00, 0x00, 0x03};
  EXPECT_EQ(unescapeNal(escaped.data(), escaped.size()), (Bytes{0, 0, 1, 0, 0}));
  const Bytes codes = BitWriter().ue(0).ue(1).ue(2).ue(254).se(-3).se(3).u(5, 3).raw();
  BitReader in(codes);
  EXPECT_EQ(in.ue(), 0u);
  EXPECT_EQ(in.ue(), 1u);
  EXPECT_EQ(in.ue(), 2u);
  EXPECT_EQ(in.ue(), 254u);
  EXPECT_EQ(in.se(), -3);
  EXPECT_EQ(in.se(), 3);
  EXPECT_EQ(in.bits(3), 5u);
  EXPECT_FALSE(in.failed());
  in.bits(32);
  EXPECT_TRUE(in.failed());
  const Bytes zeros(8, 0);
  BitReader long_code(zeros);
  EXPECT_EQ(long_code.ue(), 0u);
  EXPECT_TRUE(long_code.failed());
}

}  // namespace
