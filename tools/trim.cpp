// mp4stbl trim: a new file holding what plays between two times.
#include "edit_job.h"

namespace mp4stbl::cli {

int trim(const Options& options) {
  return runEdit(options, [](const Options& o, const EditOptions& e) {
    return mp4stbl::trim(o.file, o.from, o.to, o.output, e);
  }, true);
}

}  // namespace mp4stbl::cli
