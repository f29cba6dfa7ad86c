#include "box/sample_entry.h"

#include "box/fields.h"
#include "box/log.h"

namespace mp4stbl {

namespace {

// True when `bytes` is exactly a run of boxes with plain 32-bit sizes.
bool isRunOfBoxes(const std::vector<unsigned char>& bytes) {
  size_t at = 0;
  while (bytes.size() - at >= 8) {
    const uint32_t size = uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 |
                          uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
    if (size < 8 || size > bytes.size() - at) return false;
    at += size;
  }
  return at == bytes.size();
}

// Reads what follows an entry's fields up to the end of its box: opaque
// child boxes when it is a clean run of boxes, raw bytes otherwise.
int readEntryTail(Atom& entry, IOStream* stream, std::vector<unsigned char>& tail) {
  std::vector<unsigned char> rest;
  const long long start = stream->getOffset();
  if (readRestOfBox(stream, entry.header, &rest) != 0) return -1;
  if (!isRunOfBoxes(rest)) {
    tail = std::move(rest);
    return 0;
  }
  if (stream->seek(start) != 0) {
    logStreamFailure(stream, "seek");
    return -1;
  }
  while (stream->getOffset() < stream->getLength()) {
    Atom* child = ReadTypedChild(stream, nullptr, 0);
    if (child == nullptr) return -1;
    entry.children.push_back(child);
  }
  return 0;
}

template <class Entry>
int readEntry(Entry& entry, IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("readData");
    return -1;
  }
  FieldReader reader(stream);
  entry.fields(reader);
  if (reader.status() != 0) return -1;
  return readEntryTail(entry, stream, entry.tail);
}

template <class Entry>
int writeEntry(Entry& entry, IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("writeData");
    return -1;
  }
  FieldWriter writer(stream);
  entry.fields(writer);
  if (writer.status() != 0) return -1;
  return writeRawBytes(stream, entry.tail);
}

}  // namespace

VisualSampleEntry::VisualSampleEntry(const AtomHeader& from) : Atom(from) {}

int VisualSampleEntry::readData(IOStream* stream) { return readEntry(*this, stream); }

int VisualSampleEntry::writeData(IOStream* stream) { return writeEntry(*this, stream); }

AudioSampleEntry::AudioSampleEntry(const AtomHeader& from) : Atom(from) {}

int AudioSampleEntry::readData(IOStream* stream) { return readEntry(*this, stream); }

int AudioSampleEntry::writeData(IOStream* stream) { return writeEntry(*this, stream); }

}  // namespace mp4stbl

using mp4stbl::AudioSampleEntry;
using mp4stbl::VisualSampleEntry;

Mp4aAtom::Mp4aAtom(AtomHeader from) : AudioSampleEntry(from) {}

G711Atom::G711Atom(AtomHeader from) : AudioSampleEntry(from) {}

Avc1Atom::Avc1Atom(AtomHeader& from) : VisualSampleEntry(from) {}

Hvc1Atom::Hvc1Atom(AtomHeader from) : VisualSampleEntry(from) {}

ProresAtom::ProresAtom(AtomHeader& from, const std::string& name)
    : VisualSampleEntry(from), variant(name) {}
