// The whole mp4stbl command on a file made of the input: every subcommand,
// as text and as JSON, must return a status and never abort, leak or read
// outside its memory; trim, join, remux, report and extract, when they fail,
// leave no file.
// Output goes to /dev/null; scripts/fuzz.sh closes stderr so messages do not
// flood the log.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "run.h"

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

// One scratch file per process, rewritten for each input, removed at exit.
const std::string& inputPath() {
  static const std::string path = "/tmp/mp4stbl_fuzz_command_" + std::to_string(getpid()) + ".mp4";
  static const bool cleaned = std::atexit([] { std::remove(path.c_str()); }) == 0;
  check(cleaned);
  return path;
}

// Where trim, join, remux, report and extract write; one that fails must
// leave nothing there.
const std::string& outputPath() {
  static const std::string path = inputPath() + ".out.mp4";
  return path;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;
  check(quiet);
  const std::string& path = inputPath();
  FILE* file = std::fopen(path.c_str(), "wb");
  check(file != nullptr);
  check(std::fwrite(data, 1, size, file) == size || size == 0);
  check(std::fclose(file) == 0);

  const std::vector<std::vector<std::string>> commands = {
      {"info", path},
      {"dump", path, "--entries", "all"},
      {"samples", path, "--track", "1"},
      {"samples", path, "--track", "2"},
      {"samples", path, "--track", "audio", "--json"},
      {"samples", path},
      {"seek", path, "--time", "0.5"},
      {"seek", path, "--track", "1", "--sample", "3", "--after", "--end-time", "1"},
      {"verify", path},
      {"trim", path, "--from", "0.1", "--to", "0.3", "-o", outputPath(), "-y"},
      {"join", path, path, "-o", outputPath(), "-y"},
      {"remux", path, "-o", outputPath(), "-y"},
      {"report", path, "-o", outputPath(), "-y"},
      {"extract", path, "--track", "video", "-o", outputPath(), "-y"},
      {"extract", path, "--track", "audio", "--from", "0.1", "--to", "0.3", "-o", outputPath(),
       "-y"},
  };
  for (const bool json : {false, true}) {
    for (std::vector<std::string> args : commands) {
      if (json) args.push_back("--json");
      const int status = mp4stbl::cli::runCommand(args);
      check(status == 0 || status == 1);  // the arguments are always well formed
      check(status == 0 || !exists(outputPath()));
      std::remove(outputPath().c_str());
      check(!exists(outputPath() + ".part"));
      std::fflush(stdout);
    }
  }
  return 0;
}
