// The boxes an editor keeps consistent with the sample tables: composition
// offsets (ctts), the edit list (elst), sample dependencies (sdtp) and
// sample groups (sgpd, sbgp). Each describes its body once for reading and
// writing; a version it does not know is kept as raw bytes in `rest`.
#pragma once

#include <cstdint>
#include <vector>

#include "movie_boxes.h"

namespace mp4stbl {

struct CttsEntry {
  uint32_t sampleCount = 0;
  uint32_t sampleOffset = 0;  // as stored: unsigned in version 0, signed in version 1
};

// "ctts": composition minus decode time, in runs of samples.
class CttsAtom : public FullBoxAtom {
 public:
  explicit CttsAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  // The offset of a run in time-scale units.
  int64_t offsetOf(const CttsEntry& run) const {
    return version == 1 ? int64_t{static_cast<int32_t>(run.sampleOffset)} : run.sampleOffset;
  }

  std::vector<CttsEntry> entries;

  template <class Visitor>
  void fields(Visitor& v) {
    v.table(entries, 8, [](Visitor& r, CttsEntry& e) { r(e.sampleCount), r(e.sampleOffset); });
  }
};

struct ElstEntry {
  uint64_t segmentDuration = 0;  // movie time scale
  int64_t mediaTime = 0;         // track time scale; -1 for an empty edit
  int16_t rateInteger = 1;
  int16_t rateFraction = 0;
};

// "elst": which stretches of the media play, and when.
class ElstAtom : public FullBoxAtom {
 public:
  explicit ElstAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  std::vector<ElstEntry> entries;

  template <class Visitor>
  void fields(Visitor& v) {
    v.table(entries, version == 1 ? 20 : 12, [this](Visitor& r, ElstEntry& e) {
      time(r, e.segmentDuration);
      if (version == 1) {
        r(e.mediaTime);
      } else {
        r.as32(e.mediaTime);
      }
      r(e.rateInteger), r(e.rateFraction);
    });
  }
};

// "sdtp": one byte of dependency flags per sample. How many samples there
// are is the sample table's business, so the bytes are the rest of the body.
class SdtpAtom : public FullBoxAtom {
 public:
  explicit SdtpAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  const std::vector<unsigned char>& sampleFlags() const { return rest; }

  template <class Visitor>
  void fields(Visitor&) {}
};

// "sgpd": the descriptions of one kind of sample group, each kept as bytes.
// Versions 1 and 2 are parsed; version 0 leaves the entry sizes to the
// grouping type, so its body stays raw.
class SgpdAtom : public FullBoxAtom {
 public:
  explicit SgpdAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  uint32_t groupingType = 0;
  uint32_t defaultLength = 0;  // 0: each entry gives its own length
  uint32_t defaultDescriptionIndex = 0;  // version 2
  std::vector<std::vector<uint8_t>> entries;

  template <class Visitor>
  void fields(Visitor& v) {
    v(groupingType), v(defaultLength);
    if (version >= 2) v(defaultDescriptionIndex);
    v.table(entries, defaultLength == 0 ? 4 : defaultLength,
            [this](Visitor& r, std::vector<uint8_t>& entry) {
              uint32_t length = defaultLength;
              if (length == 0) {
                length = static_cast<uint32_t>(entry.size());
                r(length);
              }
              r.bytes(entry, length);
            });
  }

 protected:
  bool hasKnownVersion() const override { return version == 1 || version == 2; }
};

struct SbgpEntry {
  uint32_t sampleCount = 0;
  uint32_t groupDescriptionIndex = 0;  // 1-based into sgpd; 0: no group
};

// "sbgp": runs of samples and the group each belongs to.
class SbgpAtom : public FullBoxAtom {
 public:
  explicit SbgpAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  uint32_t groupingType = 0;
  uint32_t groupingTypeParameter = 0;  // version 1
  std::vector<SbgpEntry> entries;

  template <class Visitor>
  void fields(Visitor& v) {
    v(groupingType);
    if (version == 1) v(groupingTypeParameter);
    v.table(entries, 8,
            [](Visitor& r, SbgpEntry& e) { r(e.sampleCount), r(e.groupDescriptionIndex); });
  }
};

}  // namespace mp4stbl
