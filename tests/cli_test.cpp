// The mp4stbl command run as a user runs it: its samples and summaries
// against ffprobe on every real file, seeking (through stco and co64),
// verify and dump on the shipped clips, trim and join checked by ffprobe,
// exit codes and messages.
#include <sys/wait.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <regex>

#include "support/co64.h"
#include "support/test.h"

using nlohmann::json;
constexpr auto npos = std::string::npos;

namespace {

struct Outcome {
  int status = -1;
  std::string out, err;
  json doc() const { return json::parse(out, nullptr, false); }
};

// Files the tests make, all removed when the program ends.
const ScratchDir kScratch("mp4stbl_cli_");
std::string scratch(const std::string& name) { return kScratch / name; }

std::string slurp(const std::string& path) {
  const Bytes bytes = readFile(path);
  return std::string(bytes.begin(), bytes.end());
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
  size_t got;
  while ((got = std::fread(block, 1, sizeof block, pipe)) > 0) result.out.append(block, got);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.err = slurp(errors);
  return result;
}

Outcome cli(const std::vector<std::string>& args) { return run(MP4STBL_CLI, args); }

// ffprobe writes most numbers as strings.
long long number(const json& value) {
  return value.is_string() ? std::stoll(value.get<std::string>()) : value.get<long long>();
}

std::vector<std::string> mediaFiles(const std::string& dir) {
  return filesIn(dir, ".*\\.(mp4|mov)");
}

json samplesOf(const std::string& path, unsigned track) {
  const Outcome listed = cli({"samples", path, "--track", std::to_string(track), "--json"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  const json doc = listed.doc();
  return doc.is_discarded() ? json::array() : doc["samples"];
}

// What a track holds as ffprobe's stream fields: picture size, average
// frame rate, profile and level (H.264 and HEVC), sample rate, channels
// and language ("und" when ffprobe has none). ffprobe guesses the frame
// rate of a fragmented file from its first packets only.
void compareMedia(const json& ours, const json& theirs, bool fragmented) {
  if (theirs.contains("width")) {
    EXPECT_EQ(ours.value("width", json()), theirs["width"]);
    EXPECT_EQ(ours.value("height", json()), theirs["height"]);
  }
  if (theirs.contains("width") && !fragmented) {
    const std::string rate = theirs["avg_frame_rate"];
    const double fps = std::stod(rate) / std::stod(rate.substr(rate.find('/') + 1));
    EXPECT_NEAR(ours.value("frameRate", 0.0), fps, fps * 1e-3);
  }
  const std::string codec = theirs.value("codec_name", "");
  if (codec == "h264" || codec == "hevc") {
    EXPECT_EQ(ours["codec"]["profile"], theirs["profile"]);
    EXPECT_EQ(ours["codec"]["levelIdc"], theirs["level"]);
  } else {
    EXPECT_FALSE(ours.contains("codec"));
  }
  // An .mp4 entry always says 2 channels; the configurations of AAC, AC-3,
  // E-AC-3, ALAC and Vorbis say otherwise (MP3 keeps them in the stream).
  if (theirs.contains("sample_rate")) {
    EXPECT_EQ(ours.value("sampleRate", json()), number(theirs["sample_rate"]));
    if (codec != "mp3") {
      EXPECT_EQ(ours["channels"], theirs["channels"]);
    }
  }
  EXPECT_EQ(ours["language"], theirs.value("tags", json::object()).value("language", "und"));
}

// The brands as ffprobe joins them, and moov before mdat in the file made
// with +faststart and in every fragmented file, not in the plain ones.
void compareFileFacts(const json& summary, const json& format, const std::string& path) {
  const json tags = format.value("tags", json::object());
  std::string brands;
  for (const json& brand : summary["compatibleBrands"]) brands += brand.get<std::string>();
  if (tags.contains("major_brand")) {
    EXPECT_EQ(summary["majorBrand"], tags["major_brand"]);
    EXPECT_EQ(brands, tags.value("compatible_brands", ""));
  }
  const std::string name = fs::path(path).filename();
  const bool fragmented = summary["fragmented"];
  EXPECT_EQ(fragmented, name.rfind("frag_", 0) == 0);
  if (name == "faststart.mp4" || fragmented) {
    EXPECT_EQ(summary["fastStart"], true);
  } else if (name == "h264_aac.mp4" || name == "hevc.mp4") {
    EXPECT_EQ(summary["fastStart"], false);
  }
}

// Every sample of every track as ffprobe's packets (decode and presentation
// time, size, position, key flag, duration), the track summaries as
// ffprobe's frame counts and times, and an identical write-back. A track
// with one size for every sample (G.711) is handed over by ffmpeg in packets
// of many samples: its bytes are compared. A chapter track is read by ffmpeg
// as chapters: its samples' times are. In a file cut short, the samples
// whose bytes are all there are ffprobe's packets, plus at most one cut
// packet. ffmpeg ends the last packet where the edit list ends the track
// (GStreamer's edits end up to a few units before the stts time of the last
// sample). In a fragmented file decode times are ffprobe's, each duration
// reaches the next packet of its run (a fragment's own decode time may leave
// a gap, which the media duration leaves out), composition offsets are
// ffprobe's shifted to be positive, and an edit of duration 0 lasts to the
// end of the samples.
void compareWithFfprobe(const std::string& path) {
  SCOPED_TRACE(path);
  const Outcome info = cli({"info", path, "--json"});
  ASSERT_EQ(info.status, 0) << info.err;
  const json summary = info.doc(), tracks = summary["tracks"];
  ASSERT_EQ(summary["unreadable"], json::array());
  const bool fragmented = summary["fragmented"];
  const std::string text = cli({"info", path}).out;
  const Outcome probed = run(
      "ffprobe", {"-v", "error", "-show_entries",
                  "stream=index,id,nb_frames,time_base,start_time,duration,duration_ts,codec_name,"
                  "width,height,avg_frame_rate,profile,level,sample_rate,channels:stream_tags="
                  "language:format_tags",
                  "-show_chapters", "-of", "json", path});
  ASSERT_EQ(probed.status, 0) << probed.err;
  const json probe = json::parse(probed.out);
  const json streams = probe["streams"], chapters = probe["chapters"];
  compareFileFacts(summary, probe.value("format", json::object()), path);
  ASSERT_EQ(tracks.size(), streams.size());
  for (size_t index = 0; index < tracks.size(); ++index) {
    const auto id = tracks[index]["id"].get<unsigned>();
    SCOPED_TRACE("track " + std::to_string(id));
    ASSERT_EQ(std::stoul(streams[index]["id"].get<std::string>(), nullptr, 16), id);
    compareMedia(tracks[index], streams[index], fragmented);
    const Outcome packetRun =
        run("ffprobe", {"-v", "error", "-select_streams", std::to_string(index), "-show_entries",
                        "packet=pos,size,flags,duration,pts,dts", "-of", "json", path});
    ASSERT_EQ(packetRun.status, 0) << packetRun.err;
    const json packets = json::parse(packetRun.out)["packets"];
    const json samples = samplesOf(path, id);
    const std::string base = streams[index]["time_base"];
    if (packets.empty() && !chapters.empty()) {
      ASSERT_EQ(samples.size(), chapters.size());
      for (size_t i = 0; i < samples.size(); ++i) {
        EXPECT_EQ(chapters[i]["time_base"], base);
        EXPECT_EQ(samples[i]["decodeTime"], number(chapters[i]["start"]));
        const long long end =
            samples[i]["decodeTime"].get<long long>() + samples[i]["duration"].get<long long>();
        EXPECT_EQ(end, number(chapters[i]["end"]));
      }
      continue;
    }
    if (tracks[index]["sampleSize"].is_number()) {
      long long packed = 0;
      for (const json& packet : packets) packed += number(packet["size"]);
      EXPECT_EQ(tracks[index]["bytes"], packed);
      EXPECT_EQ(samples.size(), tracks[index]["samples"].get<size_t>());
      continue;
    }
    size_t whole = 0;
    while (whole < samples.size() && !samples[whole].contains("missing")) ++whole;
    for (size_t i = whole; i < samples.size(); ++i) EXPECT_TRUE(samples[i].value("missing", false));
    ASSERT_GE(packets.size(), whole);
    if (packets.size() > whole) {  // the cut one
      ASSERT_EQ(packets.size(), whole + 1);
      EXPECT_EQ(number(packets[whole]["pos"]), samples[whole]["offset"]);
      EXPECT_LT(number(packets[whole]["size"]), samples[whole]["size"]);
    }
    long long elapsed = 0, bytes = 0, shift = 0;
    for (const json& sample : samples) {
      shift = std::max(shift, -sample.value("compositionOffset", 0ll));
    }
    // ffprobe's decode times start at its first packet's; in a fragmented
    // file, at minus the media time where the edit list starts the track.
    long long firstDts = packets.empty() || fragmented ? 0 : number(packets[0]["dts"]);
    if (fragmented && !samples.empty()) {
      const json& first = samples[0];
      firstDts = first["presentationTime"].get<long long>() - first["decodeTime"].get<long long>() -
                 first["compositionOffset"].get<long long>();
    }
    for (size_t i = 0; i < samples.size(); ++i) {
      const json& ours = samples[i];
      SCOPED_TRACE("sample " + std::to_string(i + 1));
      ASSERT_EQ(ours["number"], i + 1);
      const long long decoded = ours["decodeTime"].get<long long>();
      if (!fragmented) {
        EXPECT_EQ(decoded, elapsed);
      }
      elapsed += ours["duration"].get<long long>();
      bytes += ours["size"].get<long long>();
      if (i >= whole) continue;
      const json& theirs = packets[i];
      EXPECT_EQ(decoded, number(theirs["dts"]) - firstDts);
      EXPECT_EQ(ours["offset"], number(theirs["pos"]));
      EXPECT_EQ(ours["size"], number(theirs["size"]));
      EXPECT_EQ(ours["sync"], theirs["flags"].get<std::string>().find('K') != npos);
      EXPECT_EQ(ours["compositionOffset"].get<long long>() + shift,
                number(theirs["pts"]) - number(theirs["dts"]));
      if (fragmented) {
        if (i + 1 < samples.size() && samples[i + 1]["chunk"] == ours["chunk"]) {
          EXPECT_EQ(ours["duration"], number(packets[i + 1]["dts"]) - number(theirs["dts"]));
        }
        continue;
      }
      // ffprobe places both times on the edit list's timeline.
      EXPECT_EQ(ours["presentationTime"], number(theirs["pts"]));
      const long long duration = number(theirs.value("duration", json(-1)));
      if (i + 1 == samples.size() && duration < ours["duration"].get<long long>()) {
        EXPECT_EQ(number(theirs["dts"]) + duration, number(streams[index]["duration_ts"]));
      } else {
        EXPECT_EQ(ours["duration"], duration);
      }
    }
    // ffprobe counts no frames in a fragmented file.
    EXPECT_EQ(tracks[index]["samples"],
              fragmented ? static_cast<long long>(packets.size())
                         : number(streams[index]["nb_frames"]));
    EXPECT_EQ(tracks[index]["duration"], elapsed);
    EXPECT_EQ(tracks[index]["mediaDuration"], elapsed);
    // Media seconds are the duration over the time scale; the bit rate is
    // bits over them, shown in the text as kbit/s. The seconds players show
    // are the edit list's: ffprobe's start and duration, which it rounds to
    // the movie's milliseconds.
    const double media = static_cast<double>(elapsed) / std::stoll(base.substr(base.find('/') + 1));
    const double bitrate = media > 0 ? std::round(bytes * 8 / media) : 0;
    const double seconds = tracks[index]["seconds"].get<double>();
    EXPECT_EQ(tracks[index]["bytes"], bytes);
    EXPECT_DOUBLE_EQ(tracks[index]["mediaSeconds"].get<double>(), media);
    // In a fragmented file ffprobe moves presentation by the largest
    // negative composition offset, which no edit list asks for, and without
    // an edit list takes the length from elsewhere (sidx, mehd).
    const bool edited = !tracks[index]["presentationSeconds"].is_null();
    if ((!fragmented || (edited && shift == 0)) && whole == samples.size()) {
      EXPECT_NEAR(seconds, std::stod(streams[index]["start_time"].get<std::string>()) +
                               std::stod(streams[index]["duration"].get<std::string>()), 0.002);
    }
    EXPECT_EQ(tracks[index]["presentationSeconds"].is_null() ? media : seconds, seconds);
    EXPECT_DOUBLE_EQ(tracks[index]["bitrate"].get<double>(), bitrate);
    // The track's row of the text shows the same seconds, bytes and kbit/s.
    char row[96];
    std::snprintf(row, sizeof row, "\n%u .* %.3f +%lld +%.1f ", id, seconds, bytes, bitrate / 1000);
    EXPECT_TRUE(std::regex_search(text, std::regex(row))) << row << "\n" << text;
  }
  const Outcome verified = cli({"verify", path, "--json"});
  EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
  EXPECT_EQ(verified.doc().value("identical", false), true);
}

// The committed files, then the wider corpus when ffmpeg made one.
TEST(CliAgainstFfprobe, CommittedFilesAndWideCorpus) {
  ASSERT_GE(mediaFiles(MP4STBL_TEST_DATA).size(), 5u);
  for (const char* dir : {MP4STBL_TEST_DATA, MP4STBL_CORPUS_DIR}) {
    for (const std::string& path : mediaFiles(dir)) compareWithFfprobe(path);
  }
}

// Seeking in the shipped clip (video key frames 1, 5 and 9; samples 8 and 9
// share chunk 8): the key frame to decode from (at or before the sample, or
// with --after at or after it) and the bytes to read, which start with the
// key frame's chunk; the same through co64 tables.
TEST(CliSeek, FindsTheKeyFrameAndTheBytesToReadThroughStcoOrCo64) {
  const std::string clip = std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4";
  // The clip with its stco tables turned into co64 tables of the same offsets
  // (moov follows mdat, so no sample moves).
  const std::string co64 = scratch("co64.mp4");
  Mp4File file;
  ASSERT_TRUE(file.open(clip).ok());
  widenChunkOffsets(file, 0);
  ASSERT_TRUE(file.save(co64).ok());
  compareWithFfprobe(co64);
  const std::pair<std::vector<std::string>, json> cases[] = {
      {{"--sample", "6", "--end-sample", "7"},
       {{"track", 1}, {"requestedSample", 6}, {"keyFrame", 5}, {"keyFrameTime", 2048.0 / 12800},
        {"chunk", 5}, {"offset", 5731}, {"chunkOffset", 5731}, {"chunkDistance", 3213},
        {"endSample", 7}, {"rangeStart", 5731}, {"rangeLength", 3748}}},
      {{"--sample", "6", "--end-sample", "7", "--after"},
       {{"track", 1}, {"requestedSample", 6}, {"keyFrame", 9}, {"keyFrameTime", 4096.0 / 12800},
        {"chunk", 8}, {"offset", 10400}, {"chunkOffset", 9677}, {"chunkDistance", 0},
        {"endSample", 9}, {"rangeStart", 9677}, {"rangeLength", 3193}}},
      {{"--sample", "2", "--after"},
       {{"track", 1}, {"requestedSample", 2}, {"keyFrame", 5}, {"keyFrameTime", 2048.0 / 12800},
        {"chunk", 5}, {"offset", 5731}, {"chunkOffset", 5731}, {"chunkDistance", 13050 - 5731},
        {"endSample", 10}, {"rangeStart", 5731}, {"rangeLength", 7771}}},
  };
  for (const std::string& file : {clip, co64}) {
    for (const auto& [position, answer] : cases) {
      std::vector<std::string> args = {"seek", file, "--json"};
      args.insert(args.end(), position.begin(), position.end());
      json doc = cli(args).doc();
      EXPECT_EQ(doc["file"], file);
      doc.erase("file");
      EXPECT_EQ(doc, answer) << file << " " << position[1];
    }
  }
}

// The clip with `bytes` written at `at` bytes past the first `box` type.
std::string patched(const std::string& name, const char* box, long at, const std::string& bytes) {
  std::string data = slurp(std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4");
  data.replace(data.find(box) + at, bytes.size(), bytes);
  const std::string path = scratch(name);
  std::ofstream(path, std::ios::binary) << data;
  return path;
}

// The shipped clip with four zero bytes after the entries of its first
// track's stts, which the write-back drops: stts and every box around it
// grow by 4.
std::string padded(const std::string& name) {
  std::string data = slurp(std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4");
  size_t at = 0, end = 0;
  for (const char* type : {"moov", "trak", "mdia", "minf", "stbl", "stts"}) {
    at = data.find(type, at) - 4;
    uint32_t size = 0;
    for (size_t i = 0; i < 4; ++i) size = size << 8 | static_cast<unsigned char>(data[at + i]);
    end = at + size;
    size += 4;
    for (size_t i = 0; i < 4; ++i) data[at + i] = static_cast<char>(size >> (24 - 8 * i));
    at += 8;
  }
  data.insert(end, 4, '\0');
  const std::string path = scratch(name);
  std::ofstream(path, std::ios::binary) << data;
  return path;
}

// Text output, exit codes and messages: unreadable files and failed checks
// exit with 1 and a message naming the file; bad arguments exit with 2.
// Refusals name the track, the box and the reason; option errors name the
// option and the form it takes, and cut a long value; types that are not
// printable are escaped; --json and -v go before or after the subcommand.
// An empty expected output or message means none at all.
TEST(CliRuns, TextOutputExitCodesAndMessages) {
  const std::string clip = std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4";
  const std::string missing = scratch("missing.mp4"), text = scratch("notes.txt");
  std::ofstream(text) << "these are not the boxes you are looking for\n";
  // The written stsd count is the number of entries held, so a stored count
  // of 7 over one entry comes back as 1: verify names its low byte and box.
  const std::string altered = patched("altered.mp4", "stsd", 11, "\x07");
  const size_t at = slurp(clip).find("stsd") + 11;
  // A box that shrinks changes the size of each box around it first: verify
  // names the innermost.
  const std::string grown = padded("padded.mp4");
  const size_t moovSize = slurp(clip).find("moov") - 1;
  const std::string counted = patched("counted.mp4", "stsz", 12, std::string("\0\0\x03\xe8", 4));
  const std::string odd = patched("odd.mp4", "stsd", 16, "\x01vc1");
  const std::string badSize = patched("badsize.mp4", "stsz", -4, std::string("\0\0\0\4", 4));
  const std::string nines(300, '9'), through10 = " to play through sample 10\n";
  const std::string fragmented = std::string(MP4STBL_TEST_DATA) + "/frag_h264_aac.mp4";
  // A file whose ftyp is hidden (QuickTime files may have none) and one with
  // a movie fragment box after its media.
  const std::string noFtyp = patched("noftyp.mp4", "ftyp", 0, "free"), moof = scratch("moof.mp4");
  std::ofstream(moof, std::ios::binary) << slurp(clip) << std::string("\0\0\0\x08moof", 8);
  const struct { std::vector<std::string> args; int status; std::string out, err; } cases[] = {
      {{"seek", clip, "--sample", "1"}, 0,
       "track 1: sample 1 -> key frame 1 at 0.000 s, chunk 1, offset 315\n"
       "read bytes 315..13502 (13187 bytes)" + through10, ""},
      {{"seek", clip, "--time", "0.25", "--after"}, 0,
       "track 1: sample 7 -> key frame 9 at 0.320 s, chunk 8, offset 10400\n"
       "read bytes 9677..13502 (3825 bytes)" + through10, ""},
      {{"seek", clip, "--time", "0:00:00.25"}, 0,
       "track 1: sample 7 -> key frame 5 at 0.160 s, chunk 5, offset 5731\n"
       "read bytes 5731..13502 (7771 bytes)" + through10, ""},
      // Key frames 1, 9 and 17 of the fragmented clip, one run of 8 each.
      {{"seek", fragmented, "--time", "0.5"}, 0,
       "track 1: sample 13 -> key frame 9 at 0.320 s, chunk 2, offset 6861\n"
       "read bytes 6861..13929 (7068 bytes) to play through sample 20\n", ""},
      {{"seek", fragmented, "--sample", "12", "--end-sample", "13", "--after"}, 0,
       "track 1: sample 12 -> key frame 17 at 0.640 s, chunk 3, offset 11591\n"
       "read bytes 11591..13184 (1593 bytes) to play through sample 17\n", ""},
      {{"seek", clip, "--sample", "10", "--after"}, 1, "",
       "mp4stbl: " + clip + ": no key frame at or after sample 10; the last one is sample 9\n"},
      {{"seek", clip, "--time", "1:2:3:4"}, 2, "", "--time: expects seconds (12.5) or hh:mm:ss.mmm"},
      {{"seek", clip, "--sample", "999"}, 1, "",
       "mp4stbl: " + clip + ": track 1 has no sample 999; it has 10\n"},
      {{"samples", clip, "--track", "3"}, 1, "", ": no track 3; the tracks are 1, 2\n"},
      {{"verify", altered}, 1, altered + ": differs when written back, first at offset " +
       std::to_string(at) + ", in moov/trak/mdia/minf/stbl/stsd\n", ""},
      {{"verify", grown}, 1, grown + ": differs when written back, first at offset " +
       std::to_string(moovSize) + ", in moov/trak/mdia/minf/stbl/stts\n", ""},
      {{"verify", grown, "--json"}, 1, "\"box\": \"moov/trak/mdia/minf/stbl/stts\"", ""},
      {{"info", missing}, 1, "", "mp4stbl: " + missing + ": cannot open the file\n"},
      // A directory opens but its reads fail: an error, not an exception.
      {{"info", MP4STBL_TEST_DATA}, 1, "", "data: not an MP4 file (offset:0, readBe32 fail)\n"},
      // A box whose header breaks the tree names the track it lies in.
      {{"info", badSize}, 1, "", "cannot be read (track 1 (vide): box stsz at offset " +
       std::to_string(slurp(clip).find("stsz") - 4) + " has a bad size 4)\n"},
      {{"dump", text}, 1, "", "mp4stbl: " + text + ": not an MP4 file"},
      {{"info", clip, "--bogus"}, 2, "", "--bogus"},
      {{"dump", std::string(MP4STBL_TEST_DATA) + "/hevc.mp4", "--entries", "3"}, 0,
       slurp(std::string(MP4STBL_TEST_DATA) + "/hevc.dump.txt"), ""},
      {{"samples", counted, "--track", "1"}, 1, "",
       "track 1 (vide, avc1): stsz lists 1000 entries of 4 bytes (4000 bytes) but its box holds "
       "40 bytes of entries (detail: read 4000 bytes to stsz buf failed)\n"},
      {{"info", counted}, 0, "\n2      audio", "stsz lists 1000 entries"},
      {{"seek", clip, "--sample", nines}, 2, "",
       "mp4stbl: --sample: expects a whole number from 1 to 4294967295, not "
       "'999999999999999999999999...' (300 characters)\n"},
      {{"seek", clip, "--track", "0", "--sample", "1"}, 2, "", "--track: expects a whole number"},
      {{"samples", clip, "--track", "4294967296"}, 2, "",
       "--track: expects a whole number from 1 to 4294967295, not '4294967296'"},
      {{"seek", clip, "--time", nines + "x"}, 2, "", "hh:mm:ss.mmm, not '9999"},
      {{"dump", clip, "--entries", "-1"}, 2, "", "--entries: expects a positive number or all"},
      {{"info", clip, nines}, 2, "",
       "not expected: '999999999999999999999999...' (300 characters)"},
      {{"bogus", clip}, 2, "", "unknown subcommand 'bogus': expects info, dump, samples, seek"},
      {{"info", odd}, 0, "  \\x01vc1  ", ""},
      {{"info", odd, "--json"}, 0, "\"entry\": \"\\\\x01vc1\"", ""},
      {{"--json", "dump", odd}, 0, "\"type\": \"\\\\x01vc1\"", ""},
      {{"dump", odd}, 0, "\n            \\x01vc1  size 167", ""},
      {{"-v", "--json", "seek", clip, "--sample", "1"}, 0, "\"keyFrame\": 1", "start addr 315"},
      {{"seek", "--json", clip, "--sample", "1"}, 0, "\"keyFrame\": 1", ""},
      {{"info", noFtyp}, 0, "\nbrand none (QuickTime); fast start: no; fragmented: no\n", ""},
      {{"info", moof}, 0,
       "\nbrand isom, compatible: isom iso2 avc1 mp41; fast start: no; fragmented: yes\n", ""},
      {{"info", moof, "--json"}, 0, "\"fragmented\": true", ""},
  };
  for (const auto& c : cases) {
    const Outcome result = cli(c.args);
    EXPECT_EQ(result.status, c.status) << json(c.args).dump() << result.err;
    EXPECT_TRUE(c.out.empty() ? result.out.empty() : result.out.find(c.out) != npos) << result.out;
    EXPECT_TRUE(c.err.empty() ? result.err.empty() : result.err.find(c.err) != npos) << result.err;
    EXPECT_LT(result.err.size(), 400u) << result.err;
  }
}

// The bytes of every sample of every track, in decode order, and of the
// first sample each track shows at or after `at` seconds.
struct TrackBytes {
  std::vector<std::string> samples;
  std::string shownAt;
};

std::vector<TrackBytes> sampleBytes(const std::string& path, double at = 0) {
  std::vector<TrackBytes> tracks;
  const std::string all = slurp(path);
  const json info = cli({"info", path, "--json"}).doc();
  for (const json& track : info["tracks"]) {
    TrackBytes& bytes = tracks.emplace_back();
    double shown = 1e300;
    for (const json& s : samplesOf(path, track["id"].get<unsigned>())) {
      bytes.samples.push_back(all.substr(s["offset"].get<size_t>(), s["size"].get<size_t>()));
      const double when = s["presentationSeconds"].get<double>();
      if (when >= at - 1e-6 && when < shown) {
        shown = when;
        bytes.shownAt = bytes.samples.back();
      }
    }
  }
  return tracks;
}

struct Probed {
  std::vector<double> starts, durations;
  std::string errors;  // of a full decode
};

Probed probe(const std::string& path) {
  Probed probed;
  const json streams = json::parse(
      run("ffprobe", {"-v", "error", "-show_entries", "stream=start_time,duration", "-of",
                      "json", path}).out)["streams"];
  for (const json& stream : streams) {
    probed.starts.push_back(std::stod(stream["start_time"].get<std::string>()));
    probed.durations.push_back(std::stod(stream["duration"].get<std::string>()));
  }
  probed.errors = run("ffmpeg", {"-v", "error", "-i", path, "-f", "null", "-"}).err;
  return probed;
}

// Trims of real files against ffprobe: every stream starts at 0 and lasts
// the window (or to its own end) within a frame (40 ms at the slowest rate
// here), decodes without a message, and each track's samples are a run of
// the source's, byte for byte, whose first frame shown is the one the
// source shows at --from. Three joined copies of a cut (movie box last) last three
// windows, hold three times its samples and write back identical.
TEST(CliEdit, TrimsAndJoinsAgainstFfprobe) {
  if (mediaFiles(MP4STBL_CORPUS_DIR).empty()) {
    GTEST_SKIP() << "no corpus in " << MP4STBL_CORPUS_DIR << " (needs ffmpeg)";
  }
  constexpr double kFrame = 0.0417;
  const std::string cut = scratch("cut.mp4"), joined = scratch("joined.mp4");
  for (const char* name : {"h264_bframes.mp4", "long_h264_aac.mp4", "two_audio.mp4",
                           "hevc_ntsc.mp4", "h264_ulaw.mov", "faststart.mp4", "h264_vfr.mp4",
                           "prores_apcs_alaw.mov", "pcm_s16le.mov", "gst_h264_aac.mp4",
                           "timecode.mov", "mp3.mp4", "h264_high_eng.mp4"}) {
    const std::string path = std::string(MP4STBL_CORPUS_DIR) + "/" + name;
    SCOPED_TRACE(name);
    const Probed source = probe(path);
    const double length = *std::min_element(source.durations.begin(), source.durations.end());
    const double from = std::round(length * 30) / 100, to = std::round(length * 70) / 100;
    const Outcome trimmed = cli({"trim", path, "--from", std::to_string(from), "--to",
                                 std::to_string(to), "-o", cut});
    ASSERT_EQ(trimmed.status, 0) << trimmed.err;
    const Probed result = probe(cut);
    EXPECT_EQ(result.errors, "");
    ASSERT_EQ(result.starts.size(), source.starts.size());
    for (size_t s = 0; s < result.starts.size(); ++s) {
      const double end = std::min(to, source.starts[s] + source.durations[s]);
      EXPECT_NEAR(result.starts[s], 0, kFrame) << "stream " << s;
      EXPECT_NEAR(result.durations[s], end - from, kFrame) << "stream " << s;
    }
    const auto before = sampleBytes(path, from), after = sampleBytes(cut);
    ASSERT_EQ(before.size(), after.size());
    for (size_t t = 0; t < after.size(); ++t) {
      const auto& kept = after[t].samples;
      const auto first = std::search(before[t].samples.begin(), before[t].samples.end(),
                                     kept.begin(), kept.end());
      EXPECT_NE(first, before[t].samples.end()) << "track " << t + 1 << " is no run of the source's";
      // The frame shown first is the one the source shows at --from.
      EXPECT_TRUE(after[t].shownAt == before[t].shownAt) << "track " << t + 1;
    }
    ASSERT_EQ(cli({"join", cut, cut, cut, "-o", joined, "--moov-last"}).status, 0);
    EXPECT_EQ(cli({"verify", joined}).status, 0);
    EXPECT_EQ(cli({"info", joined, "--json"}).doc()["fastStart"], false);
    const Probed three = probe(joined);
    EXPECT_EQ(three.errors, "");
    for (size_t s = 0; s < three.durations.size(); ++s) {
      EXPECT_NEAR(three.durations[s], 3 * result.durations[s], kFrame) << "stream " << s;
    }
    const auto tripled = sampleBytes(joined);
    for (size_t t = 0; t < tripled.size(); ++t) {
      std::vector<std::string> expected;
      for (int copy = 0; copy < 3; ++copy) {
        expected.insert(expected.end(), after[t].samples.begin(), after[t].samples.end());
      }
      EXPECT_TRUE(tripled[t].samples == expected) << "track " << t + 1;
    }
  }
}

}  // namespace
