// mp4stbl recover: the samples of a recording whose movie box was never
// written, indexed again in a regular file.
#include <cstdio>

#include "aac_frames.h"
#include "command.h"
#include "edit_job.h"
#include "key_frames.h"
#include <mp4stbl/recover/recover.h>

namespace mp4stbl::cli {

int recover(const Options& options) {
  RecoverOptions recoverOptions;
  recoverOptions.reference = options.reference;
  recoverOptions.aacFrameLength = aacFrameLength();
  recoverOptions.keyFrameDecodes = keyFrameDecodes();
  recoverOptions.aacFrameDecodes = aacFrameDecodes();
  Result<RecoverReport> done = mp4stbl::recover(options.file, options.output, recoverOptions);
  if (!done.ok()) {
    Options about = options;
    about.inputs = {options.reference};
    std::string reason;
    std::tie(about.file, reason) = namedFile(about, done.message());
    return fail(about, reason);
  }
  if (options.json) {
    nlohmann::json tracks = nlohmann::json::array();
    for (const RecoveredTrack& track : done->tracks) {
      tracks.push_back({{"id", track.id},
                        {"handler", track.handler},
                        {"entry", track.entry},
                        {"samples", track.samples},
                        {"seconds", track.seconds},
                        {"lost", track.lost}});
    }
    printJson({{"output", options.output},
               {"written", true},
               {"from", done->fromReference ? "reference" : "own tables"},
               {"tracks", tracks},
               {"mediaEnd", done->mediaEnd},
               {"unusedBytes", done->unusedBytes},
               {"stop", done->stop.empty() ? nlohmann::json() : nlohmann::json(done->stop)},
               {"notes", done->notes}});
    return 0;
  }
  std::printf("wrote %s\n", options.output.c_str());
  for (const RecoveredTrack& track : done->tracks) {
    std::printf("track %u (%s, %s): %u samples, %.3f s", track.id, track.handler.c_str(),
                track.entry.c_str(), track.samples, track.seconds);
    if (track.lost != 0) std::printf("; %u samples not whole in the file, left out", track.lost);
    std::printf("\n");
  }
  if (done->unusedBytes != 0) {
    std::printf("%llu bytes from offset %llu hold no whole sample and were left out",
                static_cast<unsigned long long>(done->unusedBytes),
                static_cast<unsigned long long>(done->mediaEnd));
    if (!done->stop.empty()) std::printf(" (%s)", done->stop.c_str());
    std::printf("\n");
  }
  for (const std::string& text : done->notes) note(options, text);
  return 0;
}

}  // namespace mp4stbl::cli
