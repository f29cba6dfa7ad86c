// Turns every stco of a file into a co64 of the same offsets moved by `shift`.
#pragma once

#include <cstdint>

#include <mp4stbl/box/mp4file.h>
#include <mp4stbl/stbl.h>

inline void widenChunkOffsets(mp4stbl::Mp4File& file, uint64_t shift) {
  for (Atom* stbl : file.find("moov/trak/mdia/minf/stbl")) {
    for (Atom*& child : stbl->children) {
      auto* stco = dynamic_cast<StcoAtom*>(child);
      if (stco == nullptr) continue;
      AtomHeader header;
      header.type = "co64";
      auto* co64 = new Co64Atom(header);
      for (uint32_t offset : stco->entries) co64->addEntry(offset + shift);
      delete child;
      child = co64;
    }
  }
}
