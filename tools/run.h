// The whole mp4stbl command behind one call.
#pragma once

#include <string>
#include <vector>

namespace mp4stbl::cli {

// Runs the command on `args` (without the program name), writing to stdout
// and stderr. Exit status: 0 on success, 1 when a file cannot be read or a
// check fails, 2 on a usage error.
int runCommand(std::vector<std::string> args);

}  // namespace mp4stbl::cli
