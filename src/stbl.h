// The sample table of an MP4 track: the stbl box and the boxes beneath it.
#pragma once

#include <cstdint>
#include <vector>

#include "box/atom.h"
#include "box/sample_entry.h"

namespace mp4stbl {

// One run of the time-to-sample table: sampleCount samples of sampleDelta
// time-scale units each.
struct SttsEntry {
  uint32_t sampleCount = 0;
  uint32_t sampleDelta = 0;
};

// "stts": the duration of every sample, as runs of equal durations.
class SttsAtom : public Atom {
 public:
  explicit SttsAtom(const AtomHeader& header);
  ~SttsAtom() override;

  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  // Extends the last run when its delta equals sampleDelta, else opens a run.
  void addEntry(uint32_t sampleCount, uint32_t sampleDelta);
  // Appends the source's runs first..last (1-based record ordinals),
  // folding each into the last run when the deltas agree.
  void merge(const SttsAtom* source, uint32_t first, uint32_t last);
  // Sum of the runs' durations, each run taken modulo 2^32.
  uint64_t totalDuration() const;

  uint8_t version = 0;
  uint32_t flags = 0;
  std::vector<SttsEntry> entries;
};

// One run of the sample-to-chunk table: from chunk firstChunk on, every
// chunk holds samplesPerChunk samples of sample entry sampleDescriptionIndex.
struct StscEntry {
  uint32_t firstChunk = 0;
  uint32_t samplesPerChunk = 0;
  uint32_t sampleDescriptionIndex = 0;
};

// "stsc": how samples are grouped into chunks, as runs of chunks.
class StscAtom : public Atom {
 public:
  explicit StscAtom(const AtomHeader& header);
  ~StscAtom() override;

  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  // Opens a run unless it repeats the last run's grouping.
  void addEntry(uint32_t firstChunk, uint32_t samplesPerChunk, uint32_t sampleDescriptionIndex);
  // A trimmed file holds one sample per chunk: appends the run {1, 1, 1}.
  // The source is not read.
  void crop2new(const StscAtom* source);
  // Passes the source's runs first..last (1-based record ordinals) to
  // addEntry as they stand; first chunks are not renumbered.
  void merge(const StscAtom* source, uint32_t first, uint32_t last);

  // One sample in every chunk from chunk 1 on, all of the first entry.
  static constexpr StscEntry entry{1, 1, 1};

  uint8_t version = 0;
  uint32_t flags = 0;
  std::vector<StscEntry> entries;
};

// "stsz": the size of every sample, in sample order.
class StszAtom : public Atom {
 public:
  explicit StszAtom(const AtomHeader& header);
  ~StszAtom() override;

  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  void addEntry(uint32_t size);
  // Append the sizes of source samples start..end (1-based, inclusive);
  // crop2new traces each size it copies.
  void crop2new(const StszAtom* source, uint32_t start, uint32_t end);
  void merge(const StszAtom* source, uint32_t start, uint32_t end);

  int32_t getCount() const;
  // The size of sample `no` (1-based), 0 when there is no such sample.
  uint32_t getSizeByNO(uint32_t no) const;
  uint64_t TotalSampleSize() const;

  uint8_t version = 0;
  uint32_t flags = 0;
  // Carried verbatim: the size table is read and written whatever it holds.
  uint32_t sample_size = 0;
  // The count written; kept beside entries and moved with it.
  uint32_t sample_count = 0;
  std::vector<uint32_t> entries;
};

// "stss": the numbers of the sync samples (key frames), ascending.
class StssAtom : public Atom {
 public:
  explicit StssAtom(const AtomHeader& header);
  ~StssAtom() override;

  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  void addEntry(uint32_t sampleNo);
  // Replaces *no with the first sync sample at or after it; leaves it when
  // there is none.
  void getIFrameNumber(uint32_t* no) const;
  // Appends the sync samples within start..end, renumbered from 1 at start.
  void crop2new(const StssAtom* source, uint32_t start, uint32_t end);
  // Appends the sync samples within start..end, renumbered to follow
  // `offset` samples of the joined track.
  void merge(const StssAtom* source, uint32_t start, uint32_t end, uint32_t offset);

  uint8_t version = 0;
  uint32_t flags = 0;
  std::vector<uint32_t> entries;
};

// "stco": the file position of every chunk, 32-bit.
class StcoAtom : public Atom {
 public:
  explicit StcoAtom(const AtomHeader& header);
  ~StcoAtom() override;

  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  uint64_t getStartOffset() const;
  void addEntry(uint32_t offset);
  // *pos = position of chunk `no` (1-based); left untouched when there is
  // no such chunk.
  void getPosByNO(uint32_t no, unsigned long long* pos) const;
  // Position of chunk startNo and the distance from it to chunk endNo. The
  // caller clears *startPos first: a non-zero value keeps it as it is.
  void getFramePos(uint32_t startNo, uint32_t endNo, unsigned long long* startPos,
                   uint32_t* dataLen) const;
  // The first chunk, in stored order, that starts at or after offset; the
  // chunk count when none does.
  uint32_t getNextFrameNoByOffset(uint64_t offset) const;
  // The chunk before that one; the chunk count when none does.
  uint32_t getLastFrameNoByOffset(uint64_t offset) const;
  // Append chunks start..end of source, moved so that the first lands at
  // outPos and each later one keeps its distance to its predecessor; the
  // copy stops at the first position that needs more than 32 bits.
  void crop2new(const StcoAtom* source, uint32_t start, uint32_t end, uint64_t outPos);
  void merge(const StcoAtom* source, uint32_t start, uint32_t end, uint64_t outPos);

  uint8_t version = 0;
  uint32_t flags = 0;
  std::vector<uint32_t> entries;
};

// "co64": the file position of every chunk, 64-bit. Answers some questions
// differently from "stco" on purpose; each difference is marked.
class Co64Atom : public Atom {
 public:
  explicit Co64Atom(const AtomHeader& header);
  ~Co64Atom() override;

  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  uint64_t getStartOffset() const;
  void addEntry(uint64_t offset);
  // *pos = position of chunk `no`; 0 and a log line when there is none.
  void getPosByNO(uint32_t no, unsigned long long* pos) const;
  // The first chunk at or after offset; 0 when none does.
  uint32_t getNextFrameNoByOffset(uint64_t offset) const;
  uint32_t getLastFrameNoByOffset(uint64_t offset) const;
  void crop2new(const Co64Atom* source, uint32_t start, uint32_t end, uint64_t outPos);
  void merge(const Co64Atom* source, uint32_t start, uint32_t end, uint64_t outPos);

  uint8_t version = 0;
  uint32_t flags = 0;
  std::vector<uint64_t> entries;
};

// G.711 A-law audio ("alaw"). Identical to UlawAtom but for its class.
class AlawAtom : public G711Atom {
 public:
  explicit AlawAtom(AtomHeader header);
  ~AlawAtom() override;
};

// G.711 mu-law audio ("ulaw").
class UlawAtom : public G711Atom {
 public:
  explicit UlawAtom(AtomHeader header);
  ~UlawAtom() override;
};

// A timed-metadata sample entry ("gpmd"). Its twelve-byte preamble is read
// past and always written as 0, 1 (the data-reference index), 0: what a
// file held there is not kept.
class GpmdAtom : public Atom {
 public:
  explicit GpmdAtom(const AtomHeader& header);
  ~GpmdAtom() override;

  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
};

// "stsd": the sample descriptions, one child box per coding.
class StsdAtom : public Atom {
 public:
  explicit StsdAtom(const AtomHeader& header);
  ~StsdAtom() override;

  // The entry count read is dropped; the count written is the number of
  // children, so the box stays consistent whatever was added or lost.
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;
  // Reads one sample entry, typed by its coding.
  Atom* ReadChild(IOStream* stream) override;

  uint8_t version = 0;
  uint32_t flags = 0;
  uint32_t entryCount = 0;  // never read nor written: stays 0
};

// "stbl": the sample table, a pure container of the boxes above.
class StblAtom : public Atom {
 public:
  explicit StblAtom(const AtomHeader& header);
  ~StblAtom() override;

  // Reads one child, typed by its box type; foreign ones stay opaque.
  Atom* ReadChild(IOStream* stream) override;
};

}  // namespace mp4stbl
