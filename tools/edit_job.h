// The running of trim and join: progress, interrupt and the outcome.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include <mp4stbl/edit/editor.h>

namespace mp4stbl::cli {

using EditJob = Result<EditReport> (*)(const Options&, const EditOptions&);

// Runs `edit` with a progress bar and the interrupt in place; prints the
// outcome as the other commands do (with `window`, where the new file
// starts and ends in the source, and the times clamped to its end) and
// returns the exit status.
int runEdit(const Options& options, EditJob edit, bool window = false,
            const std::vector<Clamped>& clamps = {});

// The input or output a message of the editor is about (the longest path of
// options.inputs, file and output that starts it), and the message without
// that name.
std::pair<std::string, std::string> namedFile(const Options& options, const std::string& message);

}  // namespace mp4stbl::cli
