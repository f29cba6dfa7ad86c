#include "edit/flatten.h"

#include <algorithm>
#include <memory>
#include <optional>

#include "box/edit_boxes.h"
#include "box/movie_boxes.h"
#include "edit/output.h"
#include "media/track.h"
#include "stbl.h"

namespace mp4stbl::edit {

namespace {

// The per-sample tables that the walk rebuilds; the descriptions, sample
// groups and dependencies stay.
bool isRebuilt(const Atom& box) {
  for (const char* type : {"stts", "ctts", "stsc", "stsz", "stz2", "stss", "stco", "co64"}) {
    if (box.header.type == type) return true;
  }
  return false;
}

bool isFragmentBox(const Atom& box) {
  for (const char* type : {"moof", "mfra", "sidx", "ssix", "styp", "prft"}) {
    if (box.header.type == type) return true;
  }
  return false;
}

// One track's samples, in decode order, into complete tables. A sample's
// duration reaches the next one's decode time, so that a fragment whose own
// decode time leaves a gap (or closes one) decodes when it did; the last
// sample keeps its own duration. Samples that follow each other in the file
// share a chunk.
class TableBuilder {
 public:
  void add(const SampleInfo& sample) {
    if (pending_) {
      const uint64_t gap = sample.decodeTime - pending_->decodeTime;  // wraps when it goes back
      close(gap <= UINT32_MAX ? static_cast<uint32_t>(gap) : pending_->duration);
    } else {
      start_ = sample.decodeTime;
    }
    pending_ = sample;
  }

  // The tables, in the order the stbl lists them.
  std::vector<std::unique_ptr<Atom>> finish() {
    if (pending_) close(pending_->duration);
    if (inChunk_ != 0) stsc_->addEntry(chunks(), inChunk_, description_);
    std::vector<std::unique_ptr<Atom>> tables;
    tables.push_back(std::move(stts_));
    if (hasOffsets_) tables.push_back(std::move(ctts_));
    if (stss_->entries.size() != samples_) tables.push_back(std::move(stss_));
    tables.push_back(std::move(stsc_));
    tables.push_back(std::move(stsz_));
    if (wide_) {
      auto co64 = newBox<Co64Atom>("co64");
      for (uint64_t offset : offsets_) co64->addEntry(offset);
      tables.push_back(std::move(co64));
    } else {
      auto stco = newBox<StcoAtom>("stco");
      for (uint64_t offset : offsets_) stco->addEntry(static_cast<uint32_t>(offset));
      tables.push_back(std::move(stco));
    }
    return tables;
  }

  uint64_t start() const { return start_; }  // decode time of the first sample
  uint64_t duration() const { return duration_; }
  // When the last sample to show stops showing, in composition time.
  uint64_t compositionEnd() const { return compositionEnd_; }

 private:
  uint32_t chunks() const { return static_cast<uint32_t>(offsets_.size()); }

  void close(uint32_t duration) {
    const SampleInfo& sample = *pending_;
    ++samples_;
    stts_->addEntry(1, duration);
    // Wraps like the decode times: only a hostile file comes near 2^63.
    const auto shown = static_cast<int64_t>(
        duration_ + static_cast<uint64_t>(sample.compositionOffset) + duration);
    if (shown > 0) compositionEnd_ = std::max(compositionEnd_, static_cast<uint64_t>(shown));
    duration_ += duration;
    stsz_->addEntry(sample.size);
    if (sample.sync) stss_->addEntry(samples_);
    addOffset(sample.compositionOffset);
    if (samples_ == 1 || sample.offset != chunkEnd_ || sample.descriptionIndex != description_) {
      if (inChunk_ != 0) stsc_->addEntry(chunks(), inChunk_, description_);
      offsets_.push_back(sample.offset);
      wide_ = wide_ || sample.offset > UINT32_MAX;
      description_ = sample.descriptionIndex;
      inChunk_ = 0;
    }
    ++inChunk_;
    chunkEnd_ = sample.offset + sample.size;
  }

  // Composition offsets in runs; a negative one needs version 1.
  void addOffset(int64_t offset) {
    hasOffsets_ = hasOffsets_ || offset != 0;
    if (offset < 0) ctts_->version = 1;
    const auto stored = static_cast<uint32_t>(offset);
    if (!ctts_->entries.empty() && ctts_->entries.back().sampleOffset == stored) {
      ++ctts_->entries.back().sampleCount;
    } else {
      ctts_->entries.push_back({1, stored});
    }
  }

  std::optional<SampleInfo> pending_;
  uint32_t samples_ = 0;
  uint64_t start_ = 0;
  uint64_t duration_ = 0;
  uint64_t compositionEnd_ = 0;
  std::unique_ptr<SttsAtom> stts_ = newBox<SttsAtom>("stts");
  std::unique_ptr<CttsAtom> ctts_ = newBox<CttsAtom>("ctts");
  std::unique_ptr<StssAtom> stss_ = newBox<StssAtom>("stss");
  std::unique_ptr<StscAtom> stsc_ = newBox<StscAtom>("stsc");
  std::unique_ptr<StszAtom> stsz_ = newBox<StszAtom>("stsz");
  bool hasOffsets_ = false;
  std::vector<uint64_t> offsets_;
  bool wide_ = false;
  uint64_t chunkEnd_ = 0;
  uint32_t inChunk_ = 0;
  uint32_t description_ = 0;
};

// The edit list once the media decodes from 0 where its first sample
// decoded at `start`: every media time moves back by `start`, and a segment
// that would begin before the media plays after an empty one instead. A
// segment of no length, as muxers write before they know the length, plays
// to the end of the media (`mediaEnd`, in composition time, so that the
// frames B-frames delay still show); one alone that plays from 0 says
// nothing and goes. Null: no edit list.
std::optional<std::vector<ElstEntry>> flatEdits(const ElstAtom* elst, uint64_t start,
                                                uint64_t mediaEnd, uint32_t timescale,
                                                uint32_t movieTimescale) {
  std::vector<ElstEntry> edits;
  if (elst != nullptr) edits = elst->entries;
  if (edits.empty() && start == 0) return std::nullopt;
  if (edits.empty()) edits.push_back({0, 0, 1, 0});  // the media as it is
  std::vector<ElstEntry> flat;
  bool filled = false;
  for (ElstEntry edit : edits) {
    if (edit.mediaTime >= 0) {
      const auto from = static_cast<uint64_t>(edit.mediaTime);
      if (from < start) {
        const uint64_t lead = rescale(start - from, timescale, movieTimescale);
        flat.push_back({lead, -1, 1, 0});
        if (edit.segmentDuration != 0) edit.segmentDuration -= std::min(edit.segmentDuration, lead);
      }
      edit.mediaTime = static_cast<int64_t>(from < start ? 0 : from - start);
      if (edit.segmentDuration == 0) {
        const auto at = static_cast<uint64_t>(edit.mediaTime);
        edit.segmentDuration = rescale(mediaEnd > at ? mediaEnd - at : 0, timescale, movieTimescale);
        filled = true;
      }
    }
    flat.push_back(edit);
  }
  const ElstEntry& only = flat.front();
  if (flat.size() == 1 && filled && only.mediaTime == 0 && only.rateInteger == 1 &&
      only.rateFraction == 0) {
    return std::nullopt;
  }
  return flat;
}

void setEdits(Atom* trak, std::optional<std::vector<ElstEntry>> edits) {
  Atom* edts = childNamed(trak, "edts");
  auto* elst = edts != nullptr ? childOf<ElstAtom>(edts) : nullptr;
  if (!edits) {
    removeChildren(trak, [](const Atom& box) { return box.header.type == "edts"; });
    return;
  }
  if (elst == nullptr) {
    removeChildren(trak, [](const Atom& box) { return box.header.type == "edts"; });
    auto at = trak->children.begin();
    while (at != trak->children.end() && (*at)->header.type == "tkhd") ++at;
    edts = *trak->children.insert(at, newBox<ContainerAtom>("edts").release());
    elst = newBox<ElstAtom>("elst").release();
    edts->children.push_back(elst);
  }
  elst->entries = std::move(*edits);
  for (const ElstEntry& edit : elst->entries) {
    if (edit.segmentDuration > UINT32_MAX || edit.mediaTime > INT32_MAX) elst->version = 1;
  }
}

Status flattenTrack(const Track& track, Atom* trak) {
  TableBuilder builder;
  SampleWalker walk(track);
  for (;;) {
    Result<const SampleInfo*> sample = walk.next();
    if (!sample.ok()) return sample.status();
    if (*sample == nullptr) break;
    builder.add(**sample);
  }
  const uint64_t start = builder.start();
  Atom* mdia = childNamed(trak, "mdia");
  Atom* stbl = childOf<StblAtom>(childNamed(mdia, "minf"));
  removeChildren(stbl, &isRebuilt);
  auto at = stbl->children.begin();
  while (at != stbl->children.end() && (*at)->header.type == "stsd") ++at;
  for (auto& built : builder.finish()) stbl->children.insert(at, built.release());
  if (auto* mdhd = childOf<MdhdAtom>(mdia)) {
    mdhd->duration = builder.duration();
    if (mdhd->duration > UINT32_MAX) mdhd->version = 1;
  }
  setEdits(trak, flatEdits(track.elst(), start, builder.compositionEnd(), track.timescale(),
                           track.movieTimescale()));
  return Status();
}

}  // namespace

bool isFragmented(Mp4File& file) {
  return !file.find("moof").empty() || !file.find("moov/mvex").empty();
}

Status flattenFragments(Mp4File& file) {
  if (!isFragmented(file)) return Status();
  FoundTracks found = findTracks(file);
  if (!found.unreadable.empty()) return Status::failure(found.unreadable.front());
  const std::vector<Atom*> traks = file.find("moov/trak");
  // Every trak gave a track, in order: none was unreadable.
  for (size_t t = 0; t < found.tracks.size(); ++t) {
    Status flat = flattenTrack(found.tracks[t], traks[t]);
    if (!flat.ok()) return flat;
  }
  for (Atom* moov : file.find("moov")) {
    removeChildren(moov, [](const Atom& box) { return box.header.type == "mvex"; });
  }
  removeChildren(&file.root, &isFragmentBox);
  return Status();
}

}  // namespace mp4stbl::edit
