// mp4stbl remux: the file written anew as a regular, fast-start one.
#include "edit_job.h"

namespace mp4stbl::cli {

int remux(const Options& options) {
  // A file with no movie box is told how to recover it.
  if (!open(options)) return kFailure;
  return runEdit(options, [](const Options& o, const EditOptions& e) {
    return mp4stbl::remux(o.file, o.output, e);
  });
}

}  // namespace mp4stbl::cli
