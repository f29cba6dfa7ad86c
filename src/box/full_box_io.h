// How a full box reads and writes its described fields; included by the
// sources of the typed full boxes only.
#pragma once

#include "fields.h"
#include "log.h"
#include "movie_boxes.h"

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
