// mp4stbl join: a new file holding clips one after the other.
#include "edit_job.h"

namespace mp4stbl::cli {

int join(const Options& options) {
  return runEdit(options, [](const Options& o, const EditOptions& e) {
    return mp4stbl::join(o.inputs, o.output, e);
  });
}

}  // namespace mp4stbl::cli
