// What trim and join share: a progress bar on stderr when it is a terminal
// and the job runs for more than a second, and an interrupt that stops the
// job and leaves no output.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "edit_job.h"

namespace mp4stbl::cli {

namespace {

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) { interrupted = 1; }

class Progress {
 public:
  explicit Progress(bool shown)
      : start_(std::chrono::steady_clock::now()), terminal_(shown && isatty(STDERR_FILENO) != 0) {}
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

// The file a message of the editor is about, and the message without its
// name. The editor starts a message with the path of the input or output it
// is about, followed by ": " or a space; one that names none is about the
// input of a trim, unless it is about the new file, and about the output of
// a join, whose clips it does not tell apart.
std::pair<std::string, std::string> namedFile(const Options& options, const std::string& message) {
  std::vector<std::string> paths = options.inputs;
  paths.push_back(options.file);
  paths.push_back(options.output);
  const std::string* named = nullptr;
  for (const std::string& path : paths) {
    const bool leads = !path.empty() && message.size() > path.size() &&
                       message.compare(0, path.size(), path) == 0 &&
                       (message[path.size()] == ':' || message[path.size()] == ' ');
    if (leads && (named == nullptr || path.size() > named->size())) named = &path;
  }
  if (named != nullptr) {
    const size_t from = named->size() + (message.compare(named->size(), 2, ": ") == 0 ? 2 : 1);
    return {*named, message.substr(from)};
  }
  const bool aboutOutput = options.file.empty() || message.rfind("the new file", 0) == 0;
  return {aboutOutput ? options.output : options.file, message};
}

// A clip the editor could not read because it has no moov gets the same
// hint as the commands that open one file.
std::string recordingCutShort(const Options& about, const std::string& reason) {
  if (about.file == about.output) return reason;
  Mp4File file;
  if (!file.open(about.file).ok() || !file.find("moov").empty()) return reason;
  return noMovie(file);
}

int runEdit(const Options& options, EditJob edit, bool window,
            const std::vector<Clamped>& clamps) {
  const auto previous = std::signal(SIGINT, &onInterrupt);
  Result<EditReport> done = Status();
  {
    Progress progress(!options.quiet);
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
    Options about = options;
    std::string reason;
    if (interrupted != 0) {
      about.file = options.output;
      reason = "interrupted; no file was written";
    } else {
      std::tie(about.file, reason) = namedFile(options, done.message());
      reason = recordingCutShort(about, reason);
    }
    return fail(about, reason);
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
      document["clamped"] = clampsDocument(clamps);
    }
    printJson(document);
    return 0;
  }
  std::printf("wrote %s", options.output.c_str());
  if (window) std::printf(" (%.3f s to %.3f s of %s)", done->from, done->to, options.file.c_str());
  std::printf("\n");
  noteClamps(options, clamps);
  for (const std::string& text : done->notes) note(options, text);
  return 0;
}

}  // namespace mp4stbl::cli
