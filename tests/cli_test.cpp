// The mp4stbl command run as a user runs it: its samples and summaries
// against ffprobe on every real file, seeking (through stco and co64),
// verify and dump on the shipped clips, trim and join checked by ffprobe,
// exit codes and messages; remux of fragmented and regular files checked by
// ffprobe and ffmpeg's decoder.
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "support/co64.h"
#include "support/process.h"
#include "support/test.h"

using nlohmann::json;
constexpr auto npos = std::string::npos;

namespace {

// Files the tests make, all removed when the program ends.
const ScratchDir kScratch("mp4stbl_cli_");
std::string scratch(const std::string& name) { return kScratch / name; }

// Runs `program args...`, stdout through a pipe, stderr through a file.
Outcome run(const std::string& program, const std::vector<std::string>& args) {
  return shellIn(commandLine(program, args), scratch("stderr"));
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
    if (tracks[index]["sampleSize"] != 0) {
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
        {"endSample", 7}, {"rangeStart", 5731}, {"rangeLength", 3748},
        {"rangeStartsAtKeyFrame", true}}},
      {{"--sample", "6", "--end-sample", "7", "--after"},
       {{"track", 1}, {"requestedSample", 6}, {"keyFrame", 9}, {"keyFrameTime", 4096.0 / 12800},
        {"chunk", 8}, {"offset", 10400}, {"chunkOffset", 9677}, {"chunkDistance", 0},
        {"endSample", 9}, {"rangeStart", 9677}, {"rangeLength", 3193},
        {"rangeStartsAtKeyFrame", false}}},
      {{"--sample", "2", "--after"},
       {{"track", 1}, {"requestedSample", 2}, {"keyFrame", 5}, {"keyFrameTime", 2048.0 / 12800},
        {"chunk", 5}, {"offset", 5731}, {"chunkOffset", 5731}, {"chunkDistance", 13050 - 5731},
        {"endSample", 10}, {"rangeStart", 5731}, {"rangeLength", 7771},
        {"rangeStartsAtKeyFrame", true}}},
      // A key frame is its own start, not the one before it.
      {{"--sample", "5", "--end-sample", "5"},
       {{"track", 1}, {"requestedSample", 5}, {"keyFrame", 5}, {"keyFrameTime", 2048.0 / 12800},
        {"chunk", 5}, {"offset", 5731}, {"chunkOffset", 5731}, {"chunkDistance", 0},
        {"endSample", 5}, {"rangeStart", 5731}, {"rangeLength", 2293},
        {"rangeStartsAtKeyFrame", true}}},
      {{"--sample", "9", "--after"},
       {{"track", 1}, {"requestedSample", 9}, {"keyFrame", 9}, {"keyFrameTime", 4096.0 / 12800},
        {"chunk", 8}, {"offset", 10400}, {"chunkOffset", 9677}, {"chunkDistance", 13050 - 9677},
        {"endSample", 10}, {"rangeStart", 9677}, {"rangeLength", 13502 - 9677},
        {"rangeStartsAtKeyFrame", false}}},
  };
  for (const std::string& file : {clip, co64}) {
    for (const auto& [position, answer] : cases) {
      std::vector<std::string> args = {"seek", file, "--json"};
      args.insert(args.end(), position.begin(), position.end());
      json doc = cli(args).doc();
      EXPECT_EQ(doc["file"], file);
      EXPECT_EQ(doc["schema"], 1);
      EXPECT_EQ(doc["clamped"], json::array());
      for (const char* field : {"file", "schema", "clamped"}) doc.erase(field);
      EXPECT_EQ(doc, answer) << file << " " << position[1];
    }
  }
}

// --track takes an id or a kind wherever a track is chosen: "video" and
// "audio" are the shipped clip's tracks 1 and 2, and a clip with no sound
// has no audio track to give. samples without --track lists every track:
// in text a heading line and a table each, in JSON an object each in
// "tracks" holding what --track gives for that track alone.
TEST(CliTracks, ChosenByIdOrKindEverywhere) {
  const std::string clip = std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4";
  const std::string hevc = std::string(MP4STBL_TEST_DATA) + "/hevc.mp4";
  const std::string out = scratch("chosen.out");
  const std::pair<std::string, std::string> kinds[] = {{"video", "1"}, {"audio", "2"}};
  for (const auto& [kind, id] : kinds) {
    SCOPED_TRACE(kind);
    const std::vector<std::vector<std::string>> commands = {
        {"samples", clip, "--json"},
        {"seek", clip, "--time", "0.3", "--json"},
        {"report", clip, "-o", out, "-y", "--json"},
        {"extract", clip, "-o", out, "-y", "--json"}};
    for (std::vector<std::string> args : commands) {
      args.insert(args.end(), {"--track", kind});
      const Outcome byKind = cli(args);
      const std::string bytesByKind = slurp(out);
      args.back() = id;
      const Outcome byId = cli(args);
      EXPECT_EQ(byKind.status, 0) << args[0] << byKind.err;
      EXPECT_EQ(byKind.out, byId.out) << args[0];
      EXPECT_EQ(bytesByKind, slurp(out)) << args[0];
    }
  }
  EXPECT_EQ(cli({"samples", clip, "--track", "audio", "--json"}).doc()["track"], 2);
  const Outcome report = cli({"report", clip, "-o", out, "-y", "--track", "audio", "--json"});
  EXPECT_EQ(report.doc()["tracks"], 1);
  const std::vector<std::vector<std::string>> audio = {
      {"samples", hevc, "--track", "audio"},
      {"seek", hevc, "--track", "audio", "--sample", "1"},
      {"report", hevc, "--track", "audio", "-o", out, "-y"},
      {"extract", hevc, "--track", "audio", "-o", out, "-y"}};
  for (std::vector<std::string> args : audio) {
    const Outcome none = cli(args);
    EXPECT_EQ(none.status, 1) << args[0];
    EXPECT_EQ(none.err, "mp4stbl: " + hevc + ": no readable audio track\n") << args[0];
    args[3] = "subtitles";
    const Outcome bad = cli(args);
    EXPECT_EQ(bad.status, 2) << args[0];
    EXPECT_NE(bad.err.find("--track: expects a track id, video or audio, not 'subtitles'"), npos)
        << bad.err;
  }

  const Outcome listed = cli({"samples", clip});
  EXPECT_EQ(listed.status, 0) << listed.err;
  const size_t second = listed.out.find("\ntrack 2 (audio, mp4a): 10 samples\n");
  ASSERT_NE(second, npos) << listed.out;
  EXPECT_EQ(listed.out.rfind("track 1 (video, avc1): 10 samples\n", 0), 0u);
  EXPECT_EQ(listed.out.substr(listed.out.find('\n') + 1, second - listed.out.find('\n')),
            cli({"samples", clip, "--track", "1"}).out + "\n");
  EXPECT_EQ(listed.out.substr(listed.out.find('\n', second + 1) + 1),
            cli({"samples", clip, "--track", "2"}).out);
  const json every = cli({"samples", clip, "--json"}).doc();
  EXPECT_EQ(every.value("schema", json()), 1);
  EXPECT_EQ(every["file"], clip);
  EXPECT_EQ(every["unreadable"], json::array());
  ASSERT_EQ(every["tracks"].size(), 2u);
  for (const json& track : every["tracks"]) {
    json alone = cli({"samples", clip, "--track", track["track"].dump(), "--json"}).doc();
    alone.erase("file");
    alone.erase("schema");
    EXPECT_EQ(track, alone);
  }
}

// The shipped clip cut before its movie box (it follows the media data): a
// recording that was never finished.
std::string unfinished() {
  const std::string data = slurp(std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4");
  const std::string path = scratch("unfinished.mp4");
  std::ofstream(path, std::ios::binary) << data.substr(0, data.find("moov") - 4);
  return path;
}

// Every command that writes a file keeps a file already at its output,
// says so naming it and -y, and writes nothing; with -y or --overwrite it
// replaces it. An output that is an input is refused in its own words.
TEST(CliOutputs, AnExistingFileIsKeptUnlessOverwriteIsGiven) {
  const std::string clip = std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4";
  const std::string out = scratch("kept.out"), video = scratch("kept.h264");
  ASSERT_EQ(cli({"extract", clip, "--track", "video", "-o", video}).status, 0);
  // A fragmented recording recovers with no reference, nor an AAC decoder.
  const std::string fragmented = std::string(MP4STBL_TEST_DATA) + "/frag_h264_aac.mp4";
  const std::vector<std::vector<std::string>> writers = {
      {"trim", clip, "--from", "0", "--to", "0.2"},
      {"join", clip, clip},
      {"remux", clip},
      {"record", "--video", video},
      {"recover", fragmented},
      {"report", clip},
      {"extract", clip, "--track", "audio"}};
  const std::string kept = "an earlier file\n";
  for (std::vector<std::string> args : writers) {
    SCOPED_TRACE(args[0]);
    std::ofstream(out, std::ios::binary) << kept;
    args.insert(args.end(), {"-o", out});
    const Outcome text = cli(args);
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.out, "");
    EXPECT_EQ(text.err,
              "mp4stbl: " + out +
                  ": exists; nothing was written (-y or --overwrite replaces it)\n");
    args.push_back("--json");
    EXPECT_EQ(cli(args).doc(),
              (json{{"error", "exists; nothing was written (-y or --overwrite replaces it)"},
                    {"file", out},
                    {"schema", 1}}));
    EXPECT_EQ(slurp(out), kept);
    for (const char* overwrite : {"-y", "--overwrite"}) {
      args.push_back(overwrite);
      const Outcome replaced = cli(args);
      EXPECT_EQ(replaced.status, 0) << replaced.err;
      EXPECT_EQ(replaced.doc()["written"], args[0] == "record" ? json() : json(true));
      EXPECT_NE(slurp(out), kept);
      args.pop_back();
    }
  }
  const Outcome same = cli({"remux", clip, "-o", clip});
  EXPECT_EQ(same.err, "mp4stbl: " + clip + ": is one of the inputs; write to another file\n");
}

// --quiet leaves out notes and the progress line a terminal shows (run
// under script(1) for one), never the outcome or an error.
TEST(CliOutputs, QuietLeavesOutProgressAndNotes) {
  const std::string clip = std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4";
  const std::string out = scratch("quiet.mp4"), video = scratch("quiet.h264");
  ASSERT_EQ(cli({"extract", clip, "--track", "video", "-o", video}).status, 0);
  const std::vector<std::vector<std::string>> noted = {
      {"trim", clip, "--from", "0", "--to", "30", "-o", out, "-y"},
      {"extract", clip, "--track", "audio", "--to", "30", "-o", out, "-y"},
      {"seek", clip, "--time", "20"}};
  for (std::vector<std::string> args : noted) {
    const Outcome loud = cli(args);
    EXPECT_NE(loud.out.find("\nnote: "), npos) << args[0] << loud.out;
    args.push_back("--quiet");
    const Outcome quiet = cli(args);
    EXPECT_EQ(quiet.status, 0) << quiet.err;
    EXPECT_EQ(quiet.out, loud.out.substr(0, loud.out.find("\nnote: ") + 1)) << args[0];
    EXPECT_EQ(quiet.err, "");
  }
  EXPECT_EQ(cli({"-q", "info", scratch("missing.mp4")}).err,
            "mp4stbl: " + scratch("missing.mp4") + ": cannot open the file: No such file or "
            "directory\n");
  if (std::system("command -v script >/dev/null") != 0) GTEST_SKIP() << "no script(1)";
  const std::string record =
      commandLine(MP4STBL_CLI, {"record", "-y", "-o", out, "--video", video});
  const Outcome terminal = run("script", {"-qec", record, "/dev/null"});
  EXPECT_NE(terminal.out.find("\rrecording " + out + ": "), npos) << terminal.out;
  const Outcome quiet = run("script", {"-qec", record + " -q", "/dev/null"});
  EXPECT_EQ(quiet.out.find("\rrecording"), npos) << quiet.out;
  EXPECT_NE(quiet.out.find("wrote " + out), npos) << quiet.out;
}

// A time past the end is taken as the end, said in a note and in
// "clamped" of the JSON document: seek's --time and --end-time against
// the track's media (0.4 s), trim's --to against the longest track,
// extract's --to against the track's presentation. A time within asks for
// no clamp, and "clamped" is empty.
TEST(CliOutputs, TimesPastTheEndAreClampedAndSaidSo) {
  const std::string clip = std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4";
  const std::string out = scratch("clamped.out");
  const struct { std::vector<std::string> args; json clamped; std::string notes; } cases[] = {
      {{"seek", clip, "--time", "20", "--end-time", "0:30"},
       {{{"option", "--time"}, {"asked", 20.0}, {"to", 0.4}},
        {{"option", "--end-time"}, {"asked", 30.0}, {"to", 0.4}}},
       "note: --time 20.000 s lies past the end; clamped to 0.400 s\n"
       "note: --end-time 30.000 s lies past the end; clamped to 0.400 s\n"},
      {{"seek", clip, "--time", "0.4", "--end-time", "0.4"}, json::array(), ""},
      {{"trim", clip, "--from", "0.1", "--to", "30", "-o", out, "-y"},
       {{{"option", "--to"}, {"asked", 30.0}, {"to", 0.4}}},
       "note: --to 30.000 s lies past the end; clamped to 0.400 s\n"},
      {{"trim", clip, "--from", "0.1", "--to", "0.3", "-o", out, "-y"}, json::array(), ""},
      {{"extract", clip, "--track", "video", "--to", "1", "-o", out, "-y"},
       {{{"option", "--to"}, {"asked", 1.0}, {"to", 0.4}}},
       "note: --to 1.000 s lies past the end; clamped to 0.400 s\n"},
      {{"extract", clip, "--track", "audio", "--to", "0.3", "-o", out, "-y"}, json::array(), ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(json(c.args).dump());
    const Outcome text = cli(c.args);
    EXPECT_EQ(text.status, 0) << text.err;
    const size_t notes = text.out.find("note: ");
    EXPECT_EQ(notes == npos ? "" : text.out.substr(notes), c.notes);
    std::vector<std::string> args = c.args;
    args.push_back("--json");
    EXPECT_EQ(cli(args).doc()["clamped"], c.clamped);
  }
}

// What the messages tell a user who tripped: the system's reason a file
// cannot be opened, an unknown option named as one, a file of media data
// with no movie box pointed at recover (also as one of the clips of a
// join), in text and JSON; seek says where the bytes to read start and why.
TEST(CliRuns, MessagesSayWhatToDo) {
  const std::string clip = std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4";
  const std::string locked = scratch("locked"), broken = unfinished();
  fs::create_directory(locked);
  fs::permissions(locked, fs::perms::none);
  const bool asRoot = geteuid() == 0;
  const std::string recover =
      "no moov box, only media data: a recording cut short; mp4stbl recover may index its "
      "samples again (mp4stbl recover FILE -o NEW.mp4)";
  const struct { std::vector<std::string> args; int status; std::string out, err; } cases[] = {
      {{"info", broken}, 1, "", "mp4stbl: " + broken + ": " + recover + "\n"},
      {{"remux", broken, "-o", scratch("remuxed.mp4")}, 1, "",
       "mp4stbl: " + broken + ": " + recover + "\n"},
      {{"join", clip, broken, "-o", scratch("joined.mp4")}, 1, "",
       "mp4stbl: " + broken + ": " + recover + "\n"},
      {{"info", clip, "-V"}, 2, "", "mp4stbl: unknown option '-V'\nRun with --help"},
      {{"seek", clip, "--track", "1", "--sample", "3", "--bogus", "-x"}, 2, "",
       "mp4stbl: unknown option '-x'\n"},
      {{"seek", clip, "--sample", "6", "--end-sample", "7"}, 0,
       "\nthe range starts at the key frame, the first sample of chunk 5\n", ""},
      {{"seek", clip, "--sample", "9"}, 0,
       "\nthe range starts at chunk 8, 723 bytes before the key frame: players read whole "
       "chunks\n", ""},
      {{"verify", scratch("locked/x.mp4")}, 1, "",
       asRoot ? "No such file or directory\n" : "cannot open the file: Permission denied\n"},
  };
  for (const auto& c : cases) {
    const Outcome result = cli(c.args);
    EXPECT_EQ(result.status, c.status) << json(c.args).dump() << result.err;
    EXPECT_TRUE(c.out.empty() ? result.out.empty() : result.out.find(c.out) != npos) << result.out;
    EXPECT_NE(result.err.find(c.err), npos) << result.err;
  }
  fs::permissions(locked, fs::perms::owner_all);
  EXPECT_EQ(cli({"info", broken, "--json"}).doc(),
            (json{{"error", recover}, {"file", broken}, {"schema", 1}}));
  EXPECT_EQ(cli({"--json", "info", clip, "-V"}).doc(),
            (json{{"error", "unknown option '-V'"}, {"file", nullptr}, {"schema", 1}}));
}

// Every JSON document carries "schema": 1, failures and usage errors too;
// a track's key frames are a count, with allSync telling whether every
// sample is one, and its sample size a number (0: sizes in a table).
TEST(CliOutputs, EveryJsonDocumentHasASchemaAndOneTypePerField) {
  const std::string clip = std::string(MP4STBL_TEST_DATA) + "/h264_aac.mp4";
  const std::string out = scratch("schema.out"), video = scratch("schema.h264");
  ASSERT_EQ(cli({"extract", clip, "--track", "video", "-o", video}).status, 0);
  const std::vector<std::vector<std::string>> commands = {
      {"info", clip}, {"dump", clip}, {"samples", clip}, {"samples", clip, "--track", "1"},
      {"seek", clip, "--time", "0.1"}, {"verify", clip},
      {"trim", clip, "--from", "0", "--to", "0.2", "-o", out, "-y"},
      {"join", clip, clip, "-o", out, "-y"}, {"remux", clip, "-o", out, "-y"},
      {"record", "--video", video, "-o", out, "-y"},
      {"recover", unfinished(), "--reference", clip, "-o", out, "-y"},
      {"report", clip, "-o", out, "-y"}, {"extract", clip, "--track", "1", "-o", out, "-y"},
      {"info", scratch("missing.mp4")}, {"seek", clip}, {"bogus"}};
  for (std::vector<std::string> args : commands) {
    args.push_back("--json");
    const json doc = cli(args).doc();
    EXPECT_EQ(doc.value("schema", json()), 1) << json(args).dump() << doc.dump();
  }
  for (const std::string& path : mediaFiles(MP4STBL_TEST_DATA)) {
    const json doc = cli({"info", path, "--json"}).doc();
    for (const json& track : doc["tracks"]) {
      SCOPED_TRACE(path + " " + track["id"].dump());
      EXPECT_TRUE(track["keyFrames"].is_number_unsigned());
      EXPECT_TRUE(track["allSync"].is_boolean());
      EXPECT_TRUE(track["sampleSize"].is_number_unsigned());
      if (track["allSync"] == true) {
        EXPECT_EQ(track["keyFrames"], track["samples"]);
      }
    }
  }
  const json tracks = cli({"info", clip, "--json"}).doc()["tracks"];
  EXPECT_EQ(tracks[0]["keyFrames"], 3);
  EXPECT_EQ(tracks[0]["allSync"], false);
  EXPECT_EQ(tracks[1]["keyFrames"], 10);
  EXPECT_EQ(tracks[1]["allSync"], true);
}

// The options a --help lists, each name of "-o,--output" apart.
std::set<std::string> optionsOf(const std::string& help) {
  std::set<std::string> options;
  std::istringstream lines(help);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string first;
    words >> first;
    if (first.size() < 2 || first[0] != '-') continue;
    std::istringstream names(first);
    for (std::string name; std::getline(names, name, ',');) options.insert(name);
  }
  return options;
}

// What the bash completion offers for the last of the words `line`.
std::set<std::string> completed(const std::string& line) {
  const Outcome offered =
      run("bash", {"-c", "source " MP4STBL_COMPLETION "; COMP_WORDS=(" + line +
                             "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _mp4stbl; "
                             "printf \"%s\\n\" \"${COMPREPLY[@]}\""});
  EXPECT_EQ(offered.status, 0) << offered.err;
  std::set<std::string> words;
  std::istringstream lines(offered.out);
  for (std::string word; std::getline(lines, word);) words.insert(word);
  return words;
}

// The bash completion offers what --help lists, so that they cannot drift:
// every subcommand, and for each the options of its own --help and the
// command's; "video" and "audio" after --track. The man page, where
// help2man made one, holds every subcommand's help.
TEST(CliCompletion, OffersWhatHelpLists) {
  const std::string help = cli({"--help"}).out;
  const std::string listed = help.substr(help.find("Subcommands:\n"));
  std::set<std::string> subcommands;
  std::istringstream lines(listed.substr(listed.find('\n') + 1));
  for (std::string line; std::getline(lines, line) && !line.empty();) {
    std::istringstream words(line);
    std::string name;
    words >> name;
    subcommands.insert(name);
  }
  ASSERT_EQ(subcommands.size(), 12u) << help;
  EXPECT_EQ(completed("mp4stbl \"\""), subcommands);
  std::set<std::string> global = optionsOf(help.substr(0, help.find("Subcommands:\n")));
  EXPECT_EQ(completed("mp4stbl -"), global);
  global.erase("--version");
  for (const std::string& subcommand : subcommands) {
    std::set<std::string> options = optionsOf(cli({subcommand, "--help"}).out);
    options.insert(global.begin(), global.end());
    EXPECT_EQ(completed("mp4stbl --json " + subcommand + " x.mp4 -"), options) << subcommand;
  }
  EXPECT_EQ(completed("mp4stbl seek x.mp4 --track \"\""),
            (std::set<std::string>{"video", "audio"}));
  if (!fs::exists(MP4STBL_MAN_PAGE)) GTEST_SKIP() << "no man page: help2man not found";
  const std::string page = slurp(MP4STBL_MAN_PAGE);
  for (const std::string& subcommand : subcommands) {
    EXPECT_NE(page.find(".SS " + subcommand + "\n"), npos) << subcommand;
  }
  EXPECT_NE(page.find("no progress and no notes"), npos);
  EXPECT_NE(page.find("\\-\\-overwrite"), npos);
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
  // The fragmented clip without its fragments: two tracks with no samples.
  const std::string empty = scratch("empty.mp4"), fragments = slurp(fragmented);
  std::ofstream(empty, std::ios::binary) << fragments.substr(0, fragments.find("moof") - 4);
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
      // A key frame asked for, by number or by its time, is where to start.
      {{"seek", clip, "--time", "0.32"}, 0,
       "track 1: sample 9 -> key frame 9 at 0.320 s, chunk 8, offset 10400\n", ""},
      {{"seek", fragmented, "--sample", "9"}, 0,
       "track 1: sample 9 -> key frame 9 at 0.320 s, chunk 2, offset 6861\n", ""},
      {{"seek", empty, "--sample", "1"}, 1, "", "mp4stbl: " + empty + ": track 1 has no samples\n"},
      {{"seek", empty, "--track", "2", "--time", "0"}, 1, "",
       "mp4stbl: " + empty + ": track 2 has no samples\n"},
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
      {{"info", missing}, 1, "",
       "mp4stbl: " + missing + ": cannot open the file: No such file or directory\n"},
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
      {{"seek", clip, "--track", "0", "--sample", "1"}, 2, "", "--track: expects a track id"},
      {{"samples", clip, "--track", "4294967296"}, 2, "",
       "--track: expects a track id, video or audio, not '4294967296'"},
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

// Failures as users read them: "mp4stbl: FILE: reason" on stderr, naming
// once the file that failed (an input, a clip of a join or of its --list,
// the output), or with --json {"error": reason, "file": FILE} on stdout
// and nothing on stderr, with the same exit status; a usage error names no
// file. A failed edit leaves no output and never replaces a device. A
// --list skips blank lines and comments, and lines may end in CR LF.
TEST(CliRuns, FailuresNameTheFileThatFailedOnce) {
  const std::string data = MP4STBL_TEST_DATA, clip = data + "/h264_aac.mp4";
  const std::string fragmented = data + "/frag_h264_aac.mp4", hevc = data + "/hevc.mp4";
  const std::string out = scratch("failed.mp4"), missing = scratch("missing.mp4");
  const std::string nowhere = scratch("nowhere/out.mp4"), noList = scratch("none.txt");
  const std::string list = scratch("clips.txt"), lone = scratch("lone.txt");
  std::ofstream(list, std::ios::binary) << "# two clips\n\n" << clip << "\r\n \t\n" << missing << "\n";
  std::ofstream(lone) << "#" << clip << "\n" << clip << "\n";
  const std::string edit = "-o", help = "Run with --help for more information.\n";
  const struct { std::vector<std::string> args; int status; json file; std::string reason; } cases[] = {
      {{"trim", clip, "--from", "5", "--to", "6", edit, out}, 1, clip,
       "nothing plays from 5.000 s on"},
      {{"join", clip, hevc, edit, out}, 1, hevc, "has 1 track where " + clip + " has 2 tracks"},
      {{"join", "--list", list, edit, out}, 1, missing,
       "cannot open the file: No such file or directory"},
      {{"join", clip, "--list", noList, edit, out}, 1, noList,
       "cannot open the list of clips: No such file or directory"},
      {{"trim", clip, "--from", "5", "--to", "6", edit, out}, 1, clip,
       "nothing plays from 5.000 s on"},
      {{"trim", clip, "--from", "0", "--to", "1", edit, clip}, 1, clip,
       "is one of the inputs; write to another file"},
      {{"trim", clip, "--from", "0", "--to", "1", edit, nowhere}, 1, nowhere,
       "cannot be created: No such file or directory"},
      {{"join", clip, clip, edit, "/dev/full"}, 1, "/dev/full", "is not a regular file"},
      {{"seek", missing, "--sample", "1"}, 1, missing,
       "cannot open the file: No such file or directory"},
      {{"join", "--list", lone, edit, out}, 2, nullptr,
       "join: expects two clips or more (FILES and --list), got 1"},
      {{"seek", clip, "--sample", "0"}, 2, nullptr,
       "--sample: expects a whole number from 1 to 4294967295, not '0'"},
      {{"bogus", clip}, 2, nullptr,
       "unknown subcommand 'bogus': expects info, dump, samples, seek, verify, trim, join, remux, "
       "record, recover, report or extract"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(json(c.args).dump());
    const Outcome text = cli(c.args);
    EXPECT_EQ(text.status, c.status);
    EXPECT_EQ(text.out, "");
    EXPECT_EQ(text.err, c.file.is_null() ? "mp4stbl: " + c.reason + "\n" + help
                                         : "mp4stbl: " + c.file.get<std::string>() + ": " +
                                               c.reason + "\n");
    std::vector<std::string> args = c.args;
    args.push_back("--json");
    const Outcome document = cli(args);
    EXPECT_EQ(document.status, c.status);
    EXPECT_EQ(document.err, "");
    EXPECT_EQ(document.doc(), (json{{"error", c.reason}, {"file", c.file}, {"schema", 1}}));
    EXPECT_FALSE(fs::exists(out));
  }
  EXPECT_TRUE(fs::is_character_file("/dev/full"));
  EXPECT_FALSE(fs::exists(fs::path(nowhere).parent_path()));
  // A walk that fails part way ends its one document with the error.
  const std::string fewChunks = patched("fewchunks.mp4", "stco", 8, std::string("\0\0\0\x08", 4));
  const Outcome walked = cli({"samples", fewChunks, "--track", "1", "--json"});
  EXPECT_EQ(walked.status, 1);
  EXPECT_EQ(walked.err, "");
  EXPECT_EQ(walked.doc()["samples"].size(), 9u);
  EXPECT_EQ(walked.doc()["error"],
            "track 1 (vide, avc1): sample 10 lies in chunk 9, past the 8 chunks of stco");
  const Outcome joined = cli({"join", clip, "--list", lone, edit, out});
  ASSERT_EQ(joined.status, 0) << joined.err;
  EXPECT_EQ(cli({"info", out, "--json"}).doc()["tracks"][0]["samples"], 20);
}

// The bytes of every sample of every track, in decode order, and of the
// sample each track shows at `at` seconds: the last one to start at or
// before it.
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
    double shown = -1e300;
    for (const json& s : samplesOf(path, track["id"].get<unsigned>())) {
      bytes.samples.push_back(all.substr(s["offset"].get<size_t>(), s["size"].get<size_t>()));
      const double when = s["presentationSeconds"].get<double>();
      if (when <= at + 1e-6 && when > shown) {
        shown = when;
        bytes.shownAt = bytes.samples.back();
      }
    }
  }
  return tracks;
}

struct Probed {
  std::vector<double> starts, durations;
  std::vector<long long> packets;  // read by ffprobe, per stream
  std::string errors;  // of a full decode
};

Probed probe(const std::string& path) {
  Probed probed;
  const json streams = json::parse(
      run("ffprobe", {"-v", "error", "-count_packets", "-show_entries",
                      "stream=start_time,duration,nb_read_packets", "-of", "json", path})
          .out)["streams"];
  for (const json& stream : streams) {
    probed.starts.push_back(std::stod(stream["start_time"].get<std::string>()));
    probed.durations.push_back(std::stod(stream["duration"].get<std::string>()));
    probed.packets.push_back(number(stream["nb_read_packets"]));
  }
  probed.errors = run("ffmpeg", {"-v", "error", "-i", path, "-f", "null", "-"}).err;
  return probed;
}

// The frames of the first video stream as ffmpeg decodes them: when each
// is shown (seconds) and the md5 of its picture.
struct Frame {
  double at;
  std::string md5;
  bool operator==(const Frame& other) const { return md5 == other.md5; }
};

std::vector<Frame> frames(const std::string& path) {
  std::vector<Frame> decoded;
  const Outcome md5 = run("ffmpeg", {"-v", "error", "-i", path, "-map", "0:v:0", "-f", "framemd5", "-"});
  EXPECT_EQ(md5.err, "") << path;
  std::istringstream lines(md5.out);
  double tick = 0;
  unsigned num = 0, den = 1;
  for (std::string line; std::getline(lines, line);) {
    if (std::sscanf(line.c_str(), "#tb 0: %u/%u", &num, &den) == 2) tick = double(num) / den;
    if (line.empty() || line[0] == '#') continue;
    long long pts = 0;
    char hash[33] = {};
    if (std::sscanf(line.c_str(), "%*d, %*d, %lld, %*d, %*d, %32s", &pts, hash) == 2) {
      decoded.push_back({static_cast<double>(pts) * tick, hash});
    }
  }
  return decoded;
}

// The frame a player shows at `at` seconds.
std::string frameAt(const std::vector<Frame>& decoded, double at) {
  std::string shown;
  double latest = -1e300;
  for (const Frame& frame : decoded) {
    if (frame.at <= at + 1e-6 && frame.at > latest) latest = frame.at, shown = frame.md5;
  }
  return shown;
}

std::string corpus(const std::string& name) { return std::string(MP4STBL_CORPUS_DIR) + "/" + name; }

Outcome trimJson(const std::string& path, double from, double to, const std::string& out,
                 std::vector<std::string> more = {}) {
  std::vector<std::string> args{"trim", path, "--from", std::to_string(from), "--to",
                                std::to_string(to), "-o", out, "-y", "--json"};
  args.insert(args.end(), more.begin(), more.end());
  return cli(args);
}

// Trims of real files against ffprobe: every stream starts at 0 and lasts
// from the reported start to --to (or to its own end) within a frame (40
// ms at the slowest rate here), decodes without a message, and each
// track's samples are a run of the source's, byte for byte, whose first
// sample shown is the one the source shows at --from.
TEST(CliEdit, TrimsAgainstFfprobe) {
  if (mediaFiles(MP4STBL_CORPUS_DIR).empty()) {
    GTEST_SKIP() << "no corpus in " << MP4STBL_CORPUS_DIR << " (needs ffmpeg)";
  }
  constexpr double kFrame = 0.0417;
  const std::string cut = scratch("cut.mp4");
  for (const char* name : {"h264_bframes.mp4", "long_h264_aac.mp4", "two_audio.mp4",
                           "hevc_ntsc.mp4", "h264_ulaw.mov", "faststart.mp4", "h264_vfr.mp4",
                           "prores_apcs_alaw.mov", "pcm_s16le.mov", "gst_h264_aac.mp4",
                           "timecode.mov", "mp3.mp4", "h264_high_eng.mp4"}) {
    const std::string path = corpus(name);
    SCOPED_TRACE(name);
    const Probed source = probe(path);
    const double length = *std::min_element(source.durations.begin(), source.durations.end());
    const double asked = std::round(length * 30) / 100, to = std::round(length * 70) / 100;
    const Outcome trimmed = trimJson(path, asked, to, cut);
    ASSERT_EQ(trimmed.status, 0) << trimmed.err;
    const double from = trimmed.doc()["from"].get<double>();
    EXPECT_LE(from, asked);
    EXPECT_GT(from, asked - kFrame);
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
      EXPECT_TRUE(after[t].shownAt == before[t].shownAt) << "track " << t + 1;
    }
  }
}

// The first frame a trim shows is the one the source shows at --from, on
// the frame grid and between two frames, at 25, 29.97 and 30 frames a
// second and at a variable rate; the reported start is that frame's.
TEST(CliEdit, TrimStartsOnTheFrameShownAtFrom) {
  if (mediaFiles(MP4STBL_CORPUS_DIR).empty()) GTEST_SKIP() << "no corpus (needs ffmpeg)";
  const std::string cut = scratch("cut.mp4");
  for (const char* name : {"long_h264_aac.mp4", "hevc_ntsc.mp4", "h264_30fps_aac.mp4",
                           "h264_vfr.mp4", "h264_bframes.mp4"}) {
    const std::vector<Frame> source = frames(corpus(name));
    for (double from : {1.0, 1.01, 2.37}) {
      SCOPED_TRACE(std::string(name) + " from " + std::to_string(from));
      const Outcome trimmed = trimJson(corpus(name), from, from + 1, cut);
      ASSERT_EQ(trimmed.status, 0) << trimmed.err;
      const std::vector<Frame> shown = frames(cut);
      ASSERT_FALSE(shown.empty());
      EXPECT_EQ(shown.front().md5, frameAt(source, from));
      EXPECT_EQ(frameAt(source, trimmed.doc()["from"].get<double>()), frameAt(source, from));
    }
  }
}

// A trim follows the source's whole edit list, as players do: edit lists
// that ffmpeg writes when it cuts (a media time inside a GOP; an empty
// edit), and two segments that skip half a second of a B-frame stream.
// The frames shown are the ones the source shows (the first stretch may
// run on to the end of its last B-frame group, which one edit cannot
// hide), and every stream starts at 0.
TEST(CliEdit, TrimFollowsEveryEdit) {
  if (mediaFiles(MP4STBL_CORPUS_DIR).empty()) GTEST_SKIP() << "no corpus (needs ffmpeg)";
  const std::string cut = scratch("cut.mp4"), skipping = scratch("skipping.mp4");
  const std::string source = corpus("h264_30fps_aac.mp4");
  {
    // 0-0.45 s plays media 0-0.45 s, which ends inside a group of B-frames,
    // then 0.45-1.45 s plays media 1-2 s, from a key frame (one a second).
    Mp4File file;
    ASSERT_TRUE(file.open(source).ok());
    const std::vector<Atom*> edits = file.find("moov/trak/edts/elst");
    const std::vector<Atom*> media = file.find("moov/trak/mdia/mdhd");
    ASSERT_EQ(edits.size(), media.size());
    for (size_t t = 0; t < edits.size(); ++t) {
      auto& elst = dynamic_cast<ElstAtom&>(*edits[t]);
      const int64_t start = elst.entries.back().mediaTime;
      const int64_t second = dynamic_cast<MdhdAtom&>(*media[t]).timescale;
      elst.entries = {{450, start, 1, 0}, {1000, start + second, 1, 0}};
    }
    ASSERT_TRUE(file.save(skipping).ok());
  }
  const std::vector<Frame> plain = frames(source);
  auto indexAt = [&plain](double at) {
    return std::find_if(plain.begin(), plain.end(), [at](const Frame& f) { return f.at >= at - 1e-6; });
  };
  const auto second = indexAt(1.0), secondEnd = indexAt(1.8);
  ASSERT_EQ(trimJson(skipping, 0.2, 1.25, cut).status, 0);
  const std::vector<Frame> shown = frames(cut);
  const auto tail = static_cast<size_t>(secondEnd - second);
  ASSERT_GE(shown.size(), tail + static_cast<size_t>(indexAt(0.45) - indexAt(0.2)));
  const json packets = json::parse(run("ffprobe", {"-v", "error", "-select_streams", "v",
                                                   "-show_entries", "packet=pts", "-of", "json",
                                                   cut}).out)["packets"];
  std::vector<long long> times;
  for (const json& packet : packets) times.push_back(number(packet["pts"]));
  std::sort(times.begin(), times.end());
  EXPECT_EQ(std::adjacent_find(times.begin(), times.end()), times.end()) << "a time shown twice";
  const auto head = static_cast<std::ptrdiff_t>(shown.size() - tail);
  EXPECT_TRUE(std::equal(shown.begin(), shown.begin() + head, indexAt(0.2)));
  EXPECT_TRUE(std::equal(shown.begin() + head, shown.end(), second));

  // The video of ss_after.mp4 starts 0.7 s late (an empty edit), as the
  // trim's does from 0.5 s.
  for (const char* name : {"edits/ss_before.mp4", "ss_after.mp4"}) {
    SCOPED_TRACE(name);
    const Probed source = probe(corpus(name));
    const Outcome trimmed = trimJson(corpus(name), 0.5, 2.5, cut);
    ASSERT_EQ(trimmed.status, 0) << trimmed.err;
    const Probed result = probe(cut);
    EXPECT_EQ(result.errors, "");
    ASSERT_EQ(result.starts.size(), source.starts.size());
    for (size_t s = 0; s < result.starts.size(); ++s) {
      EXPECT_NEAR(result.starts[s], std::max(0.0, source.starts[s] - 0.5), 0.024) << s;
    }
    EXPECT_EQ(frames(cut).front().md5, frameAt(frames(corpus(name)), std::max(0.5, source.starts[0])));
  }
}

// With --keyframe there is no edit list, and audio and video still start
// together, within one audio frame, though the video has B-frames.
TEST(CliEdit, KeyFrameTrimStartsAudioAndVideoTogether) {
  if (mediaFiles(MP4STBL_CORPUS_DIR).empty()) GTEST_SKIP() << "no corpus (needs ffmpeg)";
  const std::string cut = scratch("cut.mp4");
  const Outcome trimmed = trimJson(corpus("h264_30fps_aac.mp4"), 1.513, 3.3, cut, {"--keyframe"});
  ASSERT_EQ(trimmed.status, 0) << trimmed.err;
  EXPECT_NEAR(trimmed.doc()["from"].get<double>(), 1.0, 1e-6);
  EXPECT_EQ(cli({"dump", cut}).out.find("elst"), npos);
  const Probed result = probe(cut);
  EXPECT_EQ(result.errors, "");
  ASSERT_EQ(result.starts.size(), 2u);
  EXPECT_NEAR(result.starts[0], result.starts[1], 1024.0 / 48000);
}

// A media time past 2^31 (a time scale of 10^9) moves the edit list to
// version 1; the frame shown first is still the one at --from.
TEST(CliEdit, LargeMediaTimeTakesAVersionOneEdit) {
  if (mediaFiles(MP4STBL_CORPUS_DIR).empty()) GTEST_SKIP() << "no corpus (needs ffmpeg)";
  const std::string cut = scratch("cut.mp4");
  ASSERT_EQ(trimJson(corpus("timescale_1e9.mp4"), 2.5, 3.5, cut).status, 0);
  EXPECT_NE(cli({"dump", cut}).out.find("elst  size 36"), npos);
  EXPECT_EQ(frames(cut).front().md5, frameAt(frames(corpus("timescale_1e9.mp4")), 2.5));
}

// Clips of other B-frame delays (2, 1, 0), profiles and key-frame intervals
// joined play as each clip alone: every sample is one packet, every frame
// decodes as it does in its own clip, each joint has a video frame right
// at it, and after 26 joints the audio still ends within one frame of the
// video (no error builds up); a join of equal clips copied into Matroska
// keeps every packet once, no presentation time twice.
TEST(CliEdit, JoinsPlayAsEachClipAlone) {
  if (mediaFiles(MP4STBL_CORPUS_DIR).empty()) GTEST_SKIP() << "no corpus (needs ffmpeg)";
  const std::vector<std::string> kinds{corpus("join_bf2.mp4"), corpus("join_bf1_high.mp4"),
                                       corpus("join_baseline.mp4")};
  std::vector<std::string> clips;
  std::vector<Frame> expected;
  for (size_t c = 0; c < 27; ++c) {
    clips.push_back(kinds[c % 3]);
    const std::vector<Frame> alone = frames(clips.back());
    expected.insert(expected.end(), alone.begin(), alone.end());
  }
  const std::string joined = scratch("joined.mp4");
  std::vector<std::string> args{"join"};
  args.insert(args.end(), clips.begin(), clips.end());
  args.insert(args.end(), {"-o", joined, "-y"});
  ASSERT_EQ(cli(args).status, 0);
  const Probed probed = probe(joined);
  EXPECT_EQ(probed.errors, "");
  const json info = cli({"info", joined, "--json"}).doc();
  for (size_t s = 0; s < probed.packets.size(); ++s) {
    EXPECT_EQ(probed.packets[s], info["tracks"][s]["samples"].get<long long>()) << "stream " << s;
  }
  const std::vector<Frame> joinedFrames = frames(joined);
  EXPECT_EQ(joinedFrames, expected);
  // A trim of the join, between key frames, shows the join's own frame first.
  const std::string cut = scratch("cut.mp4");
  ASSERT_EQ(trimJson(joined, 10.52, 12, cut).status, 0);
  EXPECT_EQ(frames(cut).front().md5, frameAt(joinedFrames, 10.52));
  for (double start : probe(cut).starts) EXPECT_NEAR(start, 0, 1024.0 / 48000);
  // Offsets moved by a clip's shift stay positive, for readers of version 0 only.
  const std::string dumped = cli({"dump", joined}).out;
  EXPECT_TRUE(std::regex_search(dumped, std::regex("ctts  size [0-9]+  offset [0-9]+  version 0")));

  const json packets = json::parse(run("ffprobe", {"-v", "error", "-show_entries",
                                                   "packet=stream_index,pts_time", "-of", "json",
                                                   joined}).out)["packets"];
  std::vector<double> shown[2];
  for (const json& packet : packets) {
    shown[packet["stream_index"].get<int>()].push_back(std::stod(packet["pts_time"].get<std::string>()));
  }
  for (size_t joint = 1; joint < clips.size(); ++joint) {
    const double at = joint * 1.0;  // every clip lasts one second
    auto nearest = [at](const std::vector<double>& times) {
      double best = 1e300;
      for (double t : times) best = std::min(best, std::fabs(t - at));
      return best;
    };
    EXPECT_LT(nearest(shown[0]), 1e-3) << "video at joint " << joint;
  }
  // Audio frames come every 21 ms, so a joint always has one near it:
  // what shows drift is where the audio ends, after every joint's error.
  ASSERT_FALSE(shown[1].empty());
  EXPECT_NEAR(*std::max_element(shown[1].begin(), shown[1].end()) + 1024.0 / 48000,
              static_cast<double>(clips.size()), 1024.0 / 48000);

  // Each clip's audio runs 0.3 s past its video, so the frame that crosses
  // the clip's end runs a little past each joint: the join drops a frame
  // wherever that brings the audio nearer the joint, and after 26 joints the
  // audio's media still lasts the 27 seconds within a frame, besides the
  // first clip's priming (ffmpeg hides what passes the edit's end, so this
  // is read from the tables).
  const std::string longer = scratch("longer.mp4");
  std::vector<std::string> again{"join", "-y", "-o", longer};
  again.insert(again.end(), 27, corpus("join_long_audio.mp4"));
  ASSERT_EQ(cli(again).status, 0);
  const json audio = cli({"info", longer, "--json"}).doc()["tracks"][1];
  EXPECT_NEAR(audio["duration"].get<double>(), 27 * 48000 + 1024, 1024);

  const std::string same = scratch("same.mp4"), copied = scratch("same.mkv");
  ASSERT_EQ(cli({"join", kinds[0], kinds[0], kinds[0], "-o", same, "-y"}).status, 0);
  ASSERT_EQ(run("ffmpeg", {"-v", "error", "-y", "-i", same, "-c", "copy", copied}).err, "");
  const json mkv = json::parse(run("ffprobe", {"-v", "error", "-show_entries",
                                               "packet=stream_index,pts", "-of", "json",
                                               copied}).out)["packets"];
  const json sameInfo = cli({"info", same, "--json"}).doc();
  // Matroska keeps presentation times only: each once, none repeated.
  std::map<int, std::vector<long long>> times;
  for (const json& packet : mkv) times[packet["stream_index"].get<int>()].push_back(number(packet["pts"]));
  for (int s = 0; s < 2; ++s) {
    std::vector<long long>& shownTimes = times[s];
    EXPECT_EQ(shownTimes.size(), sameInfo["tracks"][s]["samples"].get<size_t>());
    std::sort(shownTimes.begin(), shownTimes.end());
    EXPECT_EQ(std::adjacent_find(shownTimes.begin(), shownTimes.end()), shownTimes.end()) << s;
  }
}

// A packet as ffprobe gives it.
struct Packet {
  long long size = 0, dts = 0, pts = 0;
  bool key = false, discarded = false;
};

std::vector<std::vector<Packet>> packetsOf(const std::string& path) {
  const Outcome probed = run("ffprobe", {"-v", "error", "-show_entries",
                                         "packet=stream_index,size,flags,pts,dts", "-of", "json", path});
  EXPECT_EQ(probed.status, 0) << probed.err;
  std::vector<std::vector<Packet>> streams;
  const json packets = json::parse(probed.out)["packets"];
  for (const json& packet : packets) {
    const auto index = packet["stream_index"].get<size_t>();
    if (streams.size() <= index) streams.resize(index + 1);
    const std::string flags = packet["flags"];
    streams[index].push_back({number(packet["size"]), number(packet["dts"]),
                              number(packet["pts"]), flags.find('K') != npos,
                              flags.find('D') != npos});
  }
  return streams;
}

// Each stream's decoded frames as ffmpeg hashes them, in order; their
// times aside.
std::vector<std::vector<std::string>> framesOf(const std::string& path) {
  const Outcome decoded = run("ffmpeg", {"-v", "error", "-i", path, "-f", "framemd5", "-"});
  EXPECT_EQ(decoded.err, "");
  std::vector<std::vector<std::string>> streams;
  std::istringstream lines(decoded.out);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    const size_t index = std::stoul(line);
    if (streams.size() <= index) streams.resize(index + 1);
    streams[index].push_back(line.substr(line.rfind(',') + 1));
  }
  return streams;
}

// A second of video with B-frames and AAC audio, made by ffmpeg into
// `name` with the muxer's `flags`; the same streams whatever the flags.
std::string encode(const std::string& name, const std::vector<std::string>& flags) {
  std::vector<std::string> args = {
      "-nostdin", "-v", "error", "-y", "-fflags", "+bitexact", "-f", "lavfi", "-i",
      "testsrc2=size=96x64:rate=25:duration=1", "-f", "lavfi", "-i",
      "sine=sample_rate=22050:duration=1", "-map", "0:v", "-map", "1:a", "-c:v", "libx264",
      "-preset", "veryfast", "-threads", "1", "-bf", "3", "-g", "12", "-flags:v", "+bitexact",
      "-c:a", "aac", "-b:a", "32k", "-flags:a", "+bitexact"};
  args.insert(args.end(), flags.begin(), flags.end());
  const std::string path = scratch(name);
  args.insert(args.end(), {"-f", "mp4", path});
  const Outcome made = run("ffmpeg", args);
  EXPECT_EQ(made.status, 0) << made.err;
  return path;
}

// The remux of `source` at `flat` is a regular, fast-start file whose
// packets are the source's as ffprobe lists them: sizes, key flags, decode
// and presentation times. ffmpeg places the times of a fragmented track
// after its largest negative composition offset, those of a regular file
// before it: the times of such a track move back by that offset.
void compareRemux(const std::string& source, const std::string& flat) {
  SCOPED_TRACE(source);
  const json summary = cli({"info", flat, "--json"}).doc();
  EXPECT_EQ(summary["fragmented"], false);
  EXPECT_EQ(summary["fastStart"], true);
  EXPECT_EQ(summary["unreadable"], json::array());
  const auto before = packetsOf(source), after = packetsOf(flat);
  const json tracks = cli({"info", source, "--json"}).doc()["tracks"];
  ASSERT_EQ(after.size(), before.size());
  ASSERT_EQ(tracks.size(), before.size());
  for (size_t s = 0; s < before.size(); ++s) {
    SCOPED_TRACE("stream " + std::to_string(s));
    long long shift = 0;
    if (cli({"info", source, "--json"}).doc()["fragmented"] == true) {
      for (const json& sample : samplesOf(source, tracks[s]["id"].get<unsigned>())) {
        shift = std::min(shift, sample["compositionOffset"].get<long long>());
      }
    }
    ASSERT_EQ(after[s].size(), before[s].size());
    for (size_t i = 0; i < before[s].size(); ++i) {
      EXPECT_EQ(after[s][i].size, before[s][i].size) << i;
      EXPECT_EQ(after[s][i].key, before[s][i].key) << i;
      EXPECT_EQ(after[s][i].dts, before[s][i].dts + shift) << i;
      EXPECT_EQ(after[s][i].pts, before[s][i].pts + shift) << i;
    }
  }
}

// The remux's frames are those of `source`, and one more for each packet
// that ffmpeg discards in the source and not in the remux: its reader of
// fragments drops a sample that decodes no later than the one before, a
// regular file's reader shows it.
void expectFrames(const std::string& flat, const std::string& source) {
  const auto got = framesOf(flat), expected = framesOf(source);
  const auto before = packetsOf(source), after = packetsOf(flat);
  ASSERT_EQ(got.size(), expected.size());
  for (size_t s = 0; s < got.size(); ++s) {
    long long discarded = 0;
    for (const Packet& packet : before[s]) discarded += packet.discarded;
    for (const Packet& packet : after[s]) discarded -= packet.discarded;
    EXPECT_EQ(got[s].size(), expected[s].size() + discarded) << source << " stream " << s;
    auto next = got[s].begin();
    for (const std::string& frame : expected[s]) next = std::find(next, got[s].end(), frame);
    EXPECT_NE(next, got[s].end()) << source << " stream " << s;
  }
}

// Fragmented files of ffmpeg's muxer (fragments at key frames, an edit
// list of no length with delay_moov, CMAF with negative composition
// offsets, a fragment per frame), the shipped one and those of the corpus
// remux to their own packets and frames; a regular file (movie box last)
// remuxes to its own, movie box first, or last when asked. ffmpeg's reader
// of fragments applies no edit list: the delay_moov file's frames are
// those of the same streams written as a regular file, whose edit list
// hides the AAC priming. A fragmented file trims.
TEST(CliRemux, FragmentedAndRegularFilesComeOutRegular) {
  const std::string regular = encode("regular.mp4", {});
  const std::string flat = scratch("flat.mp4");
  for (const auto& [name, flags] : std::vector<std::pair<std::string, std::string>>{
           {"frag_keyframe.mp4", "+frag_keyframe+empty_moov+default_base_moof"},
           {"frag_delay_moov.mp4", "+frag_keyframe+empty_moov+delay_moov"},
           {"cmaf.mp4", "cmaf"},
           {"frag_every_frame.mp4", "+frag_every_frame+empty_moov+default_base_moof"},
           {"regular.mp4", ""}}) {
    const std::string source = flags.empty() ? regular : encode(name, {"-movflags", flags});
    const Outcome remuxed = cli({"remux", source, "-o", flat, "-y"});
    ASSERT_EQ(remuxed.status, 0) << remuxed.err;
    EXPECT_EQ(remuxed.out, "wrote " + flat + "\n");
    compareRemux(source, flat);
    expectFrames(flat, name == "frag_delay_moov.mp4" ? regular : source);
  }
  const Outcome regularRemux = cli({"remux", regular, "-o", flat, "-y", "--moov-last", "--json"});
  ASSERT_EQ(regularRemux.doc()["written"], true);
  EXPECT_EQ(cli({"info", flat, "--json"}).doc()["fastStart"], false);
  expectFrames(flat, regular);

  std::vector<std::string> others = {std::string(MP4STBL_TEST_DATA) + "/frag_h264_aac.mp4"};
  // delay_moov files are compared above, with the regular file's frames.
  for (const std::string& path : filesIn(MP4STBL_CORPUS_DIR, "frag_.*\\.mp4")) {
    if (path.find("delay_moov") == npos) others.push_back(path);
  }
  for (const std::string& source : others) {
    ASSERT_EQ(cli({"remux", source, "-o", flat, "-y"}).status, 0) << source;
    compareRemux(source, flat);
    expectFrames(flat, source);
  }

  const std::string fragmented = scratch("frag_keyframe.mp4");
  ASSERT_EQ(cli({"trim", fragmented, "--from", "0.3", "--to", "0.7", "-o", flat, "-y"}).status, 0);
  EXPECT_EQ(cli({"info", flat, "--json"}).doc()["fragmented"], false);
  const Probed cut = probe(flat);
  EXPECT_EQ(cut.errors, "");
  for (size_t s = 0; s < cut.starts.size(); ++s) {
    EXPECT_NEAR(cut.starts[s], 0, 0.0417) << s;
    EXPECT_NEAR(cut.durations[s], 0.4, 0.0417) << s;
  }
}

// Every track's samples as mp4box.js reads them: offset, size, decode and
// composition time, sync.
json mp4boxSamples(const std::string& module, const std::string& path) {
  const Outcome read = run("node", {MP4STBL_MP4BOX_SCRIPT, module, path});
  EXPECT_EQ(read.status, 0) << path << ": " << read.err;
  return read.doc();
}

// mp4box.js, as a browser's reader, finds in each remux a regular file
// with the samples of its fragmented source: sizes, composition offsets
// and sync flags, at the offsets our reader gives. It runs a fragment's
// decode times on from the one before where the fragment's own (tfdt)
// leaves a gap; the remux keeps them, so its decode times are those our
// reader gives the source.
TEST(CliRemux, Mp4boxJsReadsTheFragmentsSamples) {
  const std::string module =
      std::string(MP4STBL_MP4BOX_DIR) + "/node_modules/mp4box/dist/mp4box.all.mjs";
  if (!fs::exists(module)) GTEST_SKIP() << "no mp4box.js in " << MP4STBL_MP4BOX_DIR;
  std::vector<std::string> sources = {std::string(MP4STBL_TEST_DATA) + "/frag_h264_aac.mp4"};
  for (const std::string& path : filesIn(MP4STBL_CORPUS_DIR, "frag_.*\\.mp4")) sources.push_back(path);
  const std::string flat = scratch("flat.mp4");
  for (const std::string& source : sources) {
    SCOPED_TRACE(source);
    ASSERT_EQ(cli({"remux", source, "-o", flat, "-y"}).status, 0);
    const json before = mp4boxSamples(module, source), after = mp4boxSamples(module, flat);
    EXPECT_EQ(before["fragmented"], true);
    EXPECT_EQ(after["fragmented"], false);
    ASSERT_EQ(after["tracks"].size(), before["tracks"].size());
    for (size_t t = 0; t < before["tracks"].size(); ++t) {
      const auto id = after["tracks"][t]["id"].get<unsigned>();
      const json& theirs = after["tracks"][t]["samples"];
      const json ours = samplesOf(flat, id), decoded = samplesOf(source, id);
      ASSERT_EQ(theirs.size(), before["tracks"][t]["samples"].size());
      ASSERT_EQ(theirs.size(), ours.size());
      ASSERT_EQ(theirs.size(), decoded.size());
      for (size_t i = 0; i < theirs.size(); ++i) {
        const json& was = before["tracks"][t]["samples"][i];
        const long long decode = decoded[i]["decodeTime"];
        const json expected = {ours[i]["offset"], was[1], decode,
                               decode + was[3].get<long long>() - was[2].get<long long>(), was[4]};
        EXPECT_EQ(theirs[i], expected) << "track " << t + 1 << " sample " << i + 1;
      }
    }
  }
}

// GStreamer's pictures of a file's video, one checksum a frame.
std::vector<std::string> gstreamerFrames(const std::string& path) {
  const Outcome decoded = run("gst-launch-1.0", {"-q", "filesrc", "location=" + path, "!", "qtdemux",
                                                 "!", "decodebin", "!", "checksumsink"});
  EXPECT_EQ(decoded.status, 0) << path << ": " << decoded.err;
  std::vector<std::string> sums;
  std::istringstream lines(decoded.out);
  for (std::string time, sum; lines >> time >> sum;) sums.push_back(sum);
  return sums;
}

// What the editor writes, as the other players read it: mp4box.js (a
// browser's reader) finds every sample of a join and of a trim where our
// reader does, with the same times and sync flags, and GStreamer decodes
// the joined clips to the pictures it decodes from each clip alone.
TEST(CliEdit, EditsReadAlikeInMp4boxJsAndGStreamer) {
  if (mediaFiles(MP4STBL_CORPUS_DIR).empty()) GTEST_SKIP() << "no corpus (needs ffmpeg)";
  const std::vector<std::string> clips{corpus("join_bf2.mp4"), corpus("join_bf1_high.mp4"),
                                       corpus("join_baseline.mp4"), corpus("join_bf2.mp4")};
  const std::string joined = scratch("joined.mp4"), cut = scratch("cut.mp4");
  ASSERT_EQ(cli({"join", clips[0], clips[1], clips[2], clips[3], "-o", joined, "-y"}).status, 0);
  ASSERT_EQ(trimJson(corpus("h264_30fps_aac.mp4"), 1.01, 2.5, cut).status, 0);
  std::vector<std::string> alone;
  for (const std::string& clip : clips) {
    const std::vector<std::string> frames = gstreamerFrames(clip);
    alone.insert(alone.end(), frames.begin(), frames.end());
  }
  EXPECT_EQ(gstreamerFrames(joined), alone);

  const std::string module =
      std::string(MP4STBL_MP4BOX_DIR) + "/node_modules/mp4box/dist/mp4box.all.mjs";
  if (!fs::exists(module)) GTEST_SKIP() << "no mp4box.js in " << MP4STBL_MP4BOX_DIR;
  for (const std::string& path : {joined, cut}) {
    SCOPED_TRACE(path);
    const json theirs = mp4boxSamples(module, path)["tracks"];
    ASSERT_EQ(theirs.size(), 2u);
    for (const json& track : theirs) {
      const json ours = samplesOf(path, track["id"].get<unsigned>());
      ASSERT_EQ(track["samples"].size(), ours.size());
      for (size_t i = 0; i < ours.size(); ++i) {
        const long long decode = ours[i]["decodeTime"];
        const json expected = {ours[i]["offset"], ours[i]["size"], decode,
                               decode + ours[i].value("compositionOffset", 0ll), ours[i]["sync"]};
        EXPECT_EQ(track["samples"][i], expected) << "sample " << i + 1;
      }
    }
  }
}

}  // namespace
