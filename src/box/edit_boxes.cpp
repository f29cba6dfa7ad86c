#include "box/edit_boxes.h"

#include <algorithm>

#include "box/full_box_io.h"

namespace mp4stbl {

namespace {

// Offers the first rows of a table of `count` records, each made by row(i).
template <class Row>
void describeRows(FieldSink& sink, size_t count, Row row) {
  const size_t shown = std::min(count, sink.table(count));
  for (size_t i = 0; i < shown; ++i) row(i);
}

}  // namespace

CttsAtom::CttsAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int CttsAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int CttsAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

void CttsAtom::describe(FieldSink& sink) const {
  if (!describeVersion(sink)) return;
  describeRows(sink, entries.size(), [&](size_t i) {
    const int64_t row[] = {entries[i].sampleCount, offsetOf(entries[i])};
    sink.signedRow(row, 2);
  });
}

ElstAtom::ElstAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int ElstAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int ElstAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

void ElstAtom::describe(FieldSink& sink) const {
  if (!describeVersion(sink)) return;
  describeRows(sink, entries.size(), [&](size_t i) {
    const ElstEntry& e = entries[i];
    // A duration past 2^63 shows as negative: no file plays that long.
    const int64_t row[] = {static_cast<int64_t>(e.segmentDuration), e.mediaTime, e.rateInteger,
                           e.rateFraction};
    sink.signedRow(row, 4);
  });
}

SdtpAtom::SdtpAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int SdtpAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int SdtpAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

void SdtpAtom::describe(FieldSink& sink) const {
  describeVersion(sink);
  // Each byte: is leading, depends on, is depended on, has redundancy.
  describeRows(sink, rest.size(), [&](size_t i) {
    const uint64_t flags = rest[i];
    const uint64_t row[] = {flags >> 6u, (flags >> 4u) & 3u, (flags >> 2u) & 3u, flags & 3u};
    sink.row(row, 4);
  });
}

SgpdAtom::SgpdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int SgpdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int SgpdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

void SgpdAtom::describe(FieldSink& sink) const {
  if (!describeVersion(sink)) return;
  sink.field("grouping_type", groupingType);
  sink.field("default_length", defaultLength);
  if (version >= 2) sink.field("default_description_index", defaultDescriptionIndex);
  // Each entry: its length, then its first 8 bytes read as one number.
  describeRows(sink, entries.size(), [&](size_t i) {
    uint64_t leading = 0;
    for (size_t b = 0; b < std::min<size_t>(entries[i].size(), 8); ++b) {
      leading = leading << 8u | entries[i][b];
    }
    const uint64_t row[] = {entries[i].size(), leading};
    sink.row(row, 2);
  });
}

SbgpAtom::SbgpAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int SbgpAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int SbgpAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

void SbgpAtom::describe(FieldSink& sink) const {
  if (!describeVersion(sink)) return;
  sink.field("grouping_type", groupingType);
  if (version == 1) sink.field("grouping_type_parameter", groupingTypeParameter);
  describeRows(sink, entries.size(), [&](size_t i) {
    const uint64_t row[] = {entries[i].sampleCount, entries[i].groupDescriptionIndex};
    sink.row(row, 2);
  });
}

}  // namespace mp4stbl
