// A track's samples read by number and written as elementary streams:
// golden Annex B and ADTS bytes, the configurations ADTS cannot carry, and
// sample sizes that lie past the file.
#include <mp4stbl/media/sample_format.h>
#include "support/test.h"

namespace {

const Bytes kSps = {0x67, 0x42, 0xC0, 0x1E};
const Bytes kPps = {0x68, 0xCE, 0x3C, 0x80};
const Bytes kAud = {0x09, 0xF0};
const Bytes kIdr = {0x65, 0x88, 0x84};
const Bytes kSlice = {0x41, 0x9A};
const Bytes kStart = {0, 0, 0, 1};

// An avcC body with one SPS and one PPS and the given length size.
Bytes avcRecord(uint8_t lengthSize) {
  return concat({{1, 0x42, 0xC0, 0x1E, static_cast<uint8_t>(0xFC | (lengthSize - 1)), 0xE1, 0, 4},
                 kSps,
                 {1, 0, 4},
                 kPps});
}

// NAL units behind big-endian lengths of `size` bytes.
Bytes prefixed(uint8_t size, std::initializer_list<Bytes> units) {
  Bytes out;
  for (const Bytes& unit : units) {
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
      out.push_back(static_cast<uint8_t>(unit.size() >> shift));
    }
    out.insert(out.end(), unit.begin(), unit.end());
  }
  return out;
}

Bytes annexB(std::initializer_list<Bytes> units) {
  Bytes out;
  for (const Bytes& unit : units) out = concat({out, kStart, unit});
  return out;
}

TEST(AnnexBWriter, LengthsBecomeStartCodesWithTheSetsBeforeKeyFrames) {
  struct Case {
    const char* name;
    uint8_t lengthSize;
    Bytes sample;
    bool key;
    Bytes expected;
  };
  const std::vector<Case> cases = {
      {"key frame, 4-byte lengths", 4, prefixed(4, {kIdr}), true, annexB({kSps, kPps, kIdr})},
      {"key frame, 2-byte lengths", 2, prefixed(2, {kIdr, kSlice}), true,
       annexB({kSps, kPps, kIdr, kSlice})},
      {"key frame, 1-byte lengths", 1, prefixed(1, {kIdr}), true, annexB({kSps, kPps, kIdr})},
      {"other frame", 4, prefixed(4, {kSlice, kSlice}), false, annexB({kSlice, kSlice})},
      {"delimiter first", 4, prefixed(4, {kAud, kIdr}), true, annexB({kAud, kSps, kPps, kIdr})},
      {"its own sets", 4, prefixed(4, {kSps, kPps, kIdr}), true, annexB({kSps, kPps, kIdr})},
      {"empty", 4, {}, true, annexB({kSps, kPps})},
  };
  for (const Case& c : cases) {
    Result<AnnexBWriter> writer =
        AnnexBWriter::fromRecord(VideoConfig::Codec::H264, avcRecord(c.lengthSize));
    ASSERT_TRUE(writer.ok()) << c.name << ": " << writer.message();
    EXPECT_EQ(writer->lengthSize(), c.lengthSize) << c.name;
    Bytes out = {0xAB};  // appended to, never replaced
    ASSERT_TRUE(writer->convert(c.sample.data(), c.sample.size(), c.key, &out).ok()) << c.name;
    EXPECT_EQ(out, concat({{0xAB}, c.expected})) << c.name;
  }
}

TEST(AnnexBWriter, HevcSetsOfEveryArray) {
  const Bytes vps = {0x40, 0x01, 0x0C}, sps = {0x42, 0x01, 0x01}, pps = {0x44, 0x01, 0xC1};
  const Bytes aud = {0x46, 0x01, 0x50}, idr = {0x26, 0x01, 0xAF}, trail = {0x02, 0x01, 0xD0};
  Bytes record(21, 0);
  record[0] = 1;
  record = concat({record, {0x0F, 3}, {0xA0, 0, 1, 0, 3}, vps, {0xA1, 0, 1, 0, 3}, sps,
                   {0xA2, 0, 1, 0, 3}, pps});
  Result<AnnexBWriter> writer = AnnexBWriter::fromRecord(VideoConfig::Codec::Hevc, record);
  ASSERT_TRUE(writer.ok()) << writer.message();
  EXPECT_EQ(writer->parameterSets(), annexB({vps, sps, pps}));
  Bytes out;
  const Bytes key = prefixed(4, {aud, idr});
  ASSERT_TRUE(writer->convert(key.data(), key.size(), true, &out).ok());
  EXPECT_EQ(out, annexB({aud, vps, sps, pps, idr}));
  out.clear();
  const Bytes own = prefixed(4, {vps, sps, pps, idr});
  ASSERT_TRUE(writer->convert(own.data(), own.size(), true, &out).ok());
  EXPECT_EQ(out, annexB({vps, sps, pps, idr}));
  out.clear();
  const Bytes other = prefixed(4, {trail});
  ASSERT_TRUE(writer->convert(other.data(), other.size(), false, &out).ok());
  EXPECT_EQ(out, annexB({trail}));
}

TEST(AnnexBWriter, RefusesLengthsPastTheSampleAndBrokenRecords) {
  Result<AnnexBWriter> writer = AnnexBWriter::fromRecord(VideoConfig::Codec::H264, avcRecord(4));
  ASSERT_TRUE(writer.ok());
  const std::vector<std::pair<Bytes, std::string>> samples = {
      {{0, 0, 0, 9, 0x65, 0x88}, "a NAL unit of 9 bytes at byte 4 of 6"},
      {concat({prefixed(4, {kIdr}), {0, 0}}), "a NAL unit length cut short at byte 7 of 9"},
      {{0, 0, 0, 0}, "a NAL unit of 0 bytes at byte 4 of 4"},
  };
  for (const auto& [sample, reason] : samples) {
    Bytes out = {0xAB};
    Status status = writer->convert(sample.data(), sample.size(), true, &out);
    EXPECT_EQ(status.message(), reason);
    EXPECT_EQ(out, Bytes{0xAB}) << reason;
  }
  Bytes cut = avcRecord(4);
  cut.pop_back();
  EXPECT_EQ(AnnexBWriter::fromRecord(VideoConfig::Codec::H264, cut).message(),
            "avcC ends before its parameter sets (18 bytes)");
  EXPECT_EQ(AnnexBWriter::fromRecord(VideoConfig::Codec::H264, avcRecord(3)).message(),
            "avcC gives NAL unit lengths of 3 bytes");
  EXPECT_EQ(AnnexBWriter::fromRecord(VideoConfig::Codec::Hevc, Bytes(22, 0)).message(),
            "hvcC ends before its parameter sets (22 bytes)");
}

TEST(AdtsWriter, HeadersFromTheAudioSpecificConfig) {
  struct Case {
    Bytes config;
    size_t frame;
    Bytes header;
  };
  const std::vector<Case> cases = {
      {{0x12, 0x10}, 3, {0xFF, 0xF1, 0x50, 0x80, 0x01, 0x5F, 0xFC}},     // LC, 44100, stereo
      {{0x11, 0x88}, 1000, {0xFF, 0xF1, 0x4C, 0x40, 0x7D, 0xFF, 0xFC}},  // LC, 48000, mono
      {{0x11, 0xB0}, 8184, {0xFF, 0xF1, 0x4D, 0x83, 0xFF, 0xFF, 0xFC}},  // 5.1, the longest frame
      {{0x09, 0x88}, 0, {0xFF, 0xF1, 0x0C, 0x40, 0x00, 0xFF, 0xFC}},     // Main, 48000, mono
      {{0x21, 0x90}, 10, {0xFF, 0xF1, 0xCC, 0x80, 0x02, 0x3F, 0xFC}},    // LTP, 48000, stereo
  };
  for (const Case& c : cases) {
    Result<AdtsWriter> writer = AdtsWriter::fromConfig(c.config);
    ASSERT_TRUE(writer.ok()) << writer.message();
    const Bytes frame(c.frame, 0x5A);
    Bytes out = {0xAB};
    ASSERT_TRUE(writer->convert(frame.data(), frame.size(), &out).ok());
    EXPECT_EQ(out, concat({{0xAB}, c.header, frame})) << c.frame;
  }
  Result<AdtsWriter> writer = AdtsWriter::fromConfig({0x12, 0x10});
  const Bytes tooLong(8185, 0);
  Bytes out;
  EXPECT_EQ(writer->convert(tooLong.data(), tooLong.size(), &out).message(),
            "an AAC frame of 8185 bytes, longer than an ADTS frame can be (8184)");
  EXPECT_TRUE(out.empty());
}

TEST(AdtsWriter, RefusesWhatItsHeaderCannotState) {
  const std::vector<std::pair<Bytes, std::string>> refused = {
      {{0x2B, 0x92, 0x08, 0x00}, "audio object type 5 (HE-AAC signalled explicitly)"},
      {{0xEB, 0x11, 0x8A, 0x00}, "audio object type 29 (HE-AAC signalled explicitly)"},
      {{0x29, 0x10}, "audio object type 5 (HE-AAC"},
      {{0x39, 0x10}, "audio object type 7;"},
      {{0xF8, 0x00, 0x00}, "audio object type 32;"},
      {{0x17, 0x80, 0x00, 0x5D, 0xC0, 0x10}, "an explicit sampling frequency (index 15)"},
      {{0x16, 0x90}, "reserved sampling frequency index"},
      {{0x12, 0x00}, "channel configuration 0"},
      {{0x12, 0x14}, "frames of 960 samples"},
      {{0x12}, "AudioSpecificConfig ends early"},
      {{0x02, 0x10}, "audio object type 0;"},
  };
  for (const auto& [config, reason] : refused) {
    Result<AdtsWriter> writer = AdtsWriter::fromConfig(config);
    ASSERT_FALSE(writer.ok()) << reason;
    EXPECT_NE(writer.message().find(reason), std::string::npos) << writer.message();
  }
}

TEST(AdtsWriter, ConfigFromTheEsdsOfRealFiles) {
  // ffmpeg's esds for AAC LC at 22050 Hz, mono.
  const Bytes esds = {0, 0, 0, 0, 0x03, 0x80, 0x80, 0x80, 0x22, 0, 2, 0, 0x04, 0x80, 0x80,
                      0x80, 0x14, 0x40, 0x15, 0, 0, 0, 0, 0, 0x7D, 0, 0, 0, 0x7D, 0,
                      0x05, 0x80, 0x80, 0x80, 0x02, 0x13, 0x88, 0x06, 0x80, 0x80, 0x80, 0x01, 0x02};
  Result<Bytes> config = aacSpecificConfig(esds);
  ASSERT_TRUE(config.ok()) << config.message();
  EXPECT_EQ(*config, (Bytes{0x13, 0x88}));
  Bytes mp3 = esds;
  mp3[17] = 0x6B;
  EXPECT_EQ(aacSpecificConfig(mp3).message(), "esds names object type 107, not AAC");
  EXPECT_EQ(aacSpecificConfig(Bytes(esds.begin(), esds.begin() + 36)).message(),
            "esds ends inside its AudioSpecificConfig");

  Mp4File file;
  ASSERT_TRUE(file.open(std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4").ok());
  const FoundTracks found = findTracks(file);
  ASSERT_EQ(found.tracks.size(), 2u);
  const Atom& entry = *found.tracks[1].stsd().children.front();
  Result<AdtsWriter> writer = AdtsWriter::fromEntry(entry);
  ASSERT_TRUE(writer.ok()) << writer.message();
  Bytes out;
  ASSERT_TRUE(writer->convert(nullptr, 0, &out).ok());
  EXPECT_EQ(out, (Bytes{0xFF, 0xF1, 0x5C, 0x40, 0x00, 0xFF, 0xFC}));  // LC, 22050, mono
  EXPECT_FALSE(AnnexBWriter::fromEntry(entry).ok());
}

// Every sample of every track, by number and by the walker, is the bytes
// the tables place in the file.
TEST(ReadSample, ByNumberTheBytesTheWalkerPlaces) {
  for (const std::string& path : filesIn(MP4STBL_TEST_DATA, ".*\\.(mp4|mov)")) {
    const Bytes bytes = readFile(path);
    Mp4File file;
    ASSERT_TRUE(file.open(path).ok()) << path;
    for (const Track& track : findTracks(file).tracks) {
      std::vector<uint8_t> buffer;
      walkSamples(track, [&](const SampleInfo& sample) {
        const Bytes expected(bytes.begin() + static_cast<std::ptrdiff_t>(sample.offset),
                             bytes.begin() + static_cast<std::ptrdiff_t>(sample.offset + sample.size));
        Result<std::vector<uint8_t>> read = track.readSample(file.stream(), sample.number);
        ASSERT_TRUE(read.ok()) << read.message();
        EXPECT_EQ(*read, expected) << path << " track " << track.id() << " sample " << sample.number;
        ASSERT_TRUE(track.readSample(file.stream(), sample, &buffer).ok());
        EXPECT_EQ(buffer, expected);
      });
      EXPECT_EQ(track.readSample(file.stream(), track.sampleCount() + 1).message(),
                track.fail("no sample " + std::to_string(track.sampleCount() + 1) +
                           "; the track has " + std::to_string(track.sampleCount()))
                    .message());
    }
  }
}

// A size table from a hostile file never sizes a buffer past the file.
TEST(ReadSample, SizesPastTheFileAreRefusedBeforeAnyAllocation) {
  Bytes bytes = readFile(std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4");
  const std::string stsz = "stsz";
  const auto at = std::search(bytes.begin(), bytes.end(), stsz.begin(), stsz.end());
  ASSERT_NE(at, bytes.end());
  // Version and flags, the one size (0: a table), the count, then sample 1.
  const auto first = at + 4 + 4 + 4 + 4;
  std::fill(first, first + 4, uint8_t{0xFF});
  ReadFile read(bytes);
  ASSERT_TRUE(read.status.ok());
  const FoundTracks found = findTracks(read.file);
  const Track& track = found.tracks.front();
  std::vector<uint8_t> buffer;
  Status status = track.readSample(&read.in, 1, &buffer);
  EXPECT_NE(status.message().find("sample 1 (4294967295 bytes at offset "), std::string::npos)
      << status.message();
  EXPECT_NE(status.message().find("lies past the end of the file, " + std::to_string(bytes.size()) +
                                  " bytes"),
            std::string::npos);
  EXPECT_EQ(buffer.capacity(), 0u);
}

}  // namespace
