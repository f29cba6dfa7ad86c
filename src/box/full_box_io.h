// How a full box reads and writes its body: version and flags, the fields
// its version knows, then the rest kept as bytes. Shared by the typed boxes.
#pragma once

#include "box/fields.h"
#include "box/log.h"
#include "box/movie_boxes.h"

namespace mp4stbl {

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

}  // namespace mp4stbl
