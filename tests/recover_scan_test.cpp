// How recovery reads the media data it walks: only the pages it looks at,
// from a file on disk and from memory alike, across media data larger than
// one look; and how the command splits runs of raw AAC frames.
#include <algorithm>
#include <fstream>
#include <functional>
#include <mutex>

#include "aac_frames.h"
#include <mp4stbl/edit/output.h>
#include <mp4stbl/recover/scan.h>
#include "support/test.h"

namespace {

using recovery::TrackModel;

std::vector<uint8_t> withLength(const std::vector<uint8_t>& nal) {
  std::vector<uint8_t> out;
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(nal.size() >> shift));
  out.insert(out.end(), nal.begin(), nal.end());
  return out;
}

// Baseline, 160x128, frame_num and pic_order_cnt_lsb of 4 bits.
const std::vector<uint8_t> kSps = {0x67, 0x42, 0xc0, 0x1e, 0xf4, 0x14, 0x23, 0x20};
const std::vector<uint8_t> kPps = {0x68, 0xce, 0x3c, 0x80};
const std::vector<uint8_t> kAud = {0x09, 0xf0};
const std::vector<uint8_t> kSei = {0x06, 0x05, 0x01, 0x00, 0x80};
const std::vector<uint8_t> kIdr = {0x65, 0x88, 0x84, 0x00};   // first_mb_in_slice 0
const std::vector<uint8_t> kP = {0x41, 0x9a, 0x02, 0x03};     // first_mb_in_slice 0
const std::vector<uint8_t> kPart = {0x41, 0x10, 0x68, 0x0c};  // first_mb_in_slice 7

// A slice header followed by `body` bytes of slice data.
std::vector<uint8_t> slice(const std::vector<uint8_t>& header, size_t body) {
  std::vector<uint8_t> nal = header;
  nal.resize(header.size() + body, 0);
  return withLength(nal);
}

struct Media {
  std::vector<uint8_t> bytes;
  std::vector<uint32_t> frameSizes;
  uint32_t packets = 0;
};

// Video frames of nine slices each, each followed by a packet of 16-bit
// PCM whose samples read as no NAL unit length; past 20 MiB in all, more
// than one look of the walk. The first frame is an IDR picture of one
// slice behind a delimiter, parameter sets and SEI.
Media interleaved() {
  Media media;
  for (int frame = 0; media.bytes.size() < (21u << 20); ++frame) {
    std::vector<uint8_t> unit;
    for (const auto& nal : {kAud, kSps, kPps, kSei, kSei}) {
      const std::vector<uint8_t> prefixed = withLength(nal);
      unit.insert(unit.end(), prefixed.begin(), prefixed.end());
    }
    const std::vector<uint8_t> idr = slice(kIdr, 1000);
    unit.insert(unit.end(), idr.begin(), idr.end());
    if (frame != 0) {
      // Slices of uneven sizes, so that their starts fall anywhere in a page.
      unit = slice(kP, 4093 + static_cast<size_t>(frame) % 7);
      for (int part = 0; part < 8; ++part) {
        const std::vector<uint8_t> more = slice(kPart, 12001 + static_cast<size_t>(part * frame) % 4096);
        unit.insert(unit.end(), more.begin(), more.end());
      }
    }
    media.frameSizes.push_back(static_cast<uint32_t>(unit.size()));
    media.bytes.insert(media.bytes.end(), unit.begin(), unit.end());
    media.bytes.insert(media.bytes.end(), 1280, 0x7f);
    ++media.packets;
  }
  return media;
}

std::vector<TrackModel> models() {
  TrackModel video;
  video.kind = TrackModel::Kind::Video;
  Result<recovery::NalFormat> format =
      recovery::nalFormat(recovery::VideoCodec::H264, 4, [] {
        std::vector<uint8_t> sets = withLength(kSps);
        const std::vector<uint8_t> pps = withLength(kPps);
        sets.insert(sets.end(), pps.begin(), pps.end());
        return sets;
      }());
  EXPECT_TRUE(format.ok()) << format.message();
  video.nal = *format;
  video.timescale = 25;
  video.sampleDuration = 1;
  TrackModel pcm;
  pcm.kind = TrackModel::Kind::Fixed;
  pcm.sampleSize = 4;
  pcm.packetSamples = 320;
  pcm.timescale = 8000;
  pcm.sampleDuration = 1;
  return {video, pcm};
}

std::vector<uint32_t> sizesOf(recovery::TrackTables& tables) {
  edit::NewTrack track;
  edit::Layout layout;
  tables.finish(track, layout);
  const auto* stsz = dynamic_cast<const StszAtom*>(track.stsz.get());
  return stsz != nullptr ? stsz->entries : std::vector<uint32_t>{};
}

TEST(RecoverScan, FindsEverySampleFromAFileAndFromMemory) {
  const Media media = interleaved();
  const uint64_t start = 40;  // behind a box header and more, as in a file
  std::vector<unsigned char> file(start, 0);
  file.insert(file.end(), media.bytes.begin(), media.bytes.end());
  ScratchDir dir("recover_scan");
  const std::string path = dir / "media";
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()),
                                              static_cast<std::streamsize>(file.size()));
  FileStream onDisk;
  ASSERT_EQ(onDisk.open(path, FileStream::Mode::Read), 0);
  MemoryStream inMemory(file);
  const std::vector<TrackModel> tracks = models();
  for (IOStream* stream : {static_cast<IOStream*>(&onDisk), static_cast<IOStream*>(&inMemory)}) {
    SCOPED_TRACE(stream == &onDisk ? "file" : "memory");
    recovery::ScanResult scan = recovery::scanMedia(*stream, start, file.size(), tracks, {});
    EXPECT_EQ(scan.stop, "");
    EXPECT_EQ(scan.end, file.size());
    EXPECT_EQ(sizesOf(scan.tables[0]), media.frameSizes);
    EXPECT_EQ(scan.tables[1].samples(), media.packets * 320);
  }
  // Cut inside the last frame's slices: every frame before it, and the
  // packet after the one before.
  const uint64_t cut = file.size() - 1280 - media.frameSizes.back() / 2;
  recovery::ScanResult scan = recovery::scanMedia(onDisk, start, cut, tracks, {});
  std::vector<uint32_t> whole = media.frameSizes;
  whole.pop_back();
  EXPECT_EQ(sizesOf(scan.tables[0]), whole);
  EXPECT_EQ(scan.tables[1].samples(), (media.packets - 1) * 320);
}

// The frames of an AAC chunk are each looked for in the bytes up to the
// next video frame, whatever the NAL length size: a finder that knows the
// frame length (100 bytes) records what it is given. Video frames of one
// IDR slice of 0x8100 bytes (a 2-byte length starts with a nonzero byte,
// and neither of its bytes reads as a NAL header) alternate with chunks of
// three frames whose bytes read as no NAL unit.
TEST(RecoverScan, AacFramesAreLookedForUpToTheNextVideoFrame) {
  constexpr size_t kFrame = 100, kFramesPerChunk = 3, kChunks = 20;
  for (const unsigned lengthSize : {4u, 2u}) {
    SCOPED_TRACE(lengthSize);
    auto prefixed = [lengthSize](const std::vector<uint8_t>& nal) {
      std::vector<uint8_t> out;
      for (unsigned i = lengthSize; i-- > 0;) out.push_back(static_cast<uint8_t>(nal.size() >> (8 * i)));
      out.insert(out.end(), nal.begin(), nal.end());
      return out;
    };
    std::vector<uint8_t> sets = prefixed(kSps);
    const std::vector<uint8_t> pps = prefixed(kPps);
    sets.insert(sets.end(), pps.begin(), pps.end());
    Result<recovery::NalFormat> format = recovery::nalFormat(recovery::VideoCodec::H264, lengthSize, sets);
    ASSERT_TRUE(format.ok()) << format.message();
    std::vector<TrackModel> tracks(2);
    tracks[0].kind = TrackModel::Kind::Video;
    tracks[0].nal = *format;
    tracks[0].timescale = 25;
    tracks[0].sampleDuration = 1;
    tracks[1].kind = TrackModel::Kind::Aac;
    tracks[1].aacConfig = {0x11, 0x90};
    tracks[1].timescale = 25 * 1024 * kFramesPerChunk;  // a chunk lasts as long as a frame
    tracks[1].sampleDuration = 1024;

    std::vector<uint8_t> idr = kIdr;
    idr.resize(0x8100, 0);
    const std::vector<uint8_t> frame = prefixed(idr);
    std::vector<unsigned char> media;
    for (size_t chunk = 0; chunk < kChunks; ++chunk) {
      media.insert(media.end(), frame.begin(), frame.end());
      media.insert(media.end(), kFrame * kFramesPerChunk, 0xff);
    }
    std::mutex mutex;
    std::vector<size_t> given;
    const AacFrameLength finder = [&](const std::vector<uint8_t>&, const uint8_t*, size_t available) {
      const std::lock_guard<std::mutex> lock(mutex);
      given.push_back(available);
      return available >= kFrame ? kFrame : 0;
    };
    // Each frame is asked for once, with the bytes up to the next video
    // frame: by the walk, or from a file by a thread that splits chunks
    // ahead of it.
    std::vector<size_t> expected;
    for (size_t left = kFramesPerChunk; left > 0; --left) {
      expected.insert(expected.end(), kChunks, left * kFrame);
    }
    ScratchDir dir("recover_aac");
    const std::string path = dir / "media";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(media.data()), static_cast<std::streamsize>(media.size()));
    FileStream onDisk;
    ASSERT_EQ(onDisk.open(path, FileStream::Mode::Read), 0);
    MemoryStream inMemory(media);
    for (IOStream* stream : {static_cast<IOStream*>(&inMemory), static_cast<IOStream*>(&onDisk)}) {
      SCOPED_TRACE(stream == &onDisk ? "file" : "memory");
      given.clear();
      recovery::ScanResult scan = recovery::scanMedia(*stream, 0, media.size(), tracks, finder);
      EXPECT_EQ(scan.stop, "");
      EXPECT_EQ(sizesOf(scan.tables[0]), std::vector<uint32_t>(kChunks, static_cast<uint32_t>(frame.size())));
      EXPECT_EQ(sizesOf(scan.tables[1]), std::vector<uint32_t>(kChunks * kFramesPerChunk, kFrame));
      std::sort(given.begin(), given.end(), std::greater<>());
      EXPECT_EQ(given, expected);
    }
  }
}

// Raw AAC frames of a file made by ffmpeg, mono at 48 kHz.
std::vector<std::string> aacFrames(const std::string& dir) {
  const std::string path = dir + "/tone.m4a";
  if (std::system(("ffmpeg -v error -y -f lavfi -i sine=frequency=440:duration=1 -ar 48000 -ac 1 "
                   "-c:a aac '" + path + "'").c_str()) != 0) {
    return {};
  }
  Mp4File file;
  if (!file.open(path).ok()) return {};
  std::ifstream in(path, std::ios::binary);
  const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::string> frames;
  const FoundTracks found = findTracks(file);
  if (found.tracks.empty()) return {};
  SampleWalker walk(found.tracks.front());
  for (auto next = walk.next(); next.ok() && *next != nullptr; next = walk.next()) {
    frames.push_back(data.substr((*next)->offset, (*next)->size));
  }
  return frames;
}

struct SplitCase {
  const char* name;
  std::vector<size_t> frames;  // which frames of the file, in a row
  std::string tail;            // what follows them
  std::vector<size_t> asked;   // the frames asked for, by their place in the row
};

TEST(AacFrameLength, FramesOfARunOneAfterTheOther) {
  const AacFrameLength frameLength = cli::aacFrameLength();
  if (!frameLength) GTEST_SKIP() << "built without libavcodec";
  ScratchDir dir("aac_split");
  const std::vector<std::string> frames = aacFrames(dir / "");
  if (frames.size() < 20) GTEST_SKIP() << "needs ffmpeg";
  const std::vector<uint8_t> config = {0x11, 0x88};  // AAC LC, 48 kHz, one channel
  const std::string video = std::string("\0\0\x30\x39\x65\x88\x84", 7) + std::string(64, '\x55');
  const std::vector<SplitCase> cases = {
      {"a run up to a video frame", {5, 6, 7}, video, {0, 1, 2}},
      {"a run and the bytes after it", {8, 9, 10, 11}, "", {0, 1, 2, 3}},
      {"zeros after the last frame", {12, 13}, std::string(3000, '\0'), {0, 1}},
      {"asked out of order", {14, 15, 16, 17}, video, {0, 2, 1, 3}},
      {"the same frame twice", {18, 18, 19}, video, {0, 1, 2}},
  };
  for (const SplitCase& c : cases) {
    SCOPED_TRACE(c.name);
    std::string run;
    std::vector<size_t> starts;
    for (size_t f : c.frames) {
      starts.push_back(run.size());
      run += frames.at(f);
    }
    const size_t runLength = run.size();
    run += c.tail;
    for (size_t place : c.asked) {
      SCOPED_TRACE(place);
      const auto* at = reinterpret_cast<const uint8_t*>(run.data()) + starts[place];
      // Given the run alone, as the walk does up to a video frame, and given every byte after it.
      const size_t end = c.tail.empty() ? run.size() : runLength;
      EXPECT_EQ(frameLength(config, at, end - starts[place]), frames.at(c.frames[place]).size());
      EXPECT_EQ(frameLength(config, at, run.size() - starts[place]), frames.at(c.frames[place]).size());
    }
  }
}

}  // namespace
