#include "box/movie_boxes.h"

#include "box/full_box_io.h"

namespace mp4stbl {

FullBoxAtom::FullBoxAtom(const AtomHeader& from) : Atom(from) {}

MvhdAtom::MvhdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int MvhdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int MvhdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

TkhdAtom::TkhdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int TkhdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int TkhdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

MdhdAtom::MdhdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int MdhdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int MdhdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

HdlrAtom::HdlrAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int HdlrAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int HdlrAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

std::string HdlrAtom::handlerType() const { return std::string(handler.begin(), handler.end()); }

}  // namespace mp4stbl
