// The boxes of a fragmented file: the defaults of each track (trex in
// mvex) and, in each movie fragment (moof), the track fragment header, its
// decode time and its runs of samples. Fields a flag leaves out are neither
// read nor written, so each box is written back as it was read.
#pragma once

#include <cstdint>
#include <vector>

#include "movie_boxes.h"

namespace mp4stbl {

// Bits of a sample's 32-bit flags.
constexpr uint32_t kSampleIsNonSync = 0x00010000;

// "mehd": the duration of the whole fragmented movie.
class MehdAtom : public FullBoxAtom {
 public:
  explicit MehdAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;

  uint64_t fragmentDuration = 0;

  template <class Visitor>
  void fields(Visitor& v) {
    time(v, fragmentDuration);
  }
};

// "trex": a track's sample defaults for every fragment.
class TrexAtom : public FullBoxAtom {
 public:
  explicit TrexAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  uint32_t trackId = 0;
  uint32_t defaultDescriptionIndex = 0;
  uint32_t defaultDuration = 0;
  uint32_t defaultSize = 0;
  uint32_t defaultFlags = 0;

  template <class Visitor>
  void fields(Visitor& v) {
    v(trackId), v(defaultDescriptionIndex), v(defaultDuration), v(defaultSize), v(defaultFlags);
  }
};

// "mfhd": the sequence number of a movie fragment.
class MfhdAtom : public FullBoxAtom {
 public:
  explicit MfhdAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  uint32_t sequenceNumber = 0;

  template <class Visitor>
  void fields(Visitor& v) {
    v(sequenceNumber);
  }
};

// "tfhd": which track a track fragment belongs to, where its data is
// counted from and the sample defaults that override the track's.
class TfhdAtom : public FullBoxAtom {
 public:
  static constexpr uint32_t kBaseDataOffset = 0x000001;
  static constexpr uint32_t kDescriptionIndex = 0x000002;
  static constexpr uint32_t kDefaultDuration = 0x000008;
  static constexpr uint32_t kDefaultSize = 0x000010;
  static constexpr uint32_t kDefaultFlags = 0x000020;
  static constexpr uint32_t kDurationIsEmpty = 0x010000;
  static constexpr uint32_t kDefaultBaseIsMoof = 0x020000;

  explicit TfhdAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  bool has(uint32_t flag) const { return (flags & flag) != 0; }

  uint32_t trackId = 0;
  uint64_t baseDataOffset = 0;
  uint32_t descriptionIndex = 0;
  uint32_t defaultDuration = 0;
  uint32_t defaultSize = 0;
  uint32_t defaultFlags = 0;

  template <class Visitor>
  void fields(Visitor& v) {
    v(trackId);
    if (has(kBaseDataOffset)) v(baseDataOffset);
    if (has(kDescriptionIndex)) v(descriptionIndex);
    if (has(kDefaultDuration)) v(defaultDuration);
    if (has(kDefaultSize)) v(defaultSize);
    if (has(kDefaultFlags)) v(defaultFlags);
  }
};

// "tfdt": the decode time of a track fragment's first sample.
class TfdtAtom : public FullBoxAtom {
 public:
  explicit TfdtAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  uint64_t baseMediaDecodeTime = 0;

  template <class Visitor>
  void fields(Visitor& v) {
    time(v, baseMediaDecodeTime);
  }
};

// One sample of a run; only the fields the run's flags name are stored.
struct TrunEntry {
  uint32_t duration = 0;
  uint32_t size = 0;
  uint32_t flags = 0;
  uint32_t compositionOffset = 0;  // signed in version 1
};

// "trun": a run of samples stored one after another in the file.
class TrunAtom : public FullBoxAtom {
 public:
  static constexpr uint32_t kDataOffset = 0x000001;
  static constexpr uint32_t kFirstSampleFlags = 0x000004;
  static constexpr uint32_t kDuration = 0x000100;
  static constexpr uint32_t kSize = 0x000200;
  static constexpr uint32_t kFlags = 0x000400;
  static constexpr uint32_t kCompositionOffset = 0x000800;

  explicit TrunAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  bool has(uint32_t flag) const { return (flags & flag) != 0; }
  // The bytes each sample takes in the box.
  unsigned entryBytes() const;
  // Composition minus decode time of entry i: unsigned in version 0.
  int64_t compositionOffset(size_t i) const;

  uint32_t sampleCount = 0;
  uint32_t dataOffset = 0;  // signed, from the track fragment's base
  uint32_t firstSampleFlags = 0;
  std::vector<TrunEntry> entries;  // empty when no per-sample field is stored

  template <class Visitor>
  void fields(Visitor& v) {
    v(sampleCount);
    if (has(kDataOffset)) v(dataOffset);
    if (has(kFirstSampleFlags)) v(firstSampleFlags);
    if (entryBytes() == 0) return;
    v.records(entries, sampleCount, entryBytes());
    for (TrunEntry& entry : entries) {
      if (has(kDuration)) v(entry.duration);
      if (has(kSize)) v(entry.size);
      if (has(kFlags)) v(entry.flags);
      if (has(kCompositionOffset)) v(entry.compositionOffset);
    }
  }
};

}  // namespace mp4stbl
