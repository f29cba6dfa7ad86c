// mp4stbl join: a new file holding clips one after the other.
#include <cerrno>
#include <cstring>
#include <fstream>

#include "edit_job.h"

namespace mp4stbl::cli {

namespace {

// The clips --list names: a path a line, as given (relative to the current
// directory); blank lines and lines starting with '#' are skipped. False
// after a failure message.
bool readList(const Options& options, std::vector<std::string>& clips) {
  Options about = options;
  about.file = options.list;
  std::ifstream list(options.list, std::ios::binary);
  if (!list) {
    fail(about, std::string("cannot open the list of clips: ") + std::strerror(errno));
    return false;
  }
  for (std::string line; std::getline(list, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();  // written on Windows
    if (line.find_first_not_of(" \t") == std::string::npos || line[0] == '#') continue;
    clips.push_back(line);
  }
  if (list.bad()) {
    fail(about, "the list of clips cannot be read");
    return false;
  }
  return true;
}

}  // namespace

int join(const Options& options) {
  Options clips = options;
  if (!options.list.empty() && !readList(options, clips.inputs)) return kFailure;
  if (clips.inputs.size() < 2) {
    return usageError(options.json, "join: expects two clips or more (FILES and --list), got " +
                                        std::to_string(clips.inputs.size()));
  }
  return runEdit(clips, [](const Options& o, const EditOptions& e) {
    return mp4stbl::join(o.inputs, o.output, e);
  });
}

}  // namespace mp4stbl::cli
