// mp4stbl: inspect, list, seek and verify the sample tables of MP4 files.
#include <string>
#include <vector>

#include "run.h"

int main(int argc, char** argv) {
  return mp4stbl::cli::runCommand(std::vector<std::string>(argv + 1, argv + argc));
}
