#include "box/fragment_boxes.h"

#include "box/full_box_io.h"

namespace mp4stbl {

MehdAtom::MehdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int MehdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int MehdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

TrexAtom::TrexAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int TrexAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int TrexAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

MfhdAtom::MfhdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int MfhdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int MfhdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

TfhdAtom::TfhdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int TfhdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int TfhdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

TfdtAtom::TfdtAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int TfdtAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int TfdtAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

TrunAtom::TrunAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int TrunAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int TrunAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

unsigned TrunAtom::entryBytes() const {
  unsigned bytes = 0;
  for (uint32_t field : {kDuration, kSize, kFlags, kCompositionOffset}) {
    if (has(field)) bytes += 4;
  }
  return bytes;
}

int64_t TrunAtom::compositionOffset(size_t i) const {
  const uint32_t stored = entries[i].compositionOffset;
  return version == 0 ? int64_t{stored} : int64_t{static_cast<int32_t>(stored)};
}

}  // namespace mp4stbl
