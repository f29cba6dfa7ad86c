// mp4stbl record as a user runs it: elementary streams made by ffmpeg (and
// the x264 program) recorded in every layout and checked by the players:
// ffmpeg decodes them to the streams' own pictures and sound, with the
// packets of ffmpeg's own stream copy; GStreamer and mp4box.js read them.
// Recordings fed through pipes are killed at random moments and cut at
// random lengths, as a crash or a power loss leaves them, and still play up
// to their last whole fragment.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <thread>

#include "support/process.h"
#include "support/test.h"

using nlohmann::json;
using Clock = std::chrono::steady_clock;

namespace {

const ScratchDir kScratch("mp4stbl_record_");
std::string scratch(const std::string& name) { return kScratch / name; }

// Runs `program args...`, stdout through a pipe, stderr through a file.
Outcome run(const std::string& program, const std::vector<std::string>& args,
            const std::string& input = "") {
  return shellIn(commandLine(program, args, input), scratch("stderr"));
}

Outcome cli(const std::vector<std::string>& args, const std::string& input = "") {
  return run(MP4STBL_CLI, args, input);
}

long long number(const json& value) {
  return value.is_string() ? std::stoll(value.get<std::string>()) : value.get<long long>();
}

std::string ffmpeg(std::vector<std::string> args) {
  args.insert(args.begin(), {"-nostdin", "-v", "error", "-y"});
  return run("ffmpeg", args).err;
}

// The elementary streams, made once: H.264 with and without B-frames (and
// from the x264 program when it is installed), HEVC, AAC and G.711.
struct Streams {
  std::string h264, h264b, x264, hevc, aac, alaw, ulaw;
};

const Streams& streams() {
  static const Streams made = [] {
    Streams s{scratch("plain.264"), scratch("bframes.264"), "", scratch("v.hevc"),
              scratch("a.aac"), scratch("a.alaw"), scratch("a.ulaw")};
    const std::vector<std::string> pal = {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=3"};
    auto video = [&](std::vector<std::string> source, std::vector<std::string> codec,
                     const std::string& format, const std::string& out) {
      source.insert(source.end(), codec.begin(), codec.end());
      source.insert(source.end(), {"-f", format, out});
      EXPECT_EQ(ffmpeg(source), "") << out;
    };
    video(pal, {"-c:v", "libx264", "-preset", "veryfast", "-threads", "1", "-bf", "0", "-g", "25"},
          "h264", s.h264);
    video({"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=30000/1001:duration=2"},
          {"-c:v", "libx264", "-preset", "veryfast", "-threads", "1", "-bf", "3", "-g", "30"}, "h264",
          s.h264b);
    video(pal, {"-c:v", "libx265", "-preset", "ultrafast", "-x265-params",
                "log-level=error:pools=none:frame-threads=1:bframes=2"},
          "hevc", s.hevc);
    video({"-f", "lavfi", "-i", "sine=sample_rate=48000:duration=3"}, {"-c:a", "aac", "-b:a", "32k"},
          "adts", s.aac);
    // Not a whole number of 20 ms pieces.
    const std::vector<std::string> tone = {"-f", "lavfi", "-i",
                                           "sine=frequency=440:sample_rate=8000:duration=2.99375"};
    video(tone, {}, "alaw", s.alaw);
    video(tone, {}, "mulaw", s.ulaw);
    if (run("sh", {"-c", "command -v x264"}).status == 0) {
      const std::string y4m = scratch("src.y4m");
      video({"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=24:duration=2"}, {}, "yuv4mpegpipe", y4m);
      s.x264 = scratch("x264.264");
      const Outcome made = run("x264", {"--quiet", "--threads", "1", "--bframes", "3",
                                        "--keyint", "24", "-o", s.x264, y4m});
      EXPECT_EQ(made.status, 0) << made.err;
    }
    return s;
  }();
  return made;
}

struct Packet {
  long long pts, dts, size;
  bool key;
};

// Each stream's packets as ffprobe lists them, in file order per stream.
std::vector<std::vector<Packet>> packetsOf(const std::string& path) {
  const Outcome probed = run("ffprobe", {"-v", "error", "-show_entries",
                                         "packet=stream_index,pts,dts,size,flags", "-of", "json", path});
  EXPECT_EQ(probed.err, "") << path;
  std::vector<std::vector<Packet>> streams;
  for (const json& packet : probed.doc().value("packets", json::array())) {
    const size_t index = packet["stream_index"];
    if (streams.size() <= index) streams.resize(index + 1);
    streams[index].push_back({number(packet.value("pts", json(-1))), number(packet.value("dts", json(-1))),
                              number(packet["size"]),
                              packet["flags"].get<std::string>().find('K') != std::string::npos});
  }
  return streams;
}

// The decoded pictures of the first video stream (md5 and time in seconds),
// and the md5 of all the decoded sound of the first audio stream.
struct Decoded {
  std::vector<std::string> pictures;
  std::vector<double> times;
  std::string sound;
};

Decoded decode(const std::vector<std::string>& input, bool video, bool audio) {
  Decoded decoded;
  if (video) {
    std::vector<std::string> args = {"-v", "error"};
    args.insert(args.end(), input.begin(), input.end());
    args.insert(args.end(), {"-map", "0:v:0", "-f", "framemd5", "-"});
    const Outcome md5 = run("ffmpeg", args);
    EXPECT_EQ(md5.err, "");
    std::istringstream lines(md5.out);
    double tick = 0;
    for (std::string line; std::getline(lines, line);) {
      unsigned num = 0, den = 1;
      if (std::sscanf(line.c_str(), "#tb 0: %u/%u", &num, &den) == 2) tick = double(num) / den;
      if (line.empty() || line[0] == '#') continue;
      long long pts = 0;
      if (std::sscanf(line.c_str(), "%*d, %*d, %lld", &pts) == 1) decoded.times.push_back(pts * tick);
      decoded.pictures.push_back(line.substr(line.rfind(',') + 1));
    }
  }
  if (audio) {
    std::vector<std::string> args = {"-v", "error"};
    args.insert(args.end(), input.begin(), input.end());
    args.insert(args.end(), {"-map", "0:a:0", "-f", "md5", "-"});
    const Outcome md5 = run("ffmpeg", args);
    EXPECT_EQ(md5.err, "");
    decoded.sound = md5.out;
  }
  return decoded;
}

// An elementary stream as ffmpeg's input: G.711 says its rate.
std::vector<std::string> asInput(const std::string& path) {
  if (path.size() > 5 && path.compare(path.size() - 5, 5, ".alaw") == 0) {
    return {"-f", "alaw", "-ar", "8000", "-ac", "1", "-i", path};
  }
  if (path.size() > 5 && path.compare(path.size() - 5, 5, ".ulaw") == 0) {
    return {"-f", "mulaw", "-ar", "8000", "-ac", "1", "-i", path};
  }
  return {"-i", path};
}

const std::string kMp4box = std::string(MP4STBL_MP4BOX_DIR) + "/node_modules/mp4box/dist/mp4box.all.mjs";

// GStreamer's pictures of the first video stream of a file, or of an
// elementary stream, one checksum a frame.
std::vector<std::string> gstreamerFrames(const std::string& path, bool elementary = false) {
  std::vector<std::string> pipeline = {"-q", "filesrc", "location=" + path, "!", "qtdemux", "!",
                                       "decodebin", "!", "checksumsink"};
  if (elementary) pipeline.erase(pipeline.begin() + 3, pipeline.begin() + 5);
  pipeline.insert(pipeline.begin(), {"60", "gst-launch-1.0"});
  const Outcome decoded = run("timeout", pipeline);
  EXPECT_EQ(decoded.status, 0) << path << ": " << decoded.err;
  std::vector<std::string> sums;
  std::istringstream lines(decoded.out);
  for (std::string time, sum; lines >> time >> sum;) sums.push_back(sum);
  return sums;
}

// Every stream of a file played by GStreamer to the end, sound included.
bool gstreamerPlays(const std::string& path) {
  const Outcome played = run("timeout", {"60", "gst-launch-1.0", "-q", "playbin", "uri=file://" + path,
                                                "video-sink=fakesink", "audio-sink=fakesink"});
  EXPECT_EQ(played.status, 0) << path << ": " << played.err;
  return played.status == 0;
}

// A recording of the streams in one layout, as ffmpeg's stream copy of the
// same streams holds them: the same packets (sizes, key flags; ffmpeg gives
// raw H.264 no presentation times, so the pictures' times stand for them),
// the same decoded pictures, each shown one frame after the one before from
// 0, the same decoded sound starting at 0; a regular file (fast start with
// --moov-first) that writes back identical, that GStreamer decodes to the
// pictures it decodes from the elementary stream and that mp4box.js reads
// sample for sample.
struct Case {
  std::string video, audio, layout;
};

// The tracks' samples lie in the file by time: none comes more than a
// second (two chunks) after a sample that decodes later.
void expectInterleaved(const std::string& path, const json& tracks) {
  std::vector<std::pair<long long, double>> placed;
  for (const json& track : tracks) {
    const json rows = cli({"samples", path, "--track", std::to_string(track["id"].get<int>()), "--json"})
                          .doc()["samples"];
    for (const json& row : rows) {
      placed.emplace_back(row["offset"].get<long long>(),
                          row["decodeTime"].get<double>() / track["timescale"].get<double>());
    }
  }
  std::sort(placed.begin(), placed.end());
  double latest = 0;
  for (const auto& [offset, at] : placed) {
    EXPECT_GE(at, latest - 1.0) << "sample at offset " << offset;
    latest = std::max(latest, at);
  }
}

void checkRecording(const Case& c) {
  const bool g711 = c.audio.find(".alaw") != std::string::npos || c.audio.find(".ulaw") != std::string::npos;
  SCOPED_TRACE(c.video + " " + c.audio + " " + c.layout);
  // ffmpeg writes G.711 into QuickTime files only.
  const std::string out = scratch("rec.mp4"), ref = scratch("ref.mov");
  std::vector<std::string> args = {"record", "-y", "-o", out, "--json"};
  if (!c.video.empty()) args.insert(args.end(), {"--video", c.video});
  if (!c.audio.empty()) {
    const std::string option = g711 ? (c.audio.find(".alaw") != std::string::npos ? "--alaw" : "--ulaw")
                                    : "--audio";
    args.insert(args.end(), {option, c.audio});
  }
  if (!c.layout.empty()) args.push_back(c.layout);
  const Outcome recorded = cli(args);
  ASSERT_EQ(recorded.status, 0) << recorded.err << recorded.out;
  const json summary = recorded.doc();
  EXPECT_EQ(summary["output"], out);
  EXPECT_EQ(summary["interrupted"], false);
  EXPECT_EQ(summary["layout"], c.layout.empty() ? "hybrid" : c.layout.substr(2));

  const json info = cli({"info", out, "--json"}).doc();
  EXPECT_EQ(info["fragmented"], false);
  EXPECT_EQ(info["fastStart"], c.layout == "--moov-first");
  EXPECT_EQ(info["unreadable"], json::array());
  ASSERT_EQ(info["tracks"].size(), summary["tracks"].size());
  for (size_t t = 0; t < summary["tracks"].size(); ++t) {
    EXPECT_EQ(info["tracks"][t]["samples"], summary["tracks"][t]["samples"]);
  }
  EXPECT_EQ(summary["bytes"], fs::file_size(out));
  const Outcome verified = cli({"verify", out});
  EXPECT_EQ(verified.status, 0);
  EXPECT_NE(verified.out.find("identical"), std::string::npos) << verified.out;
  EXPECT_EQ(run("ffmpeg", {"-v", "error", "-i", out, "-f", "null", "-"}).err, "");

  std::vector<std::string> sources, copy = {"-fflags", "+genpts"};
  for (const std::string& path : {c.video, c.audio}) {
    if (path.empty()) continue;
    const std::vector<std::string> input = asInput(path);
    sources.insert(sources.end(), input.begin(), input.end());
  }
  copy.insert(copy.end(), sources.begin(), sources.end());
  copy.insert(copy.end(), {"-c", "copy", ref});
  ASSERT_EQ(ffmpeg(copy), "");
  const auto ours = packetsOf(out), theirs = packetsOf(ref);
  ASSERT_EQ(ours.size(), theirs.size());
  for (size_t s = 0; s < ours.size(); ++s) {
    if (g711 && s + 1 == ours.size()) continue;  // ffmpeg packs G.711 its own way
    SCOPED_TRACE("stream " + std::to_string(s));
    ASSERT_EQ(ours[s].size(), theirs[s].size());
    // ffmpeg's HEVC parser leaves the first zero of the next 4-byte start
    // code at the end of an access unit.
    const bool hevc = s == 0 && c.video.find(".hevc") != std::string::npos;
    for (size_t i = 0; i < ours[s].size(); ++i) {
      const long long trailing = hevc && i + 1 < ours[s].size() ? 1 : 0;
      EXPECT_EQ(ours[s][i].size + trailing, theirs[s][i].size) << i;
      EXPECT_EQ(ours[s][i].key, theirs[s][i].key) << i;
    }
  }

  const bool video = !c.video.empty(), audio = !c.audio.empty();
  const Decoded got = decode({"-i", out}, video, audio);
  const Decoded wanted = decode(asInput(c.video.empty() ? c.audio : c.video), video, false);
  EXPECT_EQ(got.pictures, wanted.pictures);
  double frame = 0;
  for (size_t i = 1; i < got.times.size(); ++i) {
    if (i == 1) frame = got.times[1] - got.times[0];
    EXPECT_NEAR(got.times[i] - got.times[i - 1], frame, 1e-6) << "picture " << i;
  }
  if (!got.times.empty()) {
    EXPECT_NEAR(got.times[0], 0, 1e-9);
  }
  if (audio) {
    EXPECT_EQ(got.sound, decode(asInput(c.audio), false, true).sound);
  }
  const json starts = json::parse(
      run("ffprobe", {"-v", "error", "-show_entries", "stream=start_time", "-of", "json", out}).out);
  for (const json& stream : starts["streams"]) {
    EXPECT_NEAR(std::stod(stream["start_time"].get<std::string>()), 0, 1e-6);
  }
  expectInterleaved(out, info["tracks"]);

  if (video) {
    EXPECT_EQ(gstreamerFrames(out), gstreamerFrames(c.video, true));
  }
  gstreamerPlays(out);
  if (!fs::exists(kMp4box)) return;
  const Outcome read = run("node", {MP4STBL_MP4BOX_SCRIPT, kMp4box, out});
  ASSERT_EQ(read.status, 0) << read.err;
  const json tracks = read.doc()["tracks"];
  ASSERT_EQ(tracks.size(), info["tracks"].size());
  for (size_t t = 0; t < tracks.size(); ++t) {
    EXPECT_EQ(tracks[t]["samples"].size(), info["tracks"][t]["samples"].get<size_t>());
  }
}

TEST(CliRecord, RecordsWhatFfmpegMuxesInEveryLayout) {
  const Streams& s = streams();
  std::vector<Case> cases = {
      {s.h264, s.aac, ""},
      {s.h264b, s.aac, "--plain"},
      {s.h264b, s.aac, "--moov-first"},
      {s.hevc, s.aac, ""},
      {s.h264, s.alaw, "--moov-first"},
      {"", s.ulaw, "--plain"},
  };
  if (!s.x264.empty()) cases.push_back({s.x264, s.ulaw, ""});
  for (const Case& c : cases) checkRecording(c);
}

}  // namespace

namespace {

// Top-level boxes: type, offset and size (to the end of the bytes for a
// size of 0); the last may reach past the end.
struct Box {
  std::string type;
  uint64_t offset, size;
};

uint64_t be(const Bytes& bytes, uint64_t at, unsigned width) {
  uint64_t value = 0;
  for (unsigned i = 0; i < width; ++i) value = value << 8 | bytes[at + i];
  return value;
}

std::vector<Box> boxesIn(const Bytes& bytes, uint64_t from, uint64_t to) {
  std::vector<Box> boxes;
  for (uint64_t at = from; at + 8 <= to;) {
    uint64_t size = be(bytes, at, 4);
    if (size == 1 && at + 16 <= to) size = be(bytes, at + 8, 8);
    if (size == 0) size = to - at;
    if (size < 8) break;
    boxes.push_back({std::string(bytes.begin() + at + 4, bytes.begin() + at + 8), at, size});
    at += size;
  }
  return boxes;
}

// Samples per track ID in the fragments that are whole within `length`
// bytes: a moof and the mdat after it.
std::map<uint32_t, long long> wholeFragments(const Bytes& bytes, uint64_t length) {
  std::map<uint32_t, long long> samples;
  const std::vector<Box> boxes = boxesIn(bytes, 0, length);
  for (size_t i = 0; i + 1 < boxes.size(); ++i) {
    const Box& moof = boxes[i];
    if (moof.type != "moof" || boxes[i + 1].type != "mdat" ||
        boxes[i + 1].offset + boxes[i + 1].size > length) {
      continue;
    }
    for (const Box& traf : boxesIn(bytes, moof.offset + 8, moof.offset + moof.size)) {
      if (traf.type != "traf") continue;
      uint32_t track = 0;
      for (const Box& child : boxesIn(bytes, traf.offset + 8, traf.offset + traf.size)) {
        if (child.type == "tfhd") track = static_cast<uint32_t>(be(bytes, child.offset + 12, 4));
        if (child.type == "trun") samples[track] += static_cast<long long>(be(bytes, child.offset + 12, 4));
      }
    }
  }
  return samples;
}

// The packets ffprobe reads of each stream, and what it says opening the
// file (reading a fragment cut short, it says so: "partial file").
std::vector<long long> packetCounts(const std::string& path, std::string* errors) {
  const Outcome opened = run("ffprobe", {"-v", "error", "-show_streams", path});
  *errors = opened.err + (opened.status != 0 ? "exit " + std::to_string(opened.status) : "");
  const Outcome probed = run("ffprobe", {"-v", "quiet", "-count_packets", "-show_entries",
                                         "stream=nb_read_packets", "-of", "json", path});
  std::vector<long long> counts;
  for (const json& stream : probed.doc().value("streams", json::array())) {
    counts.push_back(number(stream.value("nb_read_packets", json(-1))));
  }
  return counts;
}

// Bytes as the disk held them: ffprobe opens them with every track (without
// a word of error when they end with a whole fragment; a fragment cut short
// has a cut sample, which it reports), `mp4stbl info` reads them, and each
// track plays at least the samples of its whole fragments; GStreamer too
// when asked. A fragment cut short was never named: its moof becomes one
// only after its mdat is written.
void checkCut(const Bytes& bytes, uint64_t length, bool gstreamer) {
  SCOPED_TRACE("cut at " + std::to_string(length) + " of " + std::to_string(bytes.size()));
  Bytes held(bytes.begin(), bytes.begin() + static_cast<long>(length));
  const std::vector<Box> boxes = boxesIn(bytes, 0, length);
  const size_t last = boxes.size() - 1;
  if (boxes[last].offset + boxes[last].size > length) {
    const bool inMdat = boxes[last].type == "mdat" && last > 0 && boxes[last - 1].type == "moof";
    const Box& cutShort = inMdat ? boxes[last - 1] : boxes[last];
    if (cutShort.type == "moof" && cutShort.offset + 8 <= length) {
      std::copy_n("free", 4, held.begin() + static_cast<long>(cutShort.offset + 4));
    }
  }
  const std::string path = scratch("cut.mp4");
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(held.data()), static_cast<std::streamsize>(length));
  }
  std::string errors;
  const std::vector<long long> counts = packetCounts(path, &errors);
  const std::map<uint32_t, long long> whole = wholeFragments(bytes, length);
  if (boxes[last].offset + boxes[last].size == length) {
    EXPECT_EQ(errors, "");
  }
  EXPECT_EQ(errors.find("exit"), std::string::npos) << errors;
  EXPECT_EQ(counts.size(), 2u);
  for (const auto& [track, samples] : whole) {
    ASSERT_LE(track, counts.size());
    EXPECT_GE(counts[track - 1], samples) << "track " << track;
  }
  EXPECT_EQ(cli({"info", path}).status, 0);
  // With no whole fragment there is nothing to play.
  if (gstreamer && whole.count(1) != 0) {
    EXPECT_GE(static_cast<long long>(gstreamerFrames(path).size()), whole.at(1));
  }
}

// A recording fed through pipes by this process as a live encoder feeds
// it: video on stdin and AAC on a named pipe, in pieces of 40 ms of media
// every 10 ms.
class LiveRecording {
 public:
  static constexpr double kFrame = 0.04, kSpeed = 4;

  explicit LiveRecording(const std::string& output) : output_(output) {
    video_ = readFile(streams().h264);
    audio_ = readFile(streams().aac);
    videoEnds_ = unitEnds(streams().h264);
    audioEnds_ = unitEnds(streams().aac);
    fifo_ = scratch("audio.fifo");
    fs::remove(fifo_);
    EXPECT_EQ(mkfifo(fifo_.c_str(), 0600), 0);
    int pipeEnds[2];
    EXPECT_EQ(pipe(pipeEnds), 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(pipeEnds[0], STDIN_FILENO);
      close(pipeEnds[0]);
      close(pipeEnds[1]);
      const int said = open(errors().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(said, STDOUT_FILENO);
      dup2(said, STDERR_FILENO);
      execl(MP4STBL_CLI, MP4STBL_CLI, "record", "-y", "-o", output.c_str(), "--video", "-", "--audio",
            fifo_.c_str(), "--fragment", "0.2", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(pipeEnds[0]);
    videoFd_ = pipeEnds[1];
    start_ = Clock::now();
    // The recorder opens the named pipe without waiting for a writer.
    while ((audioFd_ = open(fifo_.c_str(), O_WRONLY | O_NONBLOCK)) < 0 &&
           Clock::now() - start_ < std::chrono::seconds(10)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    fcntl(audioFd_, F_SETFL, 0);
  }

  ~LiveRecording() {
    end();
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }

  // Feeds the next 40 ms of media when its time has come; false once all
  // is fed.
  bool step() {
    if (fed_ >= videoEnds_.size()) return false;
    std::this_thread::sleep_until(start_ + std::chrono::microseconds(static_cast<long long>(
                                               fed_ * kFrame / kSpeed * 1e6)));
    ++fed_;
    const double media = fed_ * kFrame;
    writeUpTo(videoFd_, video_, videoEnds_, std::min(fed_, videoEnds_.size()), videoSent_);
    const size_t audioUnits = std::min(audioEnds_.size(), static_cast<size_t>(media / kAudioFrame));
    writeUpTo(audioFd_, audio_, audioEnds_, audioUnits, audioSent_);
    log_.push_back({Clock::now(), media});
    return true;
  }

  // Closes the pipes: the recording finishes.
  void end() {
    for (int* fd : {&videoFd_, &audioFd_}) {
      if (*fd >= 0) close(*fd);
      *fd = -1;
    }
  }

  int wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }

  void kill() {
    ::kill(pid_, SIGKILL);
    wait();
  }

  // Media seconds fed before `when`.
  double fedBefore(Clock::time_point when) const {
    double media = 0;
    for (const auto& [at, fed] : log_) {
      if (at <= when) media = fed;
    }
    return media;
  }

  Clock::time_point started() const { return start_; }
  // What the command printed.
  static std::string errors() { return scratch("live.txt"); }
  static constexpr double kAudioFrame = 1024.0 / 48000;

 private:
  // Where each packet of a stream ends, as ffprobe finds them.
  static std::vector<size_t> unitEnds(const std::string& path) {
    const Outcome probed = run("ffprobe", {"-v", "error", "-show_entries", "packet=pos,size", "-of",
                                           "json", path});
    std::vector<size_t> ends;
    const json packets = probed.doc()["packets"];
    for (const json& packet : packets) {
      ends.push_back(static_cast<size_t>(number(packet["pos"]) + number(packet["size"])));
    }
    if (!ends.empty()) ends.back() = fs::file_size(path);
    return ends;
  }

  static void writeUpTo(int fd, const Bytes& bytes, const std::vector<size_t>& ends, size_t units,
                        size_t& sent) {
    if (units == 0 || fd < 0) return;
    const size_t to = ends[units - 1];
    while (sent < to) {
      const ssize_t wrote = write(fd, bytes.data() + sent, to - sent);
      if (wrote <= 0) return;  // the recorder is gone
      sent += static_cast<size_t>(wrote);
    }
  }

  std::string output_, fifo_;
  Bytes video_, audio_;
  std::vector<size_t> videoEnds_, audioEnds_;
  size_t videoSent_ = 0, audioSent_ = 0, fed_ = 0;
  int videoFd_ = -1, audioFd_ = -1;
  pid_t pid_ = -1;
  Clock::time_point start_;
  std::vector<std::pair<Clock::time_point, double>> log_;
};

// A recording killed (SIGKILL) at random moments while a live encoder
// feeds it: each file left opens in ffprobe without error and in `mp4stbl
// info`, and holds every sample fed more than a fragment (0.2 s) and 0.2 s
// of wall time (the machine's scheduling) before the kill.
TEST(CliRecord, KilledWhileRecordingKeepsItsWholeFragments) {
  std::signal(SIGPIPE, SIG_IGN);
  std::mt19937 random(20261124);
  std::uniform_real_distribution<double> moment(0.05, 0.75);
  const std::string output = scratch("killed.mp4");
  for (int round = 0; round < 22; ++round) {
    fs::remove(output);
    const double after = moment(random);
    SCOPED_TRACE("killed after " + std::to_string(after) + " s");
    LiveRecording live(output);
    const auto killAt = live.started() + std::chrono::microseconds(static_cast<long long>(after * 1e6));
    while (Clock::now() < killAt && live.step()) {
    }
    std::this_thread::sleep_until(killAt);
    live.kill();
    const double kept = live.fedBefore(killAt - std::chrono::milliseconds(200)) - 0.2;
    // The Annex B reader knows a frame is whole when the next one starts.
    const long long frames = static_cast<long long>(kept / LiveRecording::kFrame) - 1;
    const long long audioFrames = static_cast<long long>(kept / LiveRecording::kAudioFrame) - 1;
    if (!fs::exists(output) || fs::file_size(output) == 0) {
      EXPECT_LE(frames, 0);
      continue;
    }
    std::string errors;
    const std::vector<long long> counts = packetCounts(output, &errors);
    ASSERT_EQ(errors, "");
    ASSERT_EQ(counts.size(), 2u);
    EXPECT_GE(counts[0], frames);
    EXPECT_GE(counts[1], audioFrames);
    EXPECT_EQ(cli({"info", output}).status, 0);
  }
}

// What the disk holds when the power goes: the recording's bytes copied at
// random moments while it is fed and cut at random lengths past its movie
// box, and the finished file's bytes as they were before finish() began
// (its fragments, the first 16 bytes of the free box and the fragmented
// moov put back), cut the same way and followed by part of the final moov.
// Every cut opens in ffprobe and `mp4stbl info` and plays its whole
// fragments, in GStreamer too; finishing moved no media byte.
TEST(CliRecord, CutAnywhereItPlaysUpToItsLastWholeFragment) {
  std::signal(SIGPIPE, SIG_IGN);
  std::mt19937 random(1124);
  const std::string output = scratch("cut_source.mp4");
  std::vector<Bytes> copies;
  {
    LiveRecording live(output);
    std::uniform_int_distribution<int> every(5, 12);
    for (int next = every(random), step = 0; live.step(); ++step) {
      if (step == next) {
        copies.push_back(readFile(output));
        next += every(random);
      }
    }
    live.end();
    EXPECT_EQ(live.wait(), 0) << slurp(LiveRecording::errors());
  }
  const Bytes finished = readFile(output);
  const std::vector<Box> top = boxesIn(finished, 0, finished.size());
  ASSERT_EQ(top.size(), 3u);
  ASSERT_EQ(top[1].type, "mdat");
  ASSERT_EQ(top[2].type, "moov");
  // The copy taken last, with its fragmented moov, is the finished file
  // but for the mdat header finish() wrote over the free box.
  const Bytes last = copies.back();
  const std::vector<Box> recording = boxesIn(last, 0, last.size());
  ASSERT_GE(recording.size(), 4u);
  ASSERT_EQ(recording[1].type, "free");
  ASSERT_EQ(recording[2].type, "moov");
  const uint64_t header = recording[1].offset, mediaStart = recording[2].offset + recording[2].size;
  // A copy taken before the recording began (a slow start) holds nothing.
  copies.erase(std::remove_if(copies.begin(), copies.end(),
                              [&](const Bytes& copy) { return copy.size() < mediaStart; }),
               copies.end());
  ASSERT_GE(copies.size(), 5u);
  Bytes before(finished.begin(), finished.begin() + static_cast<long>(top[2].offset));
  std::copy(last.begin() + static_cast<long>(header), last.begin() + static_cast<long>(header + 16),
            before.begin() + static_cast<long>(header));
  ASSERT_LE(last.size(), before.size());
  EXPECT_TRUE(std::equal(last.begin(), last.end(), before.begin()));
  const Bytes withMoov = concat({before, Bytes(finished.begin() + static_cast<long>(top[2].offset),
                                               finished.end())});

  int cuts = 0;
  auto cutAt = [&](const Bytes& bytes, uint64_t from, uint64_t to, int count) {
    std::uniform_int_distribution<uint64_t> length(from, to);
    for (int i = 0; i < count; ++i) checkCut(bytes, length(random), ++cuts % 8 == 0);
  };
  for (const Bytes& copy : copies) {
    ASSERT_GE(copy.size(), mediaStart);
    cutAt(copy, mediaStart, copy.size(), 90 / static_cast<int>(copies.size()));
    checkCut(copy, copy.size(), true);
  }
  for (const Box& box : boxesIn(before, 0, before.size())) {
    if (box.type == "mdat") checkCut(before, box.offset + box.size, false);
  }
  cutAt(before, mediaStart, before.size(), 20);
  cutAt(withMoov, before.size(), withMoov.size() - 1, 6);
  EXPECT_GE(cuts, 100);
}

}  // namespace

namespace {

// Usage errors (exit 2) and failures (exit 1) name the option or the input;
// a recording that never began leaves no file.
TEST(CliRecord, RefusesWhatItCannotRecord) {
  const Streams& s = streams();
  const std::string out = scratch("refused.mp4"), missing = scratch("none.264");
  struct Row {
    std::vector<std::string> args;
    int status;
    std::string err;  // how stderr starts
  };
  const std::vector<Row> rows = {
      {{"record", "-y", "-o", out}, 2, "mp4stbl: record: expects --video, --audio, --alaw or --ulaw\n"},
      {{"record", "-y", "-o", out, "--alaw", s.alaw, "--plain", "--moov-first"}, 2, "mp4stbl: --plain excludes --moov-first"},
      {{"record", "-y", "-o", out, "--alaw", s.alaw, "--fragment", "0"}, 2,
       "mp4stbl: --fragment: expects seconds from 0.01 to 3600, not '0'"},
      {{"record", "-y", "-o", out, "--alaw", s.alaw, "--chunk", "1e9"}, 2,
       "mp4stbl: --chunk: expects seconds from 0.01 to 3600, not '1e9'"},
      {{"record", "-y", "-o", out, "--video", s.h264, "--fps", "30/0"}, 2,
       "mp4stbl: --fps: expects frames a second as N or N/D (25, 30000/1001), at most 1000, not '30/0'"},
      {{"record", "-y", "-o", out, "--alaw", s.alaw, "--rate", "8"}, 2,
       "mp4stbl: --rate: expects a sample rate from 1000 to 192000, not '8'"},
      {{"record", "-y", "-o", out, "--alaw", "-", "--ulaw", "-"}, 2, "mp4stbl: record: only one input can be stdin (-)\n"},
      {{"record", "-y", "-o", out, "--video", missing}, 1, "mp4stbl: " + missing + ": cannot be opened: No such file or directory\n"},
      {{"record", "-y", "-o", out, "--video", s.alaw}, 1, "mp4stbl: " + s.alaw + ": "},
      {{"record", "-y", "-o", out, "--audio", s.ulaw}, 1, "mp4stbl: " + s.ulaw + ": "},
      {{"record", "-y", "-o", s.alaw, "--alaw", s.alaw}, 1, "mp4stbl: " + s.alaw + ": is one of the inputs\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.args.back());
    const Outcome ran = cli(row.args, "/dev/null");
    EXPECT_EQ(ran.status, row.status);
    EXPECT_EQ(ran.err.substr(0, row.err.size()), row.err);
    EXPECT_EQ(ran.out, "");
    EXPECT_FALSE(fs::exists(out));
  }
  EXPECT_EQ(readFile(s.alaw).size(), 23950u);
  const Outcome json = cli({"record", "-y", "-o", out, "--json", "--video", missing});
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(json.doc(), (nlohmann::json{{"error", "cannot be opened: No such file or directory"},
                                         {"file", missing},
                                         {"schema", 1}}));
}

// Records `bytes` fed slowly through stdin with `option` (`--alaw -`...),
// then sends `signal`; the command's output.
std::string recordUntil(int signal, const std::string& option, const Bytes& bytes,
                        const std::string& out) {
  const std::string log = scratch("signalled.txt");
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(ends[0], STDIN_FILENO);
    close(ends[1]);
    const int text = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(text, STDOUT_FILENO);
    execl(MP4STBL_CLI, MP4STBL_CLI, "record", "-y", "-o", out.c_str(), option.c_str(), "-",
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(ends[0]);
  for (size_t sent = 0; sent < bytes.size(); sent += 800) {  // 10 pieces in 0.5 s
    const size_t piece = std::min<size_t>(800, bytes.size() - sent);
    EXPECT_EQ(write(ends[1], bytes.data() + sent, piece), static_cast<ssize_t>(piece));
    std::this_thread::sleep_for(std::chrono::milliseconds(500 * piece / bytes.size()));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  // The file is made once the command listens for the signal (a slow
  // machine may get there late).
  for (int wait = 0; wait < 200 && !(fs::exists(out) && fs::file_size(out) > 0); ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  kill(pid, signal);
  int status = 0;
  waitpid(pid, &status, 0);
  close(ends[1]);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  return slurp(log);
}

// SIGINT and SIGTERM end a recording fed slowly through stdin: the file
// is finished (a regular file) with what came before the signal, and the
// command says so and exits 0. A video stream cut inside its last frame
// keeps every frame before it, B-frames held back for their order too.
TEST(CliRecord, SignalsFinishTheFile) {
  const Bytes tone = readFile(streams().alaw);
  for (const int signal : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(signal);
    const std::string out = scratch("signalled.mp4");
    const std::string text = recordUntil(signal, "--alaw", Bytes(tone.begin(), tone.begin() + 8000), out);
    EXPECT_EQ(text.rfind("wrote " + out + " (hybrid, 1.000 s, ", 0), 0u) << text;
    EXPECT_NE(text.find("track 1: audio alaw from -, 8000 samples, 1.000 s\n"), std::string::npos) << text;
    EXPECT_NE(text.find("note: interrupted"), std::string::npos) << text;
    const json info = cli({"info", out, "--json"}).doc();
    EXPECT_EQ(info["fragmented"], false);
    EXPECT_EQ(info["tracks"][0]["samples"], 8000);
    EXPECT_EQ(run("ffmpeg", {"-v", "error", "-i", out, "-f", "null", "-"}).err, "");
  }
  const std::string out = scratch("signalled_video.mp4");
  const Bytes video = readFile(streams().h264b);
  recordUntil(SIGINT, "--video", Bytes(video.begin(), video.end() - 10), out);
  const json info = cli({"info", out, "--json"}).doc();
  EXPECT_EQ(info["tracks"][0]["samples"], 59);  // of 60
  EXPECT_EQ(run("ffmpeg", {"-v", "error", "-i", out, "-f", "null", "-"}).err, "");
}

// A live producer writing two named pipes (ffmpeg: x264's look-ahead
// holds the video back while the sound runs on) is never held up: the
// recording ends with the producer, whole.
TEST(CliRecord, ReadsTwoPipesOfOneProducer) {
  const std::string video = scratch("live.fifo"), audio = scratch("live_audio.fifo"),
                    out = scratch("live.mp4");
  fs::remove(video);
  fs::remove(audio);
  ASSERT_EQ(mkfifo(video.c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(audio.c_str(), 0600), 0);
  // More sound than a pipe holds; the producer comes after the recorder
  // opened the pipes.
  const std::string producer =
      "(sleep 0.5; exec timeout 60 ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=320x240:rate=25:duration=6 "
      "-f lavfi -i sine=sample_rate=48000:duration=6 -map 0:v -c:v libx264 -preset veryfast "
      "-threads 1 -f h264 '" + video + "' -map 1:a -c:a aac -b:a 192k -f adts '" + audio + "') &";
  ASSERT_EQ(std::system(producer.c_str()), 0);
  const Outcome recorded = run("timeout", {"60", MP4STBL_CLI, "record", "-y", "-o", out, "--video", video,
                                           "--audio", audio, "--json"});
  ASSERT_EQ(recorded.status, 0) << recorded.err;
  const json tracks = recorded.doc()["tracks"];
  EXPECT_EQ(tracks[0]["samples"], 150);
  EXPECT_NEAR(tracks[1]["seconds"].get<double>(), 6, 0.05);
  EXPECT_EQ(run("ffmpeg", {"-v", "error", "-i", out, "-f", "null", "-"}).err, "");
}

}  // namespace

namespace {

// The frame rate comes from the stream's timing, else from --fps, which
// wins; the time scale counts whole frames, as ffmpeg's does.
TEST(CliRecord, FrameRateFromTheStreamOrFps) {
  const Streams& s = streams();
  const std::string out = scratch("timed.mp4");
  struct Row {
    std::string video, fps;
    int timescale;
    double seconds, frameRate;
  };
  for (const Row& row : std::vector<Row>{{s.h264, "", 12800, 3.0, 25},
                                         {s.h264b, "", 30000, 2.002, 30000.0 / 1001},
                                         {s.h264, "50", 12800, 1.5, 50},
                                         {s.h264, "24000/1001", 24000, 3.128125, 24000.0 / 1001}}) {
    SCOPED_TRACE(row.video + " " + row.fps);
    std::vector<std::string> args = {"record", "-y", "-o", out, "--video", row.video, "--json"};
    if (!row.fps.empty()) args.insert(args.end(), {"--fps", row.fps});
    const Outcome recorded = cli(args);
    ASSERT_EQ(recorded.status, 0) << recorded.err;
    EXPECT_NEAR(recorded.doc()["tracks"][0]["seconds"].get<double>(), row.seconds, 1e-9);
    const json track = cli({"info", out, "--json"}).doc()["tracks"][0];
    EXPECT_EQ(track["timescale"], row.timescale);
    EXPECT_NEAR(track["frameRate"].get<double>(), row.frameRate, 1e-9);
  }
}

}  // namespace

namespace {

// A stream of several megabytes, so that a file input is read in several
// windows that start inside a page.
const std::string& largeVideo() {
  static const std::string made = [] {
    const std::string path = scratch("large.264");
    EXPECT_EQ(ffmpeg({"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=8", "-vf",
                      "noise=alls=20:allf=t", "-c:v", "libx264", "-preset", "ultrafast", "-qp", "4",
                      "-g", "50", "-f", "h264", path}),
              "");
    return path;
  }();
  return made;
}

const std::string& largeAudio() {
  static const std::string made = [] {
    const std::string path = scratch("large.aac");
    EXPECT_EQ(ffmpeg({"-f", "lavfi", "-i", "sine=sample_rate=48000:duration=8", "-c:a", "aac", "-f",
                      "adts", path}),
              "");
    return path;
  }();
  return made;
}

// Files are mapped and pipes read: the same streams make the same bytes
// whichever way each input comes, and ffmpeg decodes them.
TEST(CliRecord, FilesAndPipesRecordTheSameBytes) {
  const std::string video = largeVideo(), audio = largeAudio();
  ASSERT_GT(fs::file_size(video), 3u << 20);
  const std::string command = std::string("'") + MP4STBL_CLI + "' record -y -q -o ";
  struct Way {
    std::string name, line;
  };
  const std::vector<Way> ways = {
      {"files", command + "'" + scratch("ways_files.mp4") + "' --video '" + video + "' --audio '" +
                    audio + "'"},
      {"video piped", "cat '" + video + "' | " + command + "'" + scratch("ways_video.mp4") +
                          "' --video - --audio '" + audio + "'"},
      {"both piped", "cat '" + video + "' | " + command + "'" + scratch("ways_both.mp4") +
                         "' --video - --audio <(cat '" + audio + "')"},
      {"hevc file", command + "'" + scratch("ways_hevc_file.mp4") + "' --video '" + streams().hevc +
                        "' --audio '" + streams().aac + "'"},
      {"hevc piped", "cat '" + streams().hevc + "' | " + command + "'" +
                         scratch("ways_hevc_pipe.mp4") + "' --video - --audio '" + streams().aac + "'"},
  };
  for (const Way& way : ways) {
    const Outcome ran = run("bash", {"-c", way.line});
    EXPECT_EQ(ran.status, 0) << way.name << ": " << ran.err;
  }
  const Bytes files = readFile(scratch("ways_files.mp4"));
  EXPECT_TRUE(files == readFile(scratch("ways_video.mp4")));
  EXPECT_TRUE(files == readFile(scratch("ways_both.mp4")));
  EXPECT_TRUE(readFile(scratch("ways_hevc_file.mp4")) == readFile(scratch("ways_hevc_pipe.mp4")));
  const json info = cli({"info", scratch("ways_files.mp4"), "--json"}).doc();
  EXPECT_EQ(info["tracks"][0]["samples"], 200);
  EXPECT_EQ(run("ffmpeg", {"-v", "error", "-i", scratch("ways_files.mp4"), "-f", "null", "-"}).err, "");
}

// A video file cut shorter while it is recorded (the sound comes through a
// named pipe, so the file is read as the sound comes): the command fails
// naming the file and why, and the recording holds what came before.
TEST(CliRecord, AFileCutShorterWhileReadFailsWithAReason) {
  std::signal(SIGPIPE, SIG_IGN);
  const std::string video = scratch("shrinking.264"), fifo = scratch("shrinking.fifo"),
                    out = scratch("shrinking.mp4"), said = scratch("shrinking.txt");
  fs::copy_file(largeVideo(), video, fs::copy_options::overwrite_existing);
  fs::remove(fifo);
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    const int text = open(said.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(text, STDOUT_FILENO);
    dup2(text, STDERR_FILENO);
    execl(MP4STBL_CLI, MP4STBL_CLI, "record", "-y", "-o", out.c_str(), "--video", video.c_str(),
          "--audio", fifo.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int sound = -1;
  for (int wait = 0; wait < 10000 && (sound = open(fifo.c_str(), O_WRONLY | O_NONBLOCK)) < 0; ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_GE(sound, 0);
  fcntl(sound, F_SETFL, 0);
  const Bytes audio = readFile(largeAudio());
  const size_t second = audio.size() / 8;
  EXPECT_EQ(write(sound, audio.data(), second), static_cast<ssize_t>(second));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  ASSERT_EQ(truncate(video.c_str(), 1000), 0);
  const ssize_t rest = write(sound, audio.data() + second, audio.size() - second);
  EXPECT_GT(rest, 0);
  close(sound);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  const std::string text = slurp(said);
  EXPECT_EQ(text.rfind("mp4stbl: " + video +
                           ": cannot be read: the file became shorter while it was read (1000 bytes, ",
                       0),
            0u)
      << text;
  EXPECT_NE(text.find("; " + out + " holds what came before"), std::string::npos) << text;
  const json info = cli({"info", out, "--json"}).doc();
  EXPECT_GT(info["tracks"][0]["samples"].get<int>(), 10);
  EXPECT_EQ(run("ffmpeg", {"-v", "error", "-i", out, "-f", "null", "-"}).err, "");
}

}  // namespace
