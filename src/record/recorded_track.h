// A track while it is recorded: its description, the sample tables built
// sample by sample, and its samples not yet written to the file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../box/edit_boxes.h"
#include "../media/stream_config.h"
#include "../stbl.h"

namespace mp4stbl::record {

// A sample held in memory until its fragment is written.
struct HeldSample {
  uint32_t size = 0;
  uint32_t duration = 0;
  int32_t compositionOffset = 0;
  bool key = true;
};

// Samples stored one after another in the file.
struct Chunk {
  uint64_t startTime = 0;  // decode time of the first sample
  std::vector<HeldSample> samples;
  // The samples' bytes in order: a large sample's own buffer as the caller
  // gave it, smaller samples copied one after another; written in one call.
  std::vector<Bytes> pieces;
  uint64_t size = 0;
  bool copying = false;  // the last piece takes copies
  Bytes spare;           // a piece written, to take copies again

  // Adds a sample's bytes; `owned`, when given, holds them and may be taken.
  void add(const uint8_t* bytes, uint32_t count, Bytes* owned);
  void clear();
};

// Sample flags of fragments: a key frame depends on no other sample; any
// other sample depends on others and is no sync sample.
constexpr uint32_t kKeySampleFlags = 0x02000000;
constexpr uint32_t kOtherSampleFlags = 0x01010000;

struct RecordedTrack {
  uint32_t id = 0;
  const char* handler = "vide";  // vide, soun or meta
  uint32_t timescale = 0;
  std::unique_ptr<Atom> entry;
  uint32_t presentationDelay = 0;
  uint16_t width = 0;
  uint16_t height = 0;
  // Bytes of every sample of a constant-size track (PCM, G.711); 0 when
  // sizes vary.
  uint32_t frameSize = 0;
  uint64_t chunkTicks = 1;  // a chunk's length in the track's time scale

  std::unique_ptr<SttsAtom> stts;
  std::unique_ptr<StscAtom> stsc;
  std::unique_ptr<StszAtom> stsz;
  std::unique_ptr<StssAtom> stss;
  std::unique_ptr<CttsAtom> ctts;
  std::unique_ptr<StcoAtom> stco;
  std::unique_ptr<Co64Atom> co64;  // replaces stco once an offset needs 64 bits
  bool allSync = true;
  bool anyOffset = false;
  uint32_t sampleCount = 0;
  uint32_t chunkCount = 0;

  bool started = false;
  uint64_t firstDecodeTime = 0;
  uint64_t endTime = 0;  // decode time after the last sample with a duration
  uint32_t lastDuration = 0;

  // The sample whose duration waits for the next sample's decode time.
  bool pending = false;
  uint64_t pendingTime = 0;
  uint32_t pendingDuration = 0;  // the caller's, for when no sample follows
  int32_t pendingOffset = 0;
  bool pendingKey = true;
  Bytes pendingBytes;

  // This fragment's chunks, in time order; the chunks written are kept for
  // the next ones.
  std::vector<Chunk> chunks;
  std::vector<Chunk> spareChunks;

  RecordedTrack();
  bool isVideo() const;
  // Ticks of the track's time scale in `seconds`, at least 1.
  uint64_t ticks(double seconds) const;
  // Adds a sample whose duration is known to the tables and to the
  // fragment, opening a chunk every `chunkTicks`; see Chunk::add.
  void append(const uint8_t* bytes, const HeldSample& sample, uint64_t decodeTime, Bytes* owned);
  // The chunks were written; their buffers are kept.
  void clearChunks();
  // Records where a chunk of `samples` samples starts in the file.
  void addChunk(uint64_t offset, uint32_t samples);
  uint64_t mediaDuration() const { return endTime - firstDecodeTime; }
};

}  // namespace mp4stbl::record
