// Built against an installed copy of the library: records a table, writes
// it to memory and reads it back.
#include <cstdio>

#include "box/file_stream.h"
#include "box/log.h"
#include "box/mp4file.h"
#include "box/stream.h"
#include "media/track.h"
#include "stbl.h"

int main() {
  AtomHeader header;
  header.type = "stts";
  SttsAtom table(header);
  table.addEntry(3, 1000);
  mp4stbl::MemoryStream out;
  if (table.Write(&out) != 0) return 1;

  mp4stbl::MemoryStream in(out.data());
  SttsAtom back(header);
  if (back.Read(&in) != 0 || back.totalDuration() != 3000) return 1;
  // The file layer links as well: a missing file is a failure with a reason.
  mp4stbl::Mp4File file;
  if (file.open("/nonexistent/clip.mp4").ok() || file.open("").message().empty()) return 1;
  std::puts("consumer: ok");
  return 0;
}
