// Built against an installed copy of the library: records a table, writes
// it to memory and reads it back.
#include <cstdio>

#include "box/iostream.h"
#include "stbl.h"

int main() {
  AtomHeader header;
  header.type = "stts";
  SttsAtom table(header);
  table.addEntry(3, 1000);
  MemoryStream out;
  if (table.Write(&out) != 0) return 1;

  MemoryStream in(out.data());
  SttsAtom back(header);
  if (back.Read(&in) != 0 || back.totalDuration() != 3000) return 1;
  std::puts("consumer: ok");
  return 0;
}
