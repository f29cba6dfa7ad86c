#include "recover/tables.h"

#include "box/edit_boxes.h"

namespace mp4stbl::recovery {

TrackTables::TrackTables(uint32_t constantSize)
    : constantSize_(constantSize),
      stts_(edit::newBox<SttsAtom>("stts")),
      stsc_(edit::newBox<StscAtom>("stsc")),
      stsz_(edit::newBox<StszAtom>("stsz")),
      stss_(edit::newBox<StssAtom>("stss")),
      ctts_(edit::newBox<CttsAtom>("ctts")) {}

void TrackTables::add(const FoundSample& sample, uint32_t count) {
  const uint32_t first = samples_ + 1;
  samples_ += count;
  stts_->addEntry(count, sample.duration);
  duration_ += uint64_t{sample.duration} * count;
  shownEnd_ = std::max(shownEnd_, static_cast<int64_t>(duration_) + sample.compositionOffset);
  bytes_ += uint64_t{sample.size} * count;
  if (constantSize_ == 0) {
    for (uint32_t i = 0; i < count; ++i) stsz_->addEntry(sample.size);
  }
  if (count == 1 && sample.sync) stss_->addEntry(first);
  nonSync_ = nonSync_ || !sample.sync;
  addOffset(sample.compositionOffset, count);
  if (first == 1 || sample.offset != chunkEnd_ || sample.description != description_) {
    closeChunk();
    chunkOffsets_.push_back(sample.offset);
    chunkLengths_.push_back(0);
    description_ = sample.description;
  }
  inChunk_ += count;
  chunkLengths_.back() += uint64_t{sample.size} * count;
  chunkEnd_ = sample.offset + uint64_t{sample.size} * count;
}

void TrackTables::addOffset(int64_t offset, uint32_t count) {
  hasOffsets_ = hasOffsets_ || offset != 0;
  if (offset < 0) ctts_->version = 1;
  const auto stored = static_cast<uint32_t>(offset);
  if (!ctts_->entries.empty() && ctts_->entries.back().sampleOffset == stored) {
    ctts_->entries.back().sampleCount += count;
  } else {
    ctts_->entries.push_back({count, stored});
  }
}

void TrackTables::setCompositionOffsets(const std::vector<int64_t>& offsets) {
  ctts_->entries.clear();
  ctts_->version = 0;
  hasOffsets_ = false;
  shownEnd_ = 0;
  int64_t decoded = 0;
  size_t next = 0;
  for (const SttsEntry& run : stts_->entries) {
    for (uint32_t i = 0; i < run.sampleCount && next < offsets.size(); ++i, ++next) {
      decoded += run.sampleDelta;
      shownEnd_ = std::max(shownEnd_, decoded + offsets[next]);
      addOffset(offsets[next], 1);
    }
  }
}

uint32_t TrackTables::firstSize() const {
  if (samples_ == 0) return 0;
  return constantSize_ != 0 ? constantSize_ : stsz_->entries.front();
}

void TrackTables::closeChunk() {
  if (inChunk_ == 0) return;
  stsc_->addEntry(static_cast<uint32_t>(chunkOffsets_.size()), inChunk_, description_);
  inChunk_ = 0;
}

void TrackTables::finish(edit::NewTrack& track, edit::Layout& layout) {
  closeChunk();
  track.sampleCount = samples_;
  track.mediaDuration = duration_;
  track.stts = std::move(stts_);
  track.stsc = std::move(stsc_);
  if (constantSize_ != 0) {
    track.stsz = edit::constantSizeStsz(constantSize_, samples_);
  } else {
    track.stsz = std::move(stsz_);
  }
  if (nonSync_) track.stss = std::move(stss_);
  if (hasOffsets_) track.extras.push_back(std::move(ctts_));
  track.keepGroups = false;
  for (size_t c = 0; c < chunkOffsets_.size(); ++c) {
    layout.add(0, chunkOffsets_[c], chunkLengths_[c]);
  }
  track.chunkOffsets = std::move(chunkOffsets_);
  track.chunkSources.assign(track.chunkOffsets.size(), 0);
}

}  // namespace mp4stbl::recovery
