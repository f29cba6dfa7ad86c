// A file that appears at its path only once it is whole.
#pragma once

#include <string>

#include "file_stream.h"
#include "result.h"

namespace mp4stbl {

// On Linux the bytes go to an unnamed file in the target's directory
// (O_TMPFILE) that is linked into place when kept, so a process killed
// mid-way leaves nothing behind. Where the system or the file system has
// no unnamed files, they go to a temporary beside the target, renamed into
// place when kept and removed when not. Messages are reasons without the
// path.
class NewFile {
 public:
  explicit NewFile(std::string path);
  // With `beside`, always the temporary beside the target: writes to an
  // unnamed file run at a third of the speed on some file systems (ext4
  // here, for a gigabyte written in pieces of 4 MiB), at the cost of a
  // temporary left behind when the process is killed.
  NewFile(std::string path, bool beside);
  ~NewFile();  // drops a file not kept
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  // Opens `stream` for writing the file's bytes.
  Status open(FileStream& stream);
  // Puts the file written, and closed, in place of any file at the path.
  Status keep();

 private:
  Status openNamed(FileStream& stream);
  Status linkUnnamed();

  std::string path_;
  std::string written_;  // the name the stream wrote to
  int unnamed_ = -1;     // the unnamed file's descriptor
  bool beside_ = false;
  bool kept_ = false;
};

// The system's text for an error number, or `otherwise` for 0.
std::string systemReason(int error, const std::string& otherwise);

}  // namespace mp4stbl
