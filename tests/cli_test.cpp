// The mp4stbl command run as a user runs it: its samples and summaries
// against ffprobe on every real file, seeking on a clip with many key
// frames, verify on intact and altered copies, exit codes and messages.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using nlohmann::json;
namespace fs = std::filesystem;
constexpr auto npos = std::string::npos;

namespace {

struct Outcome {
  int status = -1;
  std::string out, err;
  json doc() const { return json::parse(out, nullptr, false); }
};

std::string quote(const std::string& arg) {
  std::string quoted = "'";
  for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string scratch(const std::string& name) {
  return ::testing::TempDir() + "mp4stbl_cli_" + std::to_string(getpid()) + "_" + name;
}

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs `program args...`, stdout through a pipe, stderr through a file.
Outcome run(const std::string& program, const std::vector<std::string>& args) {
  const std::string errors = scratch("stderr");
  std::string command = quote(program);
  for (const std::string& arg : args) command += " " + quote(arg);
  Outcome result;
  FILE* pipe = popen((command + " 2>" + quote(errors)).c_str(), "r");
  if (pipe == nullptr) return result;
  char block[65536];
  for (size_t got; (got = std::fread(block, 1, sizeof block, pipe)) > 0;)
    result.out.append(block, got);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.err = slurp(errors);
  std::remove(errors.c_str());
  return result;
}

std::vector<std::string> words(const std::string& line) {
  std::istringstream in(line);
  return std::vector<std::string>(std::istream_iterator<std::string>(in), {});
}

Outcome cli(const std::vector<std::string>& args) { return run(MP4STBL_CLI, args); }
Outcome ffprobe(const std::vector<std::string>& args) { return run("ffprobe", args); }

// ffprobe writes most numbers as strings.
long long number(const json& value) {
  return value.is_string() ? std::stoll(value.get<std::string>()) : value.get<long long>();
}

std::vector<std::string> mediaFiles(const std::string& dir) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(dir, error)) {
    const std::string ext = entry.path().extension().string();
    if (entry.is_regular_file() && (ext == ".mp4" || ext == ".mov")) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// G.711 files whose sample size table has a default size and no table: the
// library refuses them whole (see file_test.cpp).
const std::set<std::string> kRefused = {"prores_apcs_alaw.mov", "prores_apco_ulaw.mov",
                                        "h264_ulaw.mov"};

json samplesOf(const std::string& path, unsigned track) {
  const Outcome listed = cli({"samples", path, "--track", std::to_string(track), "--json"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  const json doc = listed.doc();
  EXPECT_FALSE(doc.is_discarded()) << listed.out;
  return doc.is_discarded() ? json::array() : doc["samples"];
}

// Every sample of every track as ffprobe's packets, the track summaries as
// ffprobe's frame counts and summed packet durations, and an identical
// write-back.
void compareWithFfprobe(const std::string& path) {
  SCOPED_TRACE(path);
  if (kRefused.count(fs::path(path).filename().string()) != 0) {
    for (const char* command : {"info", "verify"}) {
      const Outcome refused = cli({command, path});
      EXPECT_EQ(refused.status, 1) << command;
      EXPECT_NE(refused.err.find("mp4stbl: " + path + ": cannot be read"), npos) << refused.err;
    }
    return;
  }
  const Outcome info = cli({"info", path, "--json"});
  ASSERT_EQ(info.status, 0) << info.err;
  const json tracks = info.doc()["tracks"];
  const Outcome probed =
      ffprobe({"-v", "error", "-show_entries", "stream=index,id,nb_frames", "-of", "json", path});
  ASSERT_EQ(probed.status, 0) << probed.err;
  const json streams = json::parse(probed.out)["streams"];
  ASSERT_EQ(tracks.size(), streams.size());
  for (size_t index = 0; index < tracks.size(); ++index) {
    const json& track = tracks[index];
    const auto id = track["id"].get<unsigned>();
    SCOPED_TRACE("track " + std::to_string(id));
    ASSERT_EQ(std::stoul(streams[index]["id"].get<std::string>(), nullptr, 16), id);
    const Outcome packetRun =
        ffprobe({"-v", "error", "-select_streams", std::to_string(index), "-show_entries",
                 "packet=pos,size,flags,duration", "-of", "json", path});
    ASSERT_EQ(packetRun.status, 0) << packetRun.err;
    const json packets = json::parse(packetRun.out)["packets"];
    const json samples = samplesOf(path, id);
    ASSERT_EQ(samples.size(), packets.size());
    long long elapsed = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
      const json& ours = samples[i];
      const json& theirs = packets[i];
      SCOPED_TRACE("sample " + std::to_string(i + 1));
      ASSERT_EQ(ours["number"], i + 1);
      EXPECT_EQ(ours["offset"], number(theirs["pos"]));
      EXPECT_EQ(ours["size"], number(theirs["size"]));
      EXPECT_EQ(ours["sync"], theirs["flags"].get<std::string>().find('K') != npos);
      EXPECT_EQ(ours["duration"], number(theirs.value("duration", json(-1))));
      EXPECT_EQ(ours["decodeTime"], elapsed);
      elapsed += number(theirs.value("duration", json(0)));
    }
    EXPECT_EQ(track["samples"], number(streams[index]["nb_frames"]));
    EXPECT_EQ(track["duration"], elapsed);
  }
  const Outcome verified = cli({"verify", path, "--json"});
  EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
  EXPECT_EQ(verified.doc().value("identical", false), true);
}

TEST(CliAgainstFfprobe, CommittedFiles) {
  const std::vector<std::string> files = mediaFiles(MP4STBL_TEST_DATA);
  ASSERT_GE(files.size(), 4u);
  for (const std::string& path : files) compareWithFfprobe(path);
}

TEST(CliAgainstFfprobe, WideCorpus) {
  const std::vector<std::string> files = mediaFiles(MP4STBL_CORPUS_DIR);
  if (files.empty()) GTEST_SKIP() << "no corpus in " << MP4STBL_CORPUS_DIR << " (needs ffmpeg)";
  for (const std::string& path : files) compareWithFfprobe(path);
}

// The written stsd count is the number of entries held, so a stored count of
// 7 over one entry comes back as 1: verify names its low byte and the box.
TEST(CliVerify, NamesTheFirstDifferenceAndItsBox) {
  const std::string kStsd = "moov/trak/mdia/minf/stbl/stsd";
  for (const char* name : {"h264_aac.mp4", "prores_apch_aac.mov"}) {
    const std::string original = slurp(std::string(MP4STBL_TEST_DATA) + "/" + name);
    std::vector<size_t> stsds;  // one per track
    for (size_t at = original.find("stsd"); at != npos; at = original.find("stsd", at + 1)) {
      stsds.push_back(at - 4);
    }
    ASSERT_EQ(stsds.size(), 2u) << name;
    for (size_t stsd : stsds) {
      SCOPED_TRACE(std::string(name) + " stsd at " + std::to_string(stsd));
      std::string bytes = original;
      ASSERT_EQ(bytes.substr(stsd + 12, 4), std::string("\0\0\0\1", 4));
      bytes[stsd + 15] = 7;
      const std::string altered = scratch(name);
      std::ofstream(altered, std::ios::binary) << bytes;
      const uint64_t at = stsd + 15;
      const Outcome text = cli({"verify", altered}), asJson = cli({"verify", altered, "--json"});
      EXPECT_EQ(text.status, 1);
      EXPECT_EQ(text.out, altered + ": differs when written back, first at offset " +
                              std::to_string(at) + ", in " + kStsd + "\n");
      EXPECT_EQ(asJson.status, 1);
      EXPECT_EQ(asJson.doc(), json({{"file", altered},
                                    {"identical", false},
                                    {"bytes", bytes.size()},
                                    {"firstDifference", at},
                                    {"box", kStsd}}));
      std::remove(altered.c_str());
    }
  }
}

// A clip with a key frame every 5 video frames and interleaved audio, so
// chunks hold several samples.
class CliSeek : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    clip_ = scratch("g5.mp4");
    std::vector<std::string> args = words(
        "-nostdin -v error -y -f lavfi -i testsrc2=size=64x48:rate=25:duration=2 -f lavfi -i "
        "sine=sample_rate=8000:duration=2 -map 0:v -map 1:a -c:v libx264 -preset ultrafast "
        "-threads 1 -g 5 -c:a aac -b:a 16k");
    args.push_back(clip_);
    const Outcome made = run("ffmpeg", args);
    ASSERT_EQ(made.status, 0) << made.err;
  }
  static void TearDownTestSuite() { std::remove(clip_.c_str()); }

  // Checks `seek` with `position` on track `track` (samples listed by
  // `samples`, timescale `scale`): the first key frame at or after `asked`,
  // and the bytes through `last` (0: the end).
  static void expectSeek(unsigned track, const json& samples, double scale,
                         std::vector<std::string> position, unsigned asked, unsigned last = 0) {
    SCOPED_TRACE("track " + std::to_string(track) + " " + position[0] + " " + position[1]);
    std::vector<std::string> args = {"seek", clip_, "--track", std::to_string(track), "--json"};
    args.insert(args.end(), position.begin(), position.end());
    if (last != 0) args.insert(args.end(), {"--end-sample", std::to_string(last)});
    const Outcome sought = cli(args);
    auto key = std::find_if(samples.begin() + (asked - 1), samples.end(),
                            [](const json& s) { return s["sync"].get<bool>(); });
    if (key == samples.end()) {
      EXPECT_EQ(sought.status, 1);
      EXPECT_EQ(sought.err, "mp4stbl: " + clip_ + ": no key frame at or after sample " +
                                std::to_string(asked) + "\n");
      return;
    }
    ASSERT_EQ(sought.status, 0) << sought.err;
    auto chunkStart = [&](const json& sample) {
      return std::find_if(samples.begin(), samples.end(),
                          [&](const json& s) { return s["chunk"] == sample["chunk"]; })
          ->at("offset")
          .get<uint64_t>();
    };
    const size_t through = last == 0 ? samples.size() : last;
    const json& end = samples[std::max(through, (*key)["number"].get<size_t>()) - 1];
    const json doc = sought.doc();
    EXPECT_EQ(doc["requestedSample"], asked);
    EXPECT_EQ(doc["keyFrame"], (*key)["number"]);
    EXPECT_EQ(doc["chunk"], (*key)["chunk"]);
    EXPECT_EQ(doc["offset"], (*key)["offset"]);
    EXPECT_DOUBLE_EQ(doc["keyFrameTime"].get<double>(), (*key)["decodeTime"].get<double>() / scale);
    EXPECT_EQ(doc["chunkOffset"], chunkStart(*key));
    EXPECT_EQ(doc["rangeStart"], chunkStart(*key));
    EXPECT_EQ(doc["chunkDistance"], chunkStart(end) - chunkStart(*key));
    EXPECT_EQ(doc["endSample"], end["number"]);
    EXPECT_EQ(doc["rangeLength"],
              end["offset"].get<uint64_t>() + end["size"].get<uint64_t>() - chunkStart(*key));
  }

  static std::string clip_;
};
std::string CliSeek::clip_;

TEST_F(CliSeek, EverySampleAndTimeFindsTheNextKeyFrame) {
  const json tracks = cli({"info", clip_, "--json"}).doc()["tracks"];
  ASSERT_EQ(tracks.size(), 2u);
  const double scale = tracks[0]["timescale"];
  const json video = samplesOf(clip_, 1);
  ASSERT_EQ(video.size(), 50u);
  ASSERT_GE(std::count_if(video.begin(), video.end(), [](const json& s) { return s["sync"]; }), 5);
  ASSERT_NE(video[0]["chunk"], video[49]["chunk"]) << "the video lies in several chunks";
  for (unsigned n = 1; n <= video.size(); ++n) {
    expectSeek(1, video, scale, {"--sample", std::to_string(n)}, n);
    // At a sample's start, and half way through it.
    const auto start = video[n - 1]["decodeTime"].get<double>();
    const auto duration = video[n - 1]["duration"].get<double>();
    for (double t : {start, start + duration / 2}) {
      expectSeek(1, video, scale, {"--time", std::to_string(t / scale)}, n);
    }
  }
  expectSeek(1, video, scale, {"--time", "1000"}, 50);  // past the end: the last sample
  for (unsigned n : {1u, 3u, 14u, 30u}) {
    expectSeek(1, video, scale, {"--sample", std::to_string(n)}, n, n + 4);
  }
  expectSeek(1, video, scale, {"--sample", "9"}, 9, 2);  // an end before the key frame

  // Every audio sample is a key frame.
  const json audio = samplesOf(clip_, 2);
  ASSERT_GE(audio.size(), 10u);
  for (unsigned n = 1; n <= audio.size(); ++n) {
    expectSeek(2, audio, tracks[1]["timescale"], {"--sample", std::to_string(n)}, n, n);
  }
  // Without --track: the first video track.
  EXPECT_EQ(cli({"seek", clip_, "--sample", "2", "--json"}).doc()["track"], 1);
}

// Files that cannot be read fail every command with 1 and a message naming
// the file; bad arguments fail with 2 before any file is opened.
TEST(CliErrors, ExitCodesAndMessages) {
  const std::string good = std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4";
  const std::string bytes = slurp(good);
  const size_t moov = bytes.find("moov") - 4;
  const std::string text = scratch("notes.txt"), cutMdat = scratch("cut_mdat.mp4"),
                    cutMoov = scratch("cut_moov.mp4");
  std::ofstream(text) << "these are not the boxes you are looking for\n";
  std::ofstream(cutMdat, std::ios::binary) << bytes.substr(0, moov / 2);
  std::ofstream(cutMoov, std::ios::binary) << bytes.substr(0, moov + (bytes.size() - moov) / 2);
  const struct {
    std::string path, message;
  } unreadable[] = {
      {scratch("missing.mp4"), "cannot open the file"},
      {text, "not an MP4 file"},
      {cutMdat, "cannot be read (box mdat at offset 40 claims"},
      {cutMoov, "cannot be read (box moov at offset " + std::to_string(moov) + " claims"},
  };
  const std::vector<std::vector<std::string>> commands = {
      {"info"}, {"dump"}, {"verify"}, {"samples", "--track", "1"}, {"seek", "--sample", "1"}};
  for (const auto& file : unreadable) {
    for (std::vector<std::string> args : commands) {
      args.insert(args.begin() + 1, file.path);
      SCOPED_TRACE(args[0] + " " + file.path);
      const Outcome failed = cli(args);
      EXPECT_EQ(failed.status, 1);
      EXPECT_EQ(failed.out, "");
      EXPECT_EQ(failed.err.rfind("mp4stbl: " + file.path + ": " + file.message, 0), 0u)
          << failed.err;
    }
  }

  const struct {
    std::vector<std::string> args;
    int status;
    std::string out, err;
  } cases[] = {
      {{"info", good, "--bogus"}, 2, "", "--bogus"},
      {{"dump", good, "--entries", "0"}, 2, "", "--entries"},
      {{"dump", good, "--entries", "some"}, 2, "", "--entries"},
      {{"samples", good}, 2, "", "--track is required"},
      {{"samples", good, "--track", "0"}, 2, "", "--track"},
      {{"seek", good, "--track", "1"}, 2, "", "--time,--sample"},
      {{"seek", good, "--sample", "1", "--time", "0"}, 2, "", "--time,--sample"},
      {{"info"}, 2, "", "FILE is required"},
      {{"frobnicate", good}, 2, "", ""},
      {{}, 2, "", "A subcommand is required"},
      {{"samples", good, "--track", "9"}, 1, "", "mp4stbl: " + good + ": no track 9\n"},
      {{"seek", good, "--sample", "999"}, 1, "", "mp4stbl: " + good + ": no such sample\n"},
      {{"--version"}, 0, "mp4stbl " MP4STBL_VERSION "\n", ""},
      {{"--help"}, 0, "verify", ""},
      {{"seek", "--help"}, 0, "--end-sample", ""},
  };
  for (const auto& c : cases) {
    const Outcome result = cli(c.args);
    SCOPED_TRACE(json(c.args).dump());
    EXPECT_EQ(result.status, c.status) << result.err;
    // Output only on success, messages only on failure.
    EXPECT_TRUE(c.out.empty() ? result.out.empty() : result.out.find(c.out) != npos) << result.out;
    EXPECT_TRUE(c.status == 0 ? result.err.empty() : result.err.find(c.err) != npos) << result.err;
  }
  for (const std::string& path : {text, cutMdat, cutMoov}) std::remove(path.c_str());
}

}  // namespace
