#include "record/recorded_track.h"

#include <cmath>
#include <cstdint>

#include "record/sample_entries.h"

namespace mp4stbl::record {

namespace {

// A sample at least this large keeps its own buffer in its chunk.
constexpr uint32_t kKeptSample = 4096;

}  // namespace

void Chunk::add(const uint8_t* bytes, uint32_t count, Bytes* owned) {
  if (owned != nullptr && owned->size() == count && count >= kKeptSample) {
    pieces.push_back(std::move(*owned));
    owned->clear();
    copying = false;
  } else {
    if (!copying) pieces.push_back(std::move(spare));
    copying = true;
    pieces.back().insert(pieces.back().end(), bytes, bytes + count);
  }
  size += count;
}

// The largest piece left (those the file did not take) is kept: a chunk of
// small samples then takes no memory from the system.
void Chunk::clear() {
  samples.clear();
  for (Bytes& piece : pieces) {
    if (piece.capacity() > spare.capacity()) spare.swap(piece);
  }
  spare.clear();
  pieces.clear();
  size = 0;
  copying = false;
}

RecordedTrack::RecordedTrack()
    : stts(std::make_unique<SttsAtom>(headerOf("stts"))),
      stsc(std::make_unique<StscAtom>(headerOf("stsc"))),
      stsz(std::make_unique<StszAtom>(headerOf("stsz"))),
      stss(std::make_unique<StssAtom>(headerOf("stss"))),
      ctts(std::make_unique<CttsAtom>(headerOf("ctts"))),
      stco(std::make_unique<StcoAtom>(headerOf("stco"))) {}

bool RecordedTrack::isVideo() const { return handler[0] == 'v'; }

uint64_t RecordedTrack::ticks(double seconds) const {
  const double value = std::floor(seconds * timescale);
  return value < 1 ? 1 : static_cast<uint64_t>(value);
}

void RecordedTrack::append(const uint8_t* bytes, const HeldSample& sample, uint64_t decodeTime,
                           Bytes* owned) {
  ++sampleCount;
  stts->addEntry(1, sample.duration);
  if (frameSize == 0) stsz->addEntry(sample.size);
  // Sync samples are listed only once one sample is not one; until then
  // the table stays empty, and a track of key frames only needs none.
  if (allSync && !sample.key) {
    allSync = false;
    for (uint32_t n = 1; n < sampleCount; ++n) stss->addEntry(n);
  }
  if (!allSync && sample.key) stss->addEntry(sampleCount);
  const uint32_t offset = static_cast<uint32_t>(sample.compositionOffset);
  if (!ctts->entries.empty() && ctts->entries.back().sampleOffset == offset) {
    ++ctts->entries.back().sampleCount;
  } else {
    ctts->entries.push_back({1, offset});
  }
  if (sample.compositionOffset < 0) ctts->version = 1;
  anyOffset = anyOffset || sample.compositionOffset != 0;

  if (chunks.empty() || decodeTime - chunks.back().startTime >= chunkTicks) {
    if (spareChunks.empty()) {
      chunks.emplace_back();
    } else {
      chunks.push_back(std::move(spareChunks.back()));
      spareChunks.pop_back();
    }
    chunks.back().startTime = decodeTime;
  }
  Chunk& chunk = chunks.back();
  chunk.samples.push_back(sample);
  chunk.add(bytes, sample.size, owned);
  endTime = decodeTime + sample.duration;
  lastDuration = sample.duration;
}

void RecordedTrack::clearChunks() {
  for (Chunk& chunk : chunks) {
    chunk.clear();
    spareChunks.push_back(std::move(chunk));
  }
  chunks.clear();
}

void RecordedTrack::addChunk(uint64_t offset, uint32_t samples) {
  ++chunkCount;
  stsc->addEntry(chunkCount, samples, 1);
  if (!co64 && offset > UINT32_MAX) {
    // The first offset past 4 GiB moves the table to 64-bit entries.
    co64 = std::make_unique<Co64Atom>(headerOf("co64"));
    for (uint32_t earlier : stco->entries) co64->addEntry(earlier);
    stco.reset();
  }
  if (co64) {
    co64->addEntry(offset);
  } else {
    stco->addEntry(static_cast<uint32_t>(offset));
  }
}

}  // namespace mp4stbl::record
