// A file that appears at its path only once it is whole.
#pragma once

#include <string>

#include "box/file_stream.h"
#include "box/result.h"

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
  bool kept_ = false;
};

// The system's text for an error number, or `otherwise` for 0.
std::string systemReason(int error, const std::string& otherwise);

}  // namespace mp4stbl
