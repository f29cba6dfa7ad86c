// Built against an installed copy of the library: records a table, writes
// it to memory and reads it back.
#include <cstdio>

#include <mp4stbl/box/file_stream.h>
#include <mp4stbl/box/log.h>
#include <mp4stbl/box/mp4file.h>
#include <mp4stbl/box/stream.h>
#include <mp4stbl/media/track.h>
#include <mp4stbl/stbl.h>

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
