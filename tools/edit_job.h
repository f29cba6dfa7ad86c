// The running of trim and join: progress, interrupt and the outcome.
#pragma once

#include "command.h"
#include "edit/editor.h"

namespace mp4stbl::cli {

using EditJob = Result<EditReport> (*)(const Options&, const EditOptions&);

// Runs `edit` with a progress bar and the interrupt in place; prints the
// outcome as the other commands do (with `window`, where the new file
// starts and ends in the source) and returns the exit status.
int runEdit(const Options& options, EditJob edit, bool window = false);

}  // namespace mp4stbl::cli
