// The mp4stbl command run as a user runs it: its samples and summaries
// against ffprobe on every real file, seeking and verify on the shipped clip,
// exit codes and messages.
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
  std::string command = "'" + program + "'";
  for (const std::string& arg : args) command += " '" + arg + "'";  // no quotes in any arg
  Outcome result;
  FILE* pipe = popen((command + " 2>'" + errors + "'").c_str(), "r");
  if (pipe == nullptr) return result;
  char block[65536];
  for (size_t got; (got = std::fread(block, 1, sizeof block, pipe)) > 0;) {
    result.out.append(block, got);
  }
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.err = slurp(errors);
  std::remove(errors.c_str());
  return result;
}

Outcome cli(const std::vector<std::string>& args) { return run(MP4STBL_CLI, args); }

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

json samplesOf(const std::string& path, unsigned track) {
  const Outcome listed = cli({"samples", path, "--track", std::to_string(track), "--json"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  const json doc = listed.doc();
  return doc.is_discarded() ? json::array() : doc["samples"];
}

// Every sample of every track as ffprobe's packets, the track summaries as
// ffprobe's frame counts and summed packet durations, and an identical
// write-back. The G.711 files, whose stsz has no table, are refused.
void compareWithFfprobe(const std::string& path) {
  SCOPED_TRACE(path);
  static const std::set<std::string> refused = {"prores_apcs_alaw.mov", "prores_apco_ulaw.mov",
                                                "h264_ulaw.mov"};
  if (refused.count(fs::path(path).filename().string()) != 0) {
    const Outcome info = cli({"info", path});
    EXPECT_EQ(info.status, 1);
    EXPECT_NE(info.err.find("mp4stbl: " + path + ": cannot be read"), npos) << info.err;
    return;
  }
  const Outcome info = cli({"info", path, "--json"});
  ASSERT_EQ(info.status, 0) << info.err;
  const json tracks = info.doc()["tracks"];
  const Outcome probed =
      run("ffprobe", {"-v", "error", "-show_entries", "stream=index,id,nb_frames", "-of", "json",
                      path});
  ASSERT_EQ(probed.status, 0) << probed.err;
  const json streams = json::parse(probed.out)["streams"];
  ASSERT_EQ(tracks.size(), streams.size());
  for (size_t index = 0; index < tracks.size(); ++index) {
    const auto id = tracks[index]["id"].get<unsigned>();
    SCOPED_TRACE("track " + std::to_string(id));
    ASSERT_EQ(std::stoul(streams[index]["id"].get<std::string>(), nullptr, 16), id);
    const Outcome packetRun =
        run("ffprobe", {"-v", "error", "-select_streams", std::to_string(index), "-show_entries",
                        "packet=pos,size,flags,duration", "-of", "json", path});
    ASSERT_EQ(packetRun.status, 0) << packetRun.err;
    const json packets = json::parse(packetRun.out)["packets"];
    const json samples = samplesOf(path, id);
    ASSERT_EQ(samples.size(), packets.size());
    long long elapsed = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
      const json &ours = samples[i], &theirs = packets[i];
      SCOPED_TRACE("sample " + std::to_string(i + 1));
      ASSERT_EQ(ours["number"], i + 1);
      EXPECT_EQ(ours["offset"], number(theirs["pos"]));
      EXPECT_EQ(ours["size"], number(theirs["size"]));
      EXPECT_EQ(ours["sync"], theirs["flags"].get<std::string>().find('K') != npos);
      EXPECT_EQ(ours["duration"], number(theirs.value("duration", json(-1))));
      EXPECT_EQ(ours["decodeTime"], elapsed);
      elapsed += number(theirs.value("duration", json(0)));
    }
    EXPECT_EQ(tracks[index]["samples"], number(streams[index]["nb_frames"]));
    EXPECT_EQ(tracks[index]["duration"], elapsed);
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
  std::string bytes = slurp(std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4");
  const size_t at = bytes.find("stsd") + 11;
  ASSERT_EQ(bytes.substr(at - 3, 4), std::string("\0\0\0\1", 4));
  bytes[at] = 7;
  const std::string altered = scratch("altered.mp4");
  std::ofstream(altered, std::ios::binary) << bytes;
  const Outcome verified = cli({"verify", altered});
  EXPECT_EQ(verified.status, 1);
  EXPECT_EQ(verified.out, altered + ": differs when written back, first at offset " +
                              std::to_string(at) + ", in moov/trak/mdia/minf/stbl/stsd\n");
  std::remove(altered.c_str());
}

// Seeking in the shipped clip (video key frames 1, 5 and 9; samples 8 and 9
// share chunk 8): the key frame to decode from and the bytes to read.
TEST(CliSeek, FindsTheNextKeyFrameAndTheBytesToRead) {
  const std::string clip = std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4";
  const std::string through10 = " to play through sample 10\n";
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--sample", "1"}, "sample 1 -> key frame 1 at 0.000 s, chunk 1, offset 315\n"
                          "read bytes 315..13502 (13187 bytes)" + through10},
      {{"--sample", "2"}, "sample 2 -> key frame 5 at 0.160 s, chunk 5, offset 5731\n"
                          "read bytes 5731..13502 (7771 bytes)" + through10},
      {{"--time", "0.25"}, "sample 7 -> key frame 9 at 0.320 s, chunk 8, offset 10400\n"
                           "read bytes 9677..13502 (3825 bytes)" + through10},
  };
  for (const auto& [position, answer] : cases) {
    std::vector<std::string> args = {"seek", clip};
    args.insert(args.end(), position.begin(), position.end());
    const Outcome sought = cli(args);
    EXPECT_EQ(sought.status, 0) << sought.err;
    EXPECT_EQ(sought.out, "track 1: " + answer);
  }
  const Outcome none = cli({"seek", clip, "--sample", "10"});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err, "mp4stbl: " + clip + ": no key frame at or after sample 10\n");
  // A key frame that does not start its chunk: the bytes start with the chunk.
  const Outcome late = cli({"seek", clip, "--sample", "6", "--end-sample", "7", "--json"});
  EXPECT_EQ(late.doc(), json({{"file", clip}, {"track", 1}, {"requestedSample", 6},
                              {"keyFrame", 9}, {"keyFrameTime", 4096.0 / 12800}, {"chunk", 8},
                              {"offset", 10400}, {"chunkOffset", 9677}, {"chunkDistance", 0},
                              {"endSample", 9}, {"rangeStart", 9677}, {"rangeLength", 3193}}));
}

// Unreadable files and failed checks exit with 1 and a message naming the
// file; bad arguments exit with 2.
TEST(CliErrors, ExitCodesAndMessages) {
  const std::string good = std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4";
  const std::string missing = scratch("missing.mp4"), text = scratch("notes.txt");
  std::ofstream(text) << "these are not the boxes you are looking for\n";
  const struct { std::vector<std::string> args; int status; std::string err; } cases[] = {
      {{"info", missing}, 1, "mp4stbl: " + missing + ": cannot open the file\n"},
      {{"dump", text}, 1, "mp4stbl: " + text + ": not an MP4 file"},
      {{"seek", good, "--sample", "999"}, 1, "mp4stbl: " + good + ": no such sample\n"},
      {{"info", good, "--bogus"}, 2, "--bogus"},
  };
  for (const auto& c : cases) {
    const Outcome result = cli(c.args);
    EXPECT_EQ(result.status, c.status) << json(c.args).dump();
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(c.err), npos) << result.err;
  }
  std::remove(text.c_str());
}

}  // namespace
