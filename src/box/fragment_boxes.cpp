#include "box/fragment_boxes.h"

#include <algorithm>

#include "box/full_box_io.h"

namespace mp4stbl {

MehdAtom::MehdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int MehdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int MehdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

TrexAtom::TrexAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int TrexAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int TrexAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

void TrexAtom::describe(FieldSink& sink) const {
  describeVersion(sink);
  sink.field("track_ID", trackId);
  sink.field("default_sample_description_index", defaultDescriptionIndex);
  sink.field("default_sample_duration", defaultDuration);
  sink.field("default_sample_size", defaultSize);
  sink.field("default_sample_flags", defaultFlags);
}

MfhdAtom::MfhdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int MfhdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int MfhdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

void MfhdAtom::describe(FieldSink& sink) const {
  describeVersion(sink);
  sink.field("sequence_number", sequenceNumber);
}

TfhdAtom::TfhdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int TfhdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int TfhdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

void TfhdAtom::describe(FieldSink& sink) const {
  describeVersion(sink);
  sink.field("track_ID", trackId);
  if (has(kBaseDataOffset)) sink.field("base_data_offset", baseDataOffset);
  if (has(kDescriptionIndex)) sink.field("sample_description_index", descriptionIndex);
  if (has(kDefaultDuration)) sink.field("default_sample_duration", defaultDuration);
  if (has(kDefaultSize)) sink.field("default_sample_size", defaultSize);
  if (has(kDefaultFlags)) sink.field("default_sample_flags", defaultFlags);
}

TfdtAtom::TfdtAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int TfdtAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int TfdtAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

void TfdtAtom::describe(FieldSink& sink) const {
  describeVersion(sink);
  sink.field("base_media_decode_time", baseMediaDecodeTime);
}

TrunAtom::TrunAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int TrunAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int TrunAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

// The first records as their stored fields in file order; a composition
// offset shows as its 32 bits.
void TrunAtom::describe(FieldSink& sink) const {
  describeVersion(sink);
  sink.field("sample_count", sampleCount);
  if (has(kDataOffset)) sink.field("data_offset", dataOffset);
  if (has(kFirstSampleFlags)) sink.field("first_sample_flags", firstSampleFlags);
  if (entryBytes() == 0) return;
  const size_t shown = std::min(entries.size(), sink.table(entries.size()));
  for (size_t i = 0; i < shown; ++i) {
    uint64_t values[4];
    unsigned count = 0;
    const TrunEntry& entry = entries[i];
    if (has(kDuration)) values[count++] = entry.duration;
    if (has(kSize)) values[count++] = entry.size;
    if (has(kFlags)) values[count++] = entry.flags;
    if (has(kCompositionOffset)) values[count++] = entry.compositionOffset;
    sink.row(values, count);
  }
}

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
