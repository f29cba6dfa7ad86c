#include "box/movie_boxes.h"

#include "box/fields.h"
#include "box/log.h"

namespace mp4stbl {

FullBoxAtom::FullBoxAtom(const AtomHeader& from) : Atom(from) {}

template <class Box>
int FullBoxAtom::readFullBox(Box& box, IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("readData");
    return -1;
  }
  FieldReader reader(stream);
  reader(version);
  reader.u24(flags);
  if (reader.status() == 0 && hasKnownVersion()) box.fields(reader);
  if (reader.status() != 0) return -1;
  return readRestOfBox(stream, header, &rest);
}

template <class Box>
int FullBoxAtom::writeFullBox(Box& box, IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("writeData");
    return -1;
  }
  FieldWriter writer(stream);
  writer(version);
  writer.u24(flags);
  if (hasKnownVersion()) box.fields(writer);
  if (writer.status() != 0) return -1;
  return writeRawBytes(stream, rest);
}

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
