// What trim and join share: a progress bar on stderr when it is a terminal
// and the job runs for more than a second, and an interrupt that stops the
// job and leaves no output.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>

#include "edit_job.h"

namespace mp4stbl::cli {

namespace {

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) { interrupted = 1; }

class Progress {
 public:
  Progress() : start_(std::chrono::steady_clock::now()), terminal_(isatty(STDERR_FILENO) != 0) {}
  ~Progress() {
    if (shown_) std::fputc('\n', stderr);
  }

  bool update(uint64_t done, uint64_t total) {
    if (interrupted != 0) return false;
    const auto now = std::chrono::steady_clock::now();
    if (!terminal_ || total == 0 || now - start_ < std::chrono::seconds(1) ||
        now - last_ < std::chrono::milliseconds(100)) {
      return true;
    }
    last_ = now;
    shown_ = true;
    const int width = 40;
    const int filled = static_cast<int>(width * done / total);
    std::fprintf(stderr, "\r[%-*s] %3d%%", width, std::string(filled, '#').c_str(),
                 static_cast<int>(100 * done / total));
    return true;
  }

 private:
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_;
  bool terminal_;
  bool shown_ = false;
};

}  // namespace

int runEdit(const Options& options, EditJob edit, bool window) {
  const auto previous = std::signal(SIGINT, &onInterrupt);
  Result<EditReport> done = Status();
  {
    Progress progress;
    EditOptions editOptions;
    editOptions.keyframe = options.keyframe;
    editOptions.moovLast = options.moovLast;
    editOptions.progress = [&progress](uint64_t copied, uint64_t total) {
      return progress.update(copied, total);
    };
    done = edit(options, editOptions);
  }
  std::signal(SIGINT, previous);
  if (!done.ok()) {
    // Messages name the output; those about an input name the input themselves.
    Options about = options;
    if (about.file.empty()) about.file = options.output;
    return fail(about, interrupted != 0 ? "interrupted; no file was written" : done.message());
  }
  // A trim says where it really starts: on the frame showing at --from.
  if (options.json) {
    nlohmann::json document{{"output", options.output},
                            {"written", true},
                            {"seconds", done->seconds},
                            {"notes", done->notes}};
    if (window) {
      document["from"] = done->from;
      document["to"] = done->to;
    }
    printJson(document);
    return 0;
  }
  std::printf("wrote %s", options.output.c_str());
  if (window) std::printf(" (%.3f s to %.3f s of %s)", done->from, done->to, options.file.c_str());
  std::printf("\n");
  for (const std::string& note : done->notes) std::printf("note: %s\n", note.c_str());
  return 0;
}

}  // namespace mp4stbl::cli
