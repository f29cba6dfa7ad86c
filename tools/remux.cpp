// mp4stbl remux: the file written anew as a regular, fast-start one.
#include "edit_job.h"

namespace mp4stbl::cli {

int remux(const Options& options) {
  return runEdit(options, [](const Options& o, const EditOptions& e) {
    return mp4stbl::remux(o.file, o.output, e);
  });
}

}  // namespace mp4stbl::cli
