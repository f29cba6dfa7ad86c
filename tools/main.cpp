// mp4stbl: inspect, list, seek and verify the sample tables of MP4 files.
//
// Exit status: 0 on success, 1 when a file cannot be read or a check
// fails, 2 on a usage error.
#include <CLI/CLI.hpp>

#include <cctype>
#include <cstdlib>
#include <cstdio>
#include <new>
#include <stdexcept>
#include <string>

#include "box/log.h"
#include "command.h"

namespace {

using mp4stbl::cli::Options;

void showLine(const char* tag, int level, const char* text) {
  std::fprintf(stderr, "[%s %d] %s", tag, level, text);
}

// The library's log lines go to stderr with --verbose; otherwise a failure
// reaches the user through the command's own message only.
void routeLog(bool verbose) {
  mp4stbl::setLogSink(verbose ? mp4stbl::LogSink{&showLine, 0} : mp4stbl::LogSink{&showLine, 4});
}

std::string digitsOrAll(std::string& value) {
  if (value == "all") return "";
  const bool digits = !value.empty() && value.size() <= 20 &&
                      value.find_first_not_of("0123456789") == std::string::npos &&
                      value.find_first_not_of('0') != std::string::npos;
  return digits ? "" : "expects a positive number or all";
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
  return "expects seconds (12.5) or hh:mm:ss.mmm";
}

struct Commands {
  CLI::App* info;
  CLI::App* dump;
  CLI::App* samples;
  CLI::App* seek;
  CLI::App* verify;
  CLI::App* trim;
  CLI::App* join;
};

Commands declare(CLI::App& app, Options& options) {
  auto command = [&](const char* name, const char* about) {
    CLI::App* sub = app.add_subcommand(name, about);
    sub->add_option("FILE", options.file, "MP4 or QuickTime file")->required();
    sub->add_flag("--json", options.json, "one JSON document on stdout");
    sub->add_flag("-v,--verbose", options.verbose, "show the library's log lines");
    return sub;
  };
  auto trackOption = [&](CLI::App* sub, bool required) {
    sub->add_option("--track", options.track,
                    required ? "track id" : "track id (default: the first video track)")
        ->required(required)
        ->check(CLI::PositiveNumber);
  };
  Commands commands{};
  commands.info = command("info", "per-track summary of the sample tables");
  commands.dump = command("dump", "box tree with the fields and first entries of tables");
  commands.dump->add_option("--entries", options.entries, "entries shown per table, or all")
      ->check(CLI::Validator(digitsOrAll, "N|all"));
  commands.samples = command("samples", "one row per sample of a track");
  trackOption(commands.samples, true);
  commands.seek = command("seek", "the key frame to start playing from");
  trackOption(commands.seek, false);
  auto* at = commands.seek->add_option_group("position")->require_option(1);
  const CLI::Validator clockTime(readClockTime, "S|hh:mm:ss.mmm");
  at->add_option("--time", options.time, "seconds, or hh:mm:ss.mmm")->transform(clockTime);
  at->add_option("--sample", options.sample, "1-based sample number")->check(CLI::PositiveNumber);
  auto* to = commands.seek->add_option_group("end")->require_option(0, 1);
  to->add_option("--end-time", options.endTime, "play through this time (seconds, or hh:mm:ss.mmm)")
      ->transform(clockTime);
  commands.seek->add_flag("--after", options.after,
                          "the first key frame at or after the time, not the one before it");
  to->add_option("--end-sample", options.endSample, "play through this sample")
      ->check(CLI::PositiveNumber);
  commands.verify = command("verify", "write the file back and compare the bytes");
  commands.trim = command("trim", "a new file holding what plays between two times");
  commands.trim->add_option("--from", options.from, "start (seconds, or hh:mm:ss.mmm)")
      ->required()
      ->transform(clockTime);
  commands.trim->add_option("--to", options.to, "end (seconds, or hh:mm:ss.mmm)")
      ->required()
      ->transform(clockTime);
  commands.trim->add_option("-o,--output", options.output, "the new file")->required();
  commands.trim->add_flag("--keyframe", options.keyframe,
                          "start at the key frame before --from, with no edit list");
  commands.trim->add_flag("--moov-last", options.moovLast, "movie box after the media data");
  commands.join = app.add_subcommand("join", "a new file holding clips one after the other");
  commands.join->add_option("FILES", options.inputs, "the clips, in playing order")
      ->required()
      ->expected(2, -1);
  commands.join->add_option("-o,--output", options.output, "the new file")->required();
  commands.join->add_flag("--json", options.json, "one JSON document on stdout");
  commands.join->add_flag("-v,--verbose", options.verbose, "show the library's log lines");
  commands.join->add_flag("--moov-last", options.moovLast, "movie box after the media data");
  return commands;
}

int run(const Commands& commands, const Options& options) {
  namespace cli = mp4stbl::cli;
  routeLog(options.verbose);
  if (commands.info->parsed()) return cli::info(options);
  if (commands.dump->parsed()) return cli::dump(options);
  if (commands.samples->parsed()) return cli::samples(options);
  if (commands.seek->parsed()) return cli::seek(options);
  if (commands.verify->parsed()) return cli::verify(options);
  if (commands.trim->parsed()) return cli::trim(options);
  if (commands.join->parsed()) return cli::join(options);
  return 2;
}

}  // namespace


int main(int argc, char** argv) {
  CLI::App app{"Inspect, list, seek and verify the sample tables of MP4 files."};
  app.set_version_flag("--version", "mp4stbl " MP4STBL_VERSION);
  app.require_subcommand(1);
  Options options;
  const Commands commands = declare(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? 0 : 2;
  }
  // A table that cannot grow throws; the command reports it like any failure.
  try {
    return run(commands, options);
  } catch (const std::bad_alloc&) {
    return mp4stbl::cli::fail(options, "out of memory");
  } catch (const std::length_error&) {
    return mp4stbl::cli::fail(options, "a table is longer than this machine can hold");
  }
}
