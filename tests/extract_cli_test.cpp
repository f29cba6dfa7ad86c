// mp4stbl extract as a player's user runs it on files of the corpus (ffmpeg
// and GStreamer, B-frames, HEVC, qtmux's entries): ffmpeg decodes each
// extracted stream frame for frame as it decodes the track in the file,
// and the recorder takes the streams back to the same samples.
#include <sys/wait.h>

#include <nlohmann/json.hpp>

#include <mp4stbl/media/sample_format.h>
#include "support/process.h"
#include "support/test.h"

using nlohmann::json;

namespace {

const ScratchDir kScratch("mp4stbl_extract_");
std::string scratch(const std::string& name) { return kScratch / name; }
std::string corpus(const std::string& name) { return std::string(MP4STBL_CORPUS_DIR) + "/" + name; }

// Runs `program args...`, stdout through a pipe, stderr through a file.
Outcome run(const std::string& program, const std::vector<std::string>& args) {
  return shellIn(commandLine(program, args), scratch("stderr"));
}

Outcome cli(std::vector<std::string> args) { return run(MP4STBL_CLI, args); }

bool haveCorpus() { return fs::exists(corpus("h264_aac.mp4")); }

// The md5 of each decoded picture or sound frame of `input`'s stream
// `map` ("v:0", "a:1"); with `whole`, one md5 of all of it.
std::vector<std::string> decoded(const std::vector<std::string>& input, const std::string& map,
                                 bool whole = false) {
  std::vector<std::string> args = {"-v", "error"};
  args.insert(args.end(), input.begin(), input.end());
  args.insert(args.end(), {"-map", "0:" + map, "-f", whole ? "md5" : "framemd5", "-"});
  const Outcome md5 = run("ffmpeg", args);
  EXPECT_EQ(md5.err, "") << input.back();
  std::vector<std::string> frames;
  std::istringstream lines(md5.out);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    const size_t md5 = line.rfind(',') == std::string::npos ? line.find('=') : line.rfind(',') + 1;
    frames.push_back(line.substr(md5 + 1));
  }
  return frames;
}

// A file's edit list is left out, as an extracted stream has none.
std::vector<std::string> decodedTrack(const std::string& path, const std::string& map,
                                      bool whole = false) {
  return decoded({"-ignore_editlist", "1", "-i", path}, map, whole);
}

// ffmpeg's options for a raw PCM stream like the first audio one of `path`.
std::vector<std::string> rawInput(const std::string& path) {
  const Outcome probed = run("ffprobe", {"-v", "error", "-select_streams", "a:0", "-show_entries",
                                         "stream=codec_name,sample_rate,channels", "-of", "json", path});
  const json stream = probed.doc()["streams"][0];
  std::string format = stream["codec_name"].get<std::string>().substr(4);  // "pcm_"
  return {"-f", format, "-ar", stream["sample_rate"].get<std::string>(), "-ac",
          std::to_string(stream["channels"].get<int>())};
}

TEST(CliExtract, FfmpegDecodesTheStreamAsTheTrack) {
  if (!haveCorpus()) GTEST_SKIP() << "no corpus in " << MP4STBL_CORPUS_DIR << " (needs ffmpeg)";
  struct Case {
    std::string file, track, format;
  };
  const std::vector<Case> cases = {
      {"h264_aac.mp4", "video", "h264"},      {"h264_aac.mp4", "audio", "adts"},
      {"hevc.mp4", "video", "hevc"},          {"hevc_hev1.mp4", "video", "hevc"},
      {"hevc_ntsc.mp4", "audio", "adts"},     {"h264_bframes.mp4", "video", "h264"},
      {"bframes_late.mp4", "1", "h264"},      {"frag_h264_aac.mp4", "video", "h264"},
      {"frag_h264_aac.mp4", "2", "adts"},     {"gst_h264_aac.mp4", "video", "h264"},
      {"gst_h264_aac.mp4", "audio", "adts"},  {"gst_h264.mov", "video", "h264"},
      {"gst_mp3.mov", "audio", "mp3"},        {"mp3.mp4", "audio", "mp3"},
      {"gst_pcm.mov", "audio", "pcm"},        {"pcm_s16le.mov", "audio", "pcm"},
      {"h264_ulaw.mov", "audio", "pcm"},      {"prores_apcs_alaw.mov", "audio", "pcm"},
      {"eac3_51.mp4", "audio", "eac3"},       {"two_audio.mp4", "3", "adts"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file + " " + c.track);
    const std::string source = corpus(c.file), out = scratch("stream." + c.format);
    const Outcome done = cli({"--json", "extract", source, "--track", c.track, "-o", out, "-y"});
    ASSERT_EQ(done.status, 0) << done.err;
    EXPECT_EQ(done.doc()["format"], c.format);
    EXPECT_EQ(done.doc()["notes"], json::array());
    const std::string kind = c.format == "h264" || c.format == "hevc" ? "v" : "a";
    // Raw PCM has no frames: ffmpeg cuts it in packets of its own choosing.
    const bool pcm = c.format == "pcm";
    std::vector<std::string> input = pcm ? rawInput(source) : std::vector<std::string>{};
    input.insert(input.end(), {"-i", out});
    const std::vector<std::string> expected =
        decodedTrack(source, kind + (c.track == "3" ? ":1" : ":0"), pcm);
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(decoded(input, kind + ":0", pcm), expected);
    fs::remove(out);
  }
}

// NAL units behind 4-byte lengths, their types.
std::vector<uint32_t> nalTypes(const std::vector<uint8_t>& sample, bool hevc) {
  std::vector<uint32_t> types;
  for (size_t at = 0; at + 4 < sample.size();) {
    const size_t length = size_t{sample[at]} << 24 | sample[at + 1] << 16 | sample[at + 2] << 8 | sample[at + 3];
    types.push_back(hevc ? sample[at + 4] >> 1 & 0x3F : sample[at + 4] & 0x1F);
    at += 4 + length;
  }
  return types;
}

// The streams recorded again hold the track's samples in decode order, the
// key frames the same, each key frame that carried no parameter sets led by
// those of the decoder configuration (and its SEI, for HEVC).
TEST(CliExtract, RecordedAgainTheSamplesAreTheTrack) {
  if (!haveCorpus()) GTEST_SKIP() << "no corpus (needs ffmpeg)";
  for (const std::string name : {"h264_30fps_aac.mp4", "hevc_ntsc.mp4", "gst_h264_aac.mp4"}) {
    SCOPED_TRACE(name);
    const std::string video = scratch("v.es"), audio = scratch("a.aac"), again = scratch("again.mp4");
    ASSERT_EQ(cli({"extract", corpus(name), "--track", "video", "-o", video, "-y"}).status, 0);
    ASSERT_EQ(cli({"extract", corpus(name), "--track", "audio", "-o", audio, "-y"}).status, 0);
    const Outcome recorded = cli({"record", "--video", video, "--audio", audio, "-o", again, "-y"});
    ASSERT_EQ(recorded.status, 0) << recorded.err;
    Mp4File original, copy;
    ASSERT_TRUE(original.open(corpus(name)).ok());
    ASSERT_TRUE(copy.open(again).ok());
    const FoundTracks was = findTracks(original), is = findTracks(copy);
    ASSERT_EQ(is.tracks.size(), was.tracks.size());
    for (size_t t = 0; t < was.tracks.size(); ++t) {
      const Track &from = was.tracks[t], &to = is.tracks[t];
      ASSERT_EQ(to.handler(), from.handler());
      ASSERT_EQ(to.sampleCount(), from.sampleCount());
      const bool hevc = from.entryType()[0] == 'h';
      uint32_t keys = 0;
      walkSamples(from, [&](const SampleInfo& sample) {
        std::vector<uint8_t> before, after;
        ASSERT_TRUE(from.readSample(original.stream(), sample.number, &before).ok());
        ASSERT_TRUE(to.readSample(copy.stream(), sample.number, &after).ok());
        ASSERT_GE(after.size(), before.size());
        EXPECT_TRUE(std::equal(before.begin(), before.end(), after.end() - before.size()))
            << "sample " << sample.number;
        const std::vector<uint8_t> lead(after.begin(), after.end() - before.size());
        if (from.handler() == "soun" || !sample.sync) {
          EXPECT_TRUE(lead.empty()) << "sample " << sample.number;
          return;
        }
        ++keys;
        const std::vector<uint32_t> own = nalTypes(before, hevc);
        const uint32_t sps = hevc ? 33 : 7;
        if (std::count(own.begin(), own.end(), sps) != 0) {
          EXPECT_TRUE(lead.empty()) << "sample " << sample.number;
          return;
        }
        const std::vector<uint32_t> sets = nalTypes(lead, hevc);
        const std::vector<uint32_t> allowed = hevc ? std::vector<uint32_t>{32, 33, 34, 39}
                                                   : std::vector<uint32_t>{7, 8};
        EXPECT_EQ(std::count(sets.begin(), sets.end(), sps), 1) << "sample " << sample.number;
        for (uint32_t type : sets) {
          EXPECT_NE(std::find(allowed.begin(), allowed.end(), type), allowed.end()) << type;
        }
      });
      std::vector<uint32_t> wasKeys, isKeys;
      walkSamples(from, [&](const SampleInfo& s) { if (s.sync) wasKeys.push_back(s.number); });
      walkSamples(to, [&](const SampleInfo& s) { if (s.sync) isKeys.push_back(s.number); });
      EXPECT_EQ(isKeys, wasKeys);
      EXPECT_EQ(keys, from.handler() == "vide" ? wasKeys.size() : 0u);
    }
    for (const std::string& path : {video, audio, again}) fs::remove(path);
  }
}

TEST(CliExtract, FromTheKeyFrameBeforeFromToTo) {
  if (!haveCorpus()) GTEST_SKIP() << "no corpus (needs ffmpeg)";
  // A key frame every 2 s at 25 frames a second; AAC at 44100 Hz.
  const std::string source = corpus("long_h264_aac.mp4"), out = scratch("cut.h264");
  Outcome done = cli({"--json", "extract", source, "--track", "video", "--from", "3.3", "--to",
                      "0:00:05", "-o", out, "-y"});
  ASSERT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(done.doc()["firstSample"], 51);
  EXPECT_EQ(done.doc()["samples"], 75);
  EXPECT_DOUBLE_EQ(done.doc()["from"].get<double>(), 2.0);
  const std::vector<std::string> all = decodedTrack(source, "v:0");
  EXPECT_EQ(decoded({"-i", out}, "v:0"),
            std::vector<std::string>(all.begin() + 50, all.begin() + 125));
  done = cli({"--json", "extract", source, "--track", "2", "--from", "3.3", "--to", "5", "-o", out, "-y"});
  ASSERT_EQ(done.status, 0) << done.err;
  const double from = done.doc()["from"], to = done.doc()["to"];
  EXPECT_LE(from, 3.3);
  EXPECT_GT(from, 3.3 - 1024.0 / 44100);
  EXPECT_GE(to, 5.0);
  EXPECT_LT(to, 5.0 + 2 * 1024.0 / 44100);
  done = cli({"extract", source, "--track", "video", "--from", "9.5", "-o", out, "-y"});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.out.rfind("wrote " + out + ": 50 samples of track 1 as h264 (8.000 s to 10.000 s)", 0), 0u)
      << done.out;
  fs::remove(out);
}

// A copy of h264_aac.mp4 whose AudioSpecificConfig (LC, 22050 Hz, mono,
// then an SBR extension saying there is none) starts with `config`.
std::string withAudioConfig(const Bytes& config, const std::string& name) {
  Bytes bytes = readFile(corpus("h264_aac.mp4"));
  const Bytes found = {0x05, 0x80, 0x80, 0x80, 0x05, 0x13, 0x88};
  const auto at = std::search(bytes.begin(), bytes.end(), found.begin(), found.end());
  EXPECT_NE(at, bytes.end());
  std::copy(config.begin(), config.end(), at + 5);
  const std::string path = scratch(name);
  FILE* file = std::fopen(path.c_str(), "wb");
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
  return path;
}

TEST(CliExtract, RefusesAndLeavesNoFile) {
  if (!haveCorpus()) GTEST_SKIP() << "no corpus (needs ffmpeg)";
  const std::string out = scratch("refused.aac");
  const std::string he = withAudioConfig({0x28, 0x00}, "he.mp4");
  const std::string explicitRate = withAudioConfig({0x17, 0x80}, "rate.mp4");
  const std::string short960 = withAudioConfig({0x13, 0x8C}, "960.mp4");
  const std::string video = corpus("hevc.mp4");
  struct Row {
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  const std::string adts = "track 2 (soun, mp4a): ADTS cannot carry this AAC: ";
  const std::vector<Row> rows = {
      {{"extract", he, "--track", "audio", "-o", out, "-y"}, 1,
       "mp4stbl: " + he + ": " + adts +
           "audio object type 5 (HE-AAC signalled explicitly); its header states types 1 to 4 "
           "only; no file was written\n"},
      {{"extract", explicitRate, "--track", "2", "-o", out, "-y"}, 1,
       "mp4stbl: " + explicitRate + ": " + adts +
           "an explicit sampling frequency (index 15); its header states a frequency index only; "
           "no file was written\n"},
      {{"extract", short960, "--track", "2", "-o", out, "-y"}, 1,
       "mp4stbl: " + short960 + ": " + adts +
           "frames of 960 samples; its decoders take 1024; no file was written\n"},
      {{"extract", video, "--track", "audio", "-o", out, "-y"}, 1,
       "mp4stbl: " + video + ": no readable audio track\n"},
      {{"extract", video, "--track", "7", "-o", out, "-y"}, 1,
       "mp4stbl: " + video + ": no track 7; the tracks are 1\n"},
      {{"extract", video, "--track", "subtitles", "-o", out, "-y"}, 2,
       "mp4stbl: --track: expects a track id, video or audio, not 'subtitles'\n"},
      {{"extract", video, "--track", "1", "--from", "20", "-o", out, "-y"}, 1,
       "mp4stbl: " + video + ": track 1 (vide, hvc1): --from 20.000 s lies past the end of the "
                             "track (0.400 s); no file was written\n"},
      {{"extract", he, "--track", "1", "-o", he}, 1,
       "mp4stbl: " + he + ": the output is the input file\n"},
      {{"extract", video, "--track", "1", "-o", scratch("none/out.265")}, 1,
       "mp4stbl: " + scratch("none/out.265") + ": "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.args[1] + " " + row.args[3]);
    const Outcome ran = cli(row.args);
    EXPECT_EQ(ran.status, row.status);
    EXPECT_EQ(ran.err.substr(0, row.err.size()), row.err);
    EXPECT_EQ(ran.out, "");
    EXPECT_FALSE(fs::exists(out));
  }
  EXPECT_TRUE(fs::exists(he));
  const Outcome json = cli({"--json", "extract", he, "--track", "2", "-o", out, "-y"});
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(json.doc()["file"], he);
  // Only the inputs are left: no temporary beside the refused output.
  EXPECT_EQ(kScratch.names(), (std::vector<std::string>{"960.mp4", "he.mp4", "rate.mp4", "stderr"}));
}

// A coding with no stream form is written as its bytes, and says so.
TEST(CliExtract, OtherCodingsRawWithANote) {
  if (!haveCorpus()) GTEST_SKIP() << "no corpus (needs ffmpeg)";
  const std::string source = corpus("vp9_opus.mp4"), out = scratch("vp9.raw");
  const Outcome done = cli({"--json", "extract", source, "--track", "video", "-o", out, "-y"});
  ASSERT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(done.doc()["format"], "raw");
  EXPECT_EQ(done.doc()["notes"],
            json::array({"track 1 (vp09) is written as its raw sample bytes, one after the other: "
                         "no elementary stream form is known for it, and a player may not read it"}));
  Mp4File file;
  ASSERT_TRUE(file.open(source).ok());
  const FoundTracks found = findTracks(file);
  const Track& track = found.tracks.front();
  Bytes all;
  for (uint32_t n = 1; n <= track.sampleCount(); ++n) {
    Result<std::vector<uint8_t>> sample = track.readSample(file.stream(), n);
    ASSERT_TRUE(sample.ok());
    all.insert(all.end(), sample->begin(), sample->end());
  }
  EXPECT_EQ(readFile(out), all);
  fs::remove(out);
}

// A file cut short gives the samples that are whole, and says where it ends.
TEST(CliExtract, CutShortKeepsTheWholeSamples) {
  if (!haveCorpus()) GTEST_SKIP() << "no corpus (needs ffmpeg)";
  const std::string out = scratch("cut.h264");
  const Outcome done = cli({"--json", "extract", corpus("cut_half.mp4"), "--track", "video", "-o", out, "-y"});
  ASSERT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(done.doc()["samples"], 11);
  EXPECT_EQ(done.doc()["notes"],
            json::array({"the file ends inside sample 12; it and the samples after it are left out"}));
  EXPECT_EQ(decoded({"-i", out}, "v:0").size(), 11u);
  fs::remove(out);
}

}  // namespace
