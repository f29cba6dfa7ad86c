// The mp4stbl command as a function: its arguments in, its output on
// stdout and stderr, its exit status out. main() and the fuzz target call it.
#include "run.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <sstream>
#include <stdexcept>

#include "aac_frames.h"
#include <mp4stbl/box/log.h>
#include <mp4stbl/box/table_reason.h>
#include "aac_frames.h"
#include "command.h"

namespace mp4stbl::cli {

namespace {

void showLine(const char* tag, int level, const char* text) {
  std::fprintf(stderr, "[%s %d] %s", tag, level, text);
}

// The library's log lines go to stderr with --verbose; otherwise a failure
// reaches the user through the command's own message only.
void routeLog(bool verbose) {
  mp4stbl::setLogSink(verbose ? mp4stbl::LogSink{&showLine, 0} : mp4stbl::LogSink{&showLine, 4});
}

const std::string kAlso =
    "Also --json (one JSON document on stdout), -q (no progress or notes) and -v (the library's "
    "log lines).";

constexpr const char* kSubcommands[] = {"info", "dump", "samples", "seek", "verify", "trim", "join",
                                           "remux", "record", "recover", "report", "extract"};

// A value as an error message shows it: escaped, and cut after a few
// characters so a long one does not fill the screen.
std::string shownValue(const std::string& value) {
  constexpr size_t kShown = 24;
  if (value.size() <= kShown) return "'" + printable(value) + "'";
  return "'" + printable(value.substr(0, kShown)) + "...' (" + std::to_string(value.size()) +
         " characters)";
}

// The messages of option errors, with every long word cut like a value.
std::string shortened(const std::string& message) {
  std::string text, word;
  for (size_t i = 0; i <= message.size(); ++i) {
    if (i < message.size() && message[i] != ' ' && message[i] != '\n') {
      word += message[i];
      continue;
    }
    text += word.size() > 40 ? shownValue(word) : word;
    if (i < message.size()) text += message[i];
    word.clear();
  }
  return text;
}

// A word left over that looks like an option is named as an unknown one;
// CLI11 lists the words left over after a colon.
std::string parseMessage(const CLI::Error& error) {
  const std::string message = error.what();
  const size_t listed = message.find(": ");
  if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr && listed != std::string::npos) {
    std::istringstream words(message.substr(listed + 2));
    for (std::string word; words >> word;) {
      if (word.size() > 1 && word[0] == '-') return "unknown option " + shownValue(word);
    }
  }
  return shortened(message);
}

std::string digitsOrAll(std::string& value) {
  if (value == "all") return "";
  const bool digits = !value.empty() && value.size() <= 20 &&
                      value.find_first_not_of("0123456789") == std::string::npos &&
                      value.find_first_not_of('0') != std::string::npos;
  return digits ? "" : "expects a positive number or all, not " + shownValue(value);
}

// Track and sample numbers: 1 to 2^32 - 1.
std::string positiveCount(std::string& value) {
  const bool digits = !value.empty() && value.size() <= 10 &&
                      value.find_first_not_of("0123456789") == std::string::npos;
  const unsigned long long number = digits ? std::strtoull(value.c_str(), nullptr, 10) : 0;
  if (number >= 1 && number <= UINT32_MAX) return "";
  return "expects a whole number from 1 to 4294967295, not " + shownValue(value);
}

// Seconds as "12.5", "1:02.5" or "0:01:02.500", rewritten to plain seconds
// for the option's own conversion.
std::string readClockTime(std::string& value) {
  double total = 0;
  size_t from = 0;
  for (int part = 0; part < 3; ++part) {
    const size_t colon = value.find(':', from);
    const std::string field = value.substr(from, colon == std::string::npos ? colon : colon - from);
    const bool last = colon == std::string::npos;
    const bool digits = !field.empty() && field.size() <= 18 &&
                        field.find_first_not_of(last ? "0123456789." : "0123456789") ==
                            std::string::npos &&
                        field.find('.') == field.rfind('.') && field != ".";
    if (!digits) break;
    total = total * 60 + std::strtod(field.c_str(), nullptr);
    if (last) {
      value = std::to_string(total);
      return "";
    }
    from = colon + 1;
  }
  return "expects seconds (12.5) or hh:mm:ss.mmm, not " + shownValue(value);
}

// Seconds of a recording's layout: from a frame at 100 fps to an hour.
std::string layoutSeconds(std::string& value) {
  const bool digits = !value.empty() && value.size() <= 12 &&
                      value.find_first_not_of("0123456789.") == std::string::npos &&
                      value.find('.') == value.rfind('.') && value != ".";
  const double number = digits ? std::strtod(value.c_str(), nullptr) : 0;
  if (number >= 0.01 && number <= 3600) return "";
  return "expects seconds from 0.01 to 3600, not " + shownValue(value);
}

std::string sampleRate(std::string& value) {
  const bool digits = !value.empty() && value.size() <= 6 &&
                      value.find_first_not_of("0123456789") == std::string::npos;
  const unsigned long number = digits ? std::strtoul(value.c_str(), nullptr, 10) : 0;
  if (number >= 1000 && number <= 192000) return "";
  return "expects a sample rate from 1000 to 192000, not " + shownValue(value);
}

std::string frameRate(std::string& value) {
  uint32_t num = 0, den = 0;
  if (parseFrameRate(value, &num, &den)) return "";
  return "expects frames a second as N or N/D (25, 30000/1001), at most 1000, not " +
         shownValue(value);
}

// The track as a number or a kind.
std::string trackOrKind(std::string& value) {
  if (value == "video" || value == "audio") return "";
  std::string copy = value;
  if (positiveCount(copy).empty()) return "";
  return "expects a track id, video or audio, not " + shownValue(value);
}

struct Commands {
  CLI::App* info;
  CLI::App* dump;
  CLI::App* samples;
  CLI::App* seek;
  CLI::App* verify;
  CLI::App* trim;
  CLI::App* join;
  CLI::App* remux;
  CLI::App* record;
  CLI::App* recover;
  CLI::App* report;
  CLI::App* extract;
};

// -o and -y of a subcommand that writes a file.
void outputOption(CLI::App* sub, Options& options, const char* about) {
  sub->add_option("-o,--output", options.output, about)->required();
  sub->add_flag("-y,--overwrite", options.overwrite, "replace the output if it exists");
}

void declareRecord(CLI::App& app, Options& options, Commands& commands) {
  CLI::App* record = commands.record =
      app.add_subcommand("record", "an MP4 file recorded from elementary streams as they come");
  outputOption(record, options, "the new file");
  record->add_option("--video", options.video, "H.264 or HEVC, Annex B (a file, a pipe or -)");
  record->add_option("--audio", options.audio, "AAC in ADTS (a file, a pipe or -)");
  record->add_option("--alaw", options.alaw, "G.711 A-law, mono (a file, a pipe or -)");
  record->add_option("--ulaw", options.ulaw, "G.711 mu-law, mono (a file, a pipe or -)");
  record->add_option("--rate", options.rate, "G.711 sample rate (default 8000)")
      ->check(CLI::Validator(sampleRate, "HZ"));
  record->add_option("--fps", options.fps, "video frame rate, N or N/D (default: the stream's)")
      ->check(CLI::Validator(frameRate, "N[/D]"));
  const CLI::Validator seconds(layoutSeconds, "SECONDS");
  record->add_option("--fragment", options.fragment, "a fragment at least this often (default 1)")
      ->check(seconds);
  record->add_option("--chunk", options.chunk, "samples per chunk, in seconds (default 0.5)")
      ->check(seconds);
  CLI::Option* plain =
      record->add_flag("--plain", options.plain, "one media data box, the movie box at the end");
  CLI::Option* moovFirst =
      record->add_flag("--moov-first", options.moovFirst, "the movie box before the media once done");
  plain->excludes(moovFirst);
  record->add_flag("--sync", options.sync, "flush every fragment to the disk");
  record->footer(
      "Until it is finished the file is fragmented, and plays up to its last fragment "
      "(not with --plain). SIGINT and SIGTERM finish it.\n" +
      kAlso);
}

template <class Command>
void declareExtract(Commands& commands, Command command, const CLI::Validator& clockTime,
                    Options& options) {
  CLI::App* extract = commands.extract =
      command("extract", "a track's samples as an elementary stream (.h264, .265, .aac, ...)");
  extract->add_option("--track", options.track, "track id, video or audio")
      ->required()
      ->check(CLI::Validator(trackOrKind, "N|video|audio"));
  outputOption(extract, options, "the new file");
  extract->add_option("--from", options.from,
                      "start (seconds, or hh:mm:ss.mmm); video from the key frame at or before it")
      ->transform(clockTime);
  extract->add_option("--to", options.endTime, "end (seconds, or hh:mm:ss.mmm)")->transform(clockTime);
  extract->footer(
      "H.264 and HEVC are written in Annex B form, AAC behind ADTS headers, MP3, AC-3, PCM and "
      "G.711 as they are stored; other codings as their raw sample bytes, with a note.\n" +
      kAlso);
}

Commands declare(CLI::App& app, Options& options) {
  // --json and --verbose belong to the command as a whole: a subcommand
  // hands them up, so they go before or after it.
  app.add_flag("--json", options.json, "one JSON document on stdout");
  app.add_flag("-v,--verbose", options.verbose, "show the library's log lines");
  app.add_flag("-q,--quiet", options.quiet, "no progress and no notes; errors still show");
  app.fallthrough();
  auto command = [&](const char* name, const char* about) {
    CLI::App* sub = app.add_subcommand(name, about);
    sub->add_option("FILE", options.file, "MP4 or QuickTime file")->required();
    sub->footer(kAlso);
    return sub;
  };
  const CLI::Validator count(positiveCount, "N");
  auto trackOption = [&](CLI::App* sub, const char* otherwise) {
    sub->add_option("--track", options.track,
                    std::string("track id, video or audio (default: ") + otherwise + ")")
        ->check(CLI::Validator(trackOrKind, "N|video|audio"));
  };
  Commands commands{};
  commands.info = command("info", "per-track summary of the sample tables");
  commands.dump = command("dump", "box tree with the fields and first entries of tables");
  commands.dump->add_option("--entries", options.entries, "entries shown per table, or all")
      ->check(CLI::Validator(digitsOrAll, "N|all"));
  commands.samples = command("samples", "one row per sample of a track");
  trackOption(commands.samples, "every track");
  commands.seek = command("seek", "the key frame to start playing from");
  trackOption(commands.seek, "the first video track");
  auto* at = commands.seek->add_option_group("position")->require_option(1);
  const CLI::Validator clockTime(readClockTime, "S|hh:mm:ss.mmm");
  at->add_option("--time", options.time, "seconds, or hh:mm:ss.mmm")->transform(clockTime);
  at->add_option("--sample", options.sample, "1-based sample number")->check(count);
  auto* to = commands.seek->add_option_group("end")->require_option(0, 1);
  to->add_option("--end-time", options.endTime, "play through this time (seconds, or hh:mm:ss.mmm)")
      ->transform(clockTime);
  commands.seek->add_flag("--after", options.after,
                          "the first key frame at or after the time, not the one before it");
  to->add_option("--end-sample", options.endSample, "play through this sample")
      ->check(count);
  commands.verify = command("verify", "write the file back and compare the bytes");
  commands.trim = command("trim", "a new file holding what plays between two times");
  commands.trim->add_option("--from", options.from, "start (seconds, or hh:mm:ss.mmm)")
      ->required()
      ->transform(clockTime);
  commands.trim->add_option("--to", options.to, "end (seconds, or hh:mm:ss.mmm)")
      ->required()
      ->transform(clockTime);
  outputOption(commands.trim, options, "the new file");
  commands.trim->add_flag("--keyframe", options.keyframe,
                          "start at the key frame before --from, with no edit list");
  commands.trim->add_flag("--moov-last", options.moovLast, "movie box after the media data");
  commands.join = app.add_subcommand("join", "a new file holding clips one after the other");
  commands.join->add_option("FILES", options.inputs, "the clips, in playing order")
      ->expected(1, -1);
  commands.join->add_option("--list", options.list,
                            "a file naming more clips, one path a line, played after FILES");
  outputOption(commands.join, options, "the new file");
  commands.join->add_flag("--moov-last", options.moovLast, "movie box after the media data");
  commands.join->footer(kAlso);
  commands.remux = command("remux", "the file written anew as a regular, fast-start one");
  outputOption(commands.remux, options, "the new file");
  commands.remux->add_flag("--moov-last", options.moovLast, "movie box after the media data");
  declareRecord(app, options, commands);
  commands.recover =
      command("recover", "the samples of a recording whose movie box was never written");
  outputOption(commands.recover, options, "the new file");
  commands.recover->add_option("--reference", options.reference,
                               "a healthy file from the same device and settings");
  commands.report = command("report", "one HTML file of plots: bit rate, frames, layout, edits");
  outputOption(commands.report, options, "the new HTML file");
  trackOption(commands.report, "every track");
  declareExtract(commands, command, clockTime, options);
  return commands;
}

int dispatch(const Commands& commands, const Options& options) {
  routeLog(options.verbose);
  if (refusesOutput(options)) return kFailure;
  if (commands.info->parsed()) return info(options);
  if (commands.dump->parsed()) return dump(options);
  if (commands.samples->parsed()) return samples(options);
  if (commands.seek->parsed()) return seek(options);
  if (commands.verify->parsed()) return verify(options);
  if (commands.trim->parsed()) return trim(options);
  if (commands.join->parsed()) return join(options);
  if (commands.remux->parsed()) return remux(options);
  if (commands.record->parsed()) return record(options);
  if (commands.recover->parsed()) return recover(options);
  if (commands.report->parsed()) return visualReport(options);
  if (commands.extract->parsed()) return extract(options);
  return kUsage;
}

}  // namespace

int runCommand(std::vector<std::string> args) {
  CLI::App app{"Inspect, list, seek, verify, trim, join, remux, record, recover, plot and extract "
               "MP4 files by their sample tables.",
               "mp4stbl"};
  app.set_version_flag("--version", [] {
    return std::string("mp4stbl " MP4STBL_VERSION "\nrecover: AAC frames ") +
           (aacFrameLength() ? "found with libavcodec" : "not found (no libavcodec)");
  });
  app.require_subcommand(1);
  Options options;
  const Commands commands = declare(app, options);
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return "mp4stbl: " + parseMessage(error) + "\nRun with --help for more information.\n";
  });
  // Only --json, --verbose, --help and --version come before the subcommand.
  const auto named = std::find_if(args.begin(), args.end(),
                                  [](const std::string& arg) { return arg.rfind('-', 0) != 0; });
  const auto* known = std::find(std::begin(kSubcommands), std::end(kSubcommands),
                                named != args.end() ? *named : std::string());
  // A usage error is reported as JSON too when --json is among the words.
  const bool json = std::find(args.begin(), args.end(), "--json") != args.end();
  if (named != args.end() && known == std::end(kSubcommands)) {
    return usageError(json, "unknown subcommand " + shownValue(*named) +
                                ": expects info, dump, samples, seek, verify, trim, join, remux, "
                                "record, recover, report or extract");
  }
  std::reverse(args.begin(), args.end());  // CLI11 takes the last argument first
  try {
    app.parse(args);
  } catch (const CLI::ParseError& error) {
    // --help and --version end the parse with status 0.
    if (json && error.get_exit_code() != 0) return usageError(json, parseMessage(error));
    const int status = app.exit(error);
    return status == 0 ? 0 : kUsage;
  }
  // A table that cannot grow throws; the command reports it like any failure.
  try {
    return dispatch(commands, options);
  } catch (const std::bad_alloc&) {
    return fail(options, "out of memory");
  } catch (const std::length_error&) {
    return fail(options, "a table is longer than this machine can hold");
  }
}

}  // namespace mp4stbl::cli
