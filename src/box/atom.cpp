#include "box/atom.h"

#include <algorithm>
#include <climits>
#include <cstdio>

#include "box/log.h"

namespace mp4stbl {

namespace {

constexpr unsigned kChunk = 1u << 30;  // bodies move in pieces of at most this

int logBadSize(const std::string& type, long long offset, unsigned long long length) {
  QX_LOG_Printf("MP4", 3, "box %s at offset %lld has a bad size %llu\n", type.c_str(), offset,
                length);
  return -1;
}

}  // namespace

// ---- AtomHeader ----

int AtomHeader::Read(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("Read");
    return -1;
  }
  const long long start = stream->getOffset();
  uint32_t size32 = 0;
  if (stream->readBe32(&size32) != 4) {
    logStreamFailure(stream, "readBe32");
    return -1;
  }
  unsigned char fourcc[4];
  if (stream->readBytes(fourcc, 4) != 4) {
    logStreamFailure(stream, "readBytes");
    return -1;
  }
  std::string boxType(reinterpret_cast<const char*>(fourcc), 4);

  unsigned long long large = 0;
  const long long streamLength = stream->getLength();
  if (size32 == 1) {
    if (stream->readBe64(&large) != 8) {
      logStreamFailure(stream, "readBe64");
      return -1;
    }
    if (large < 16) return logBadSize(boxType, start, large);
  } else if (size32 == 0) {
    if (streamLength < 0) {
      QX_LOG_Printf("MP4", 3, "box %s at offset %lld runs to the end of a stream of unknown length\n",
                    boxType.c_str(), start);
      return -1;
    }
    large = static_cast<unsigned long long>(streamLength - start);
    if (large < 8) return logBadSize(boxType, start, large);
  } else if (size32 < 8) {
    return logBadSize(boxType, start, size32);
  }

  const unsigned long long length = size32 > 1 ? size32 : large;
  if (streamLength >= 0 && length > static_cast<unsigned long long>(streamLength - start)) {
    QX_LOG_Printf("MP4", 3, "box %s at offset %lld claims %llu bytes, only %lld remain\n",
                  boxType.c_str(), start, length, streamLength - start);
    return -1;
  }

  largeSize = large;
  size = size32;
  type = std::move(boxType);
  headerOffset = static_cast<uint64_t>(start);
  return 0;
}

// ---- Atom ----

Atom::Atom(const AtomHeader& from) : header(from) {}

Atom::~Atom() {
  for (Atom* child : children) delete child;
}

int Atom::readData(IOStream*) { return 0; }

int Atom::writeData(IOStream*) { return 0; }

Atom* Atom::ReadChild(IOStream*) { return nullptr; }

void Atom::describe(FieldSink&) const {}

void FieldSink::signedRow(const int64_t* values, unsigned count) {
  std::vector<uint64_t> wrapped(values, values + count);
  row(wrapped.data(), count);
}

int Atom::Read(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("Read");
    return -1;
  }
  AtomHeader read;
  if (read.Read(stream) != 0) return -1;
  // A typed box refuses a body of another type; a fresh untyped one takes any.
  if (header.type != AtomHeader().type && read.type != header.type) {
    QX_LOG_Printf("MP4", 3, "expected a %s box at offset %llu, found %s\n", header.type.c_str(),
                  static_cast<unsigned long long>(read.headerOffset), read.type.c_str());
    return -1;
  }
  header = read;
  return ReadContent(stream);
}

int Atom::ReadContent(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("ReadContent");
    return -1;
  }
  const uint64_t length = header.boxLength();
  if (header.headerOffset > static_cast<uint64_t>(LLONG_MAX) ||
      length > static_cast<uint64_t>(LLONG_MAX) - header.headerOffset ||
      length < header.headerLength()) {
    return logBadSize(header.type, static_cast<long long>(header.headerOffset), length);
  }
  const long long end = static_cast<long long>(header.headerOffset + length);
  BoundedStream body(stream, end);
  if (body.depth() >= kMaxDepth) {
    QX_LOG_Printf("MP4", 3, "box %s at offset %llu is nested deeper than %u boxes\n",
                  header.type.c_str(), static_cast<unsigned long long>(header.headerOffset),
                  kMaxDepth);
    return -1;
  }
  if (readData(&body) != 0) return -1;

  while (body.getOffset() < end) {
    const long long before = body.getOffset();
    Atom* child = ReadChild(&body);
    if (child == nullptr) {
      // Nothing consumed: the box has no children and the rest of its body
      // is padding. Anything else is a child that failed.
      if (body.getOffset() == before) break;
      return -1;
    }
    children.push_back(child);
  }
  if (stream->seek(end) != 0) {
    logStreamFailure(stream, "seek");
    return -1;
  }
  return 0;
}

int Atom::Write(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("Write");
    return -1;
  }
  if (header.type.size() != 4) {
    QX_LOG_Printf("MP4", 3, "box type '%s' is not four characters\n", header.type.c_str());
    return -1;
  }
  const long long start = stream->getOffset();
  const bool large = header.isLarge();
  const bool toEnd = header.runsToEnd();
  if (stream->writeBe32(large ? 1 : 0) != 4) {
    logStreamFailure(stream, "writeBe32");
    return -1;
  }
  if (stream->writeBytes(reinterpret_cast<const unsigned char*>(header.type.data()), 4) != 4) {
    logStreamFailure(stream, "writeBytes");
    return -1;
  }
  if (large && stream->write64(0) != 8) {
    logStreamFailure(stream, "writeBe64");
    return -1;
  }
  if (writeData(stream) != 0 || writeChildren(stream) != 0) return -1;

  const long long end = stream->getOffset();
  const unsigned long long length = static_cast<unsigned long long>(end - start);
  if (toEnd) return 0;  // the size stays 0: the box still runs to the end
  if (!large && length > UINT32_MAX) {
    QX_LOG_Printf("MP4", 3, "box %s of %llu bytes needs a 64-bit size\n", header.type.c_str(),
                  length);
    return -1;
  }
  // The size field counts what was written, not what the header claims.
  const bool patched = large ? stream->seek(start + 8) == 0 && stream->write64(length) == 8
                             : stream->seek(start) == 0 &&
                                   stream->writeBe32(static_cast<uint32_t>(length)) == 4;
  if (!patched || stream->seek(end) != 0) {
    logStreamFailure(stream, "size patch");
    return -1;
  }
  return 0;
}

int Atom::writeChildren(IOStream* stream) {
  for (Atom* child : children) {
    if (child->Write(stream) != 0) return -1;
  }
  return 0;
}

int Atom::Dump(IOStream* stream, unsigned indent) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("Dump");
    return -1;
  }
  char line[160];
  int length = std::snprintf(line, sizeof line, "%*s%s size=%llu offset=%llu\n",
                             static_cast<int>(std::min(indent, 64u)), "", header.type.c_str(),
                             static_cast<unsigned long long>(header.boxLength()),
                             static_cast<unsigned long long>(header.headerOffset));
  length = std::min(length, static_cast<int>(sizeof line) - 1);
  if (stream->writeBytes(reinterpret_cast<const unsigned char*>(line),
                         static_cast<unsigned>(length)) != length) {
    logStreamFailure(stream, "writeBytes");
    return -1;
  }
  for (Atom* child : children) {
    if (child->Dump(stream, indent + 2) != 0) return -1;
  }
  return 0;
}

// ---- child factories ----

Atom* ReadTypedChild(IOStream* stream, const AtomType* types, size_t count) {
  AtomHeader header;
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("ReadChild");
    return nullptr;
  }
  if (header.Read(stream) != 0) return nullptr;
  const std::string type = header.type;
  AtomMaker make = &makeAtom<UserDefAtom>;
  for (size_t i = 0; i < count; ++i) {
    if (type == types[i].type) {
      make = types[i].make;
      break;
    }
  }
  Atom* child = make(header);
  if (child == nullptr) {
    QX_LOG_Printf("MP4", 3, "new %s atom no memory\n", type.c_str());
    return nullptr;
  }
  if (child->ReadContent(stream) != 0) {
    delete child;
    return nullptr;
  }
  return child;
}

// ---- UserDefAtom ----

UserDefAtom::UserDefAtom(const AtomHeader& from) : Atom(from) {}

int readRestOfBox(IOStream* stream, const AtomHeader& box, std::vector<unsigned char>* bytes) {
  const long long left = stream->getLength() - stream->getOffset();
  if (stream->getLength() < 0 || left < 0 ||
      static_cast<unsigned long long>(left) > bytes->max_size()) {
    return logBadSize(box.type, static_cast<long long>(box.headerOffset), box.boxLength());
  }
  bytes->resize(static_cast<size_t>(left));
  for (size_t done = 0; done < bytes->size();) {
    const unsigned piece = static_cast<unsigned>(std::min<size_t>(bytes->size() - done, kChunk));
    if (static_cast<unsigned>(stream->readBytes(bytes->data() + done, piece)) != piece) {
      logStreamFailure(stream, "readBytes");
      return -1;
    }
    done += piece;
  }
  return 0;
}

int writeRawBytes(IOStream* stream, const std::vector<unsigned char>& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const unsigned piece = static_cast<unsigned>(std::min<size_t>(bytes.size() - done, kChunk));
    if (static_cast<unsigned>(stream->writeBytes(bytes.data() + done, piece)) != piece) {
      logStreamFailure(stream, "writeBytes");
      return -1;
    }
    done += piece;
  }
  return 0;
}

int UserDefAtom::readData(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("readData");
    return -1;
  }
  return readRestOfBox(stream, header, &body);
}

int UserDefAtom::writeData(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("writeData");
    return -1;
  }
  return writeRawBytes(stream, body);
}

}  // namespace mp4stbl
