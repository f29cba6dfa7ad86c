#include "media/track.h"

#include <algorithm>

#include "box/movie_boxes.h"

namespace mp4stbl {

namespace {

// The one child of `parent` of class Box; null when there is none, a
// failure when there are two.
template <class Box>
Result<const Box*> only(const Atom* parent, const char* type, const Track& track) {
  const Box* found = nullptr;
  for (const Atom* child : parent->children) {
    const auto* box = dynamic_cast<const Box*>(child);
    if (box == nullptr) continue;
    if (found != nullptr) {
      return track.fail(std::string("its stbl has two ") + type + " boxes");
    }
    found = box;
  }
  return found;
}

template <class Box>
const Box* childOf(const Atom* parent) {
  for (const Atom* child : parent->children) {
    if (const auto* box = dynamic_cast<const Box*>(child)) return box;
  }
  return nullptr;
}

const Atom* childNamed(const Atom* parent, const char* type) {
  for (const Atom* child : parent->children) {
    if (child->header.type == type) return child;
  }
  return nullptr;
}

const std::vector<uint32_t>& syncSamples(const Track& track) {
  static const std::vector<uint32_t> none;
  return track.stss() != nullptr ? track.stss()->entries : none;
}

}  // namespace

uint64_t Track::chunkCount() const {
  return stco_ != nullptr ? stco_->entries.size() : co64_->entries.size();
}

uint64_t Track::chunkOffset(uint64_t chunk) const {
  if (chunk > chunkCount() && chunk - chunkCount() <= fragments_.runs.size()) {
    return fragments_.runs[chunk - chunkCount() - 1].dataStart;
  }
  if (chunk == 0 || chunk > chunkCount()) return 0;
  return stco_ != nullptr ? stco_->entries[chunk - 1] : co64_->entries[chunk - 1];
}

uint32_t Track::sampleSize(uint32_t number) const {
  if (number == 0 || number > sampleCount_) return 0;
  return stsz_ != nullptr ? stsz_->entries[number - 1] : constantSize_;
}

uint64_t Track::totalSampleBytes() const {
  const uint64_t table =
      stsz_ != nullptr ? stsz_->TotalSampleSize() : uint64_t{constantSize_} * sampleCount_;
  return table + fragments_.bytes;
}

uint64_t Track::mediaDuration() const {
  uint64_t total = fragments_.duration;
  for (const SttsEntry& run : stts_->entries) total += uint64_t{run.sampleCount} * run.sampleDelta;
  return total;
}

uint64_t Track::presentationDuration() const {
  uint64_t total = 0;
  if (elst_ == nullptr) return total;
  for (const ElstEntry& edit : elst_->entries) {
    if (edit.segmentDuration == 0 && edit.mediaTime >= 0 && fragmented()) {
      const uint64_t media = mediaDuration(), start = static_cast<uint64_t>(edit.mediaTime);
      total += rescale(media > start ? media - start : 0, timescale_, movieTimescale_);
      continue;
    }
    total += edit.segmentDuration;  // wraps past 2^64
  }
  return total;
}

// Wraps when the result passes 2^64; the remainder times a 32-bit scale
// always fits.
uint64_t rescale(uint64_t units, uint32_t from, uint32_t to) {
  if (from == 0) return 0;
  const uint64_t whole = units / from, part = units % from;
  return whole * to + (part * to + from / 2) / from;
}

int64_t Track::presentationShift() const {
  if (elst_ == nullptr) return 0;
  uint64_t empty = 0;
  // Arithmetic on the two's complement of the shift wraps on purpose: only
  // a hostile file comes near 2^63.
  for (const ElstEntry& edit : elst_->entries) {
    // -1 marks an empty edit; no other negative time names any media.
    if (edit.mediaTime < 0) {
      empty += edit.segmentDuration;
      continue;
    }
    return static_cast<int64_t>(rescale(empty, movieTimescale_, timescale_) -
                                static_cast<uint64_t>(edit.mediaTime));
  }
  return static_cast<int64_t>(rescale(empty, movieTimescale_, timescale_));
}

Status Track::fail(const std::string& what) const {
  std::string name = "track " + std::to_string(id_);
  const std::string entry = stsd_ != nullptr ? entryType() : "";
  if (!handler_.empty() || !entry.empty()) {
    name += " (" + (handler_.empty() ? "?" : handler_) + (entry.empty() ? "" : ", " + entry) + ")";
  }
  return Status::failure(name + ": " + what);
}

std::string Track::entryType() const {
  return stsd_->children.empty() ? "" : stsd_->children.front()->header.type;
}

const char* Track::kind() const {
  if (handler_ == "vide") return "video";
  if (handler_ == "soun") return "audio";
  if (handler_ == "meta" || handler_ == "text" || handler_ == "sbtl" || handler_ == "subt" ||
      handler_ == "tmcd") {
    return "metadata";
  }
  return "other";
}

Status Track::check() const {
  uint64_t timed = 0;
  for (const SttsEntry& run : stts_->entries) timed += run.sampleCount;
  if (timed != sampleCount()) {
    return fail("stts times " + std::to_string(timed) + " samples, stsz sizes " +
                               std::to_string(sampleCount()));
  }
  if (sampleCount() > 0 && stsc_->entries.empty()) return fail("stsc is empty");
  uint64_t previous = 0;
  for (const StscEntry& run : stsc_->entries) {
    if (run.firstChunk <= previous || (previous == 0 && run.firstChunk != 1)) {
      return fail("stsc first chunks must start at 1 and rise, found " +
                                 std::to_string(run.firstChunk));
    }
    if (run.samplesPerChunk == 0) return fail("stsc run with 0 samples per chunk");
    if (run.sampleDescriptionIndex == 0 || run.sampleDescriptionIndex > stsd_->children.size()) {
      return fail("stsc names sample description " +
                                 std::to_string(run.sampleDescriptionIndex) + " of " +
                                 std::to_string(stsd_->children.size()) + " in stsd");
    }
    previous = run.firstChunk;
  }
  if (ctts_ != nullptr) {
    // A shorter table leaves the last samples at offset 0, as players do.
    uint64_t offsets = 0;
    for (const CttsEntry& run : ctts_->entries) offsets += run.sampleCount;
    if (offsets > sampleCount()) {
      return fail("ctts offsets " + std::to_string(offsets) + " samples, stsz sizes " +
                  std::to_string(sampleCount()));
    }
  }
  uint32_t last = 0;
  for (uint32_t sync : syncSamples(*this)) {
    if (sync <= last || sync > sampleCount()) {
      return fail("stss entry " + std::to_string(sync) +
                                 " is out of order or past the sample count");
    }
    last = sync;
  }
  return Status();
}

Status Track::takeTables(const Atom* stbl) {
  auto take = [&](auto** slot, auto found) {
    if (found.ok()) *slot = *found;
    return found.status();
  };
  const ConstantSizeStszAtom* constant = nullptr;
  for (const Status& status :
       {take(&stsd_, only<StsdAtom>(stbl, "stsd", *this)),
        take(&stts_, only<SttsAtom>(stbl, "stts", *this)),
        take(&stsc_, only<StscAtom>(stbl, "stsc", *this)),
        take(&stsz_, only<StszAtom>(stbl, "stsz", *this)),
        take(&constant, only<ConstantSizeStszAtom>(stbl, "stsz", *this)),
        take(&stss_, only<StssAtom>(stbl, "stss", *this)),
        take(&stco_, only<StcoAtom>(stbl, "stco", *this)),
        take(&co64_, only<Co64Atom>(stbl, "co64", *this)),
        take(&ctts_, only<CttsAtom>(stbl, "ctts", *this))}) {
    if (!status.ok()) return status;
  }
  // A table kept as bytes because it could not be read says why.
  const auto* file = dynamic_cast<const FileStblAtom*>(stbl);
  if (file != nullptr && !file->unreadable.empty()) return fail(file->unreadable.front());
  const char* missing = stsd_ == nullptr                               ? "stsd"
                        : stts_ == nullptr                             ? "stts"
                        : stsc_ == nullptr                             ? "stsc"
                        : stsz_ == nullptr && constant == nullptr      ? "stsz"
                        : stco_ == nullptr && co64_ == nullptr         ? "stco or co64"
                                                                       : nullptr;
  if (missing != nullptr) return fail(std::string("its stbl has no ") + missing);
  if (stsz_ != nullptr && constant != nullptr) return fail("its stbl has two stsz boxes");
  if (stco_ != nullptr && co64_ != nullptr) return fail("its stbl has both stco and co64");
  if (constant != nullptr) {
    constantSize_ = constant->sampleSize;
    sampleCount_ = constant->sampleCount;
  } else {
    sampleCount_ = static_cast<uint32_t>(stsz_->entries.size());
  }
  return Status();
}

FoundTracks findTracks(Mp4File& file) {
  FoundTracks found;
  const std::vector<Atom*> headers = file.find("moov/mvhd");
  const auto* movie = headers.empty() ? nullptr : dynamic_cast<const MvhdAtom*>(headers.front());
  FragmentIndex fragments = indexFragments(file);
  for (Atom* trak : file.find("moov/trak")) {
    Track track;
    track.fileLength_ = file.length();
    if (const auto* tkhd = childOf<TkhdAtom>(trak)) track.id_ = tkhd->trackId;
    if (movie != nullptr) track.movieTimescale_ = movie->timescale;
    if (const Atom* edts = childNamed(trak, "edts")) track.elst_ = childOf<ElstAtom>(edts);
    const Atom* mdia = childNamed(trak, "mdia");
    const Atom* minf = mdia != nullptr ? childNamed(mdia, "minf") : nullptr;
    const Atom* stbl = minf != nullptr ? childOf<StblAtom>(minf) : nullptr;
    if (mdia != nullptr) {
      if (const auto* mdhd = childOf<MdhdAtom>(mdia)) track.timescale_ = mdhd->timescale;
      if (const auto* hdlr = childOf<HdlrAtom>(mdia)) track.handler_ = hdlr->handlerType();
    }
    Status status = stbl == nullptr ? track.fail("has no sample table (no stbl in mdia/minf)")
                                    : track.takeTables(stbl);
    if (status.ok()) status = track.check();
    if (status.ok()) status = track.takeFragments(fragments);
    if (status.ok()) {
      found.tracks.push_back(track);
    } else {
      found.unreadable.push_back(status.message());
    }
    fragments.byTrack.erase(track.id_);
  }
  // What is left names no trak.
  for (const auto& [id, left] : fragments.byTrack) {
    fragments.problems.push_back("track " + std::to_string(id) +
                                 ": the movie fragment at offset " +
                                 std::to_string(left.firstMoof) +
                                 " has samples for it, but no trak");
  }
  found.unreadable.insert(found.unreadable.end(), fragments.problems.begin(),
                          fragments.problems.end());
  return found;
}

SampleWalker::SampleWalker(const Track& track)
    : track_(track), shift_(track.presentationShift()) {}

Status SampleWalker::fail(const std::string& message) {
  number_ = track_.sampleCount();  // nothing more is walked
  return track_.fail(message);
}

Status SampleWalker::enterChunk() {
  ++chunk_;
  const auto& runs = track_.stsc().entries;
  if (runs.empty()) return fail("stsc is empty");
  if (run_ + 1 < runs.size() && runs[run_ + 1].firstChunk <= chunk_) ++run_;
  if (chunk_ > track_.chunkCount()) {
    return fail("sample " + std::to_string(number_ + 1) + " lies in chunk " +
                std::to_string(chunk_) + ", past the " + std::to_string(track_.chunkCount()) +
                " chunks of " + (track_.stco() != nullptr ? "stco" : "co64"));
  }
  leftInChunk_ = runs[run_].samplesPerChunk;
  position_ = track_.chunkOffset(chunk_);
  return Status();
}

Result<const SampleInfo*> SampleWalker::next() {
  Result<const SampleInfo*> step = nextInTables();
  if (step.ok() && *step != nullptr) {
    // Wraps on purpose: only a hostile file comes near 2^63.
    sample_.presentationTime = static_cast<int64_t>(
        sample_.decodeTime + static_cast<uint64_t>(sample_.compositionOffset) +
        static_cast<uint64_t>(shift_));
  }
  return step;
}

int64_t SampleWalker::nextCompositionOffset() {
  const CttsAtom* ctts = track_.ctts();
  if (ctts == nullptr) return 0;
  while (leftInOffsetRun_ == 0 && offsetRun_ < ctts->entries.size()) {
    leftInOffsetRun_ = ctts->entries[offsetRun_++].sampleCount;
  }
  if (leftInOffsetRun_ == 0) return 0;
  --leftInOffsetRun_;
  return ctts->offsetOf(ctts->entries[offsetRun_ - 1]);
}

Result<const SampleInfo*> SampleWalker::nextInTables() {
  if (number_ >= track_.sampleCount()) return nullptr;
  if (number_ >= track_.tableSampleCount()) return nextInFragments();
  if (leftInChunk_ == 0) {
    Status entered = enterChunk();
    if (!entered.ok()) return entered;
  }
  const auto& times = track_.stts().entries;
  while (leftInTimeRun_ == 0) {
    if (timeRun_ >= times.size()) {
      return fail("stts ends before sample " + std::to_string(number_ + 1));
    }
    leftInTimeRun_ = times[timeRun_++].sampleCount;
  }
  const uint32_t size = track_.sampleSize(number_ + 1);
  if (position_ > UINT64_MAX - size) {
    return fail("sample " + std::to_string(number_ + 1) + " at offset " +
                std::to_string(position_) + " runs past the end of any file");
  }
  SampleInfo& sample = sample_;
  sample.number = ++number_;
  sample.chunk = static_cast<uint32_t>(chunk_);
  sample.offset = position_;
  sample.size = size;
  sample.decodeTime = time_;
  sample.duration = times[timeRun_ - 1].sampleDelta;
  sample.compositionOffset = nextCompositionOffset();
  sample.descriptionIndex = track_.stsc().entries[run_].sampleDescriptionIndex;
  sample.missing = position_ + size > track_.fileLength();
  const std::vector<uint32_t>& syncs = syncSamples(track_);
  while (sync_ < syncs.size() && syncs[sync_] < number_) ++sync_;
  sample.sync = track_.stss() == nullptr || (sync_ < syncs.size() && syncs[sync_] == number_);

  position_ += size;
  time_ += sample.duration;
  --leftInChunk_;
  --leftInTimeRun_;
  return &sample_;
}

uint32_t sampleAtTime(const Track& track, uint64_t time) {
  if (track.fragmented()) return sampleAtTimeInFragments(track, time);
  uint64_t start = 0;
  uint64_t number = 0;
  for (const SttsEntry& run : track.stts().entries) {
    const uint64_t length = uint64_t{run.sampleCount} * run.sampleDelta;
    if (time < start + length) {
      return static_cast<uint32_t>(number + (time - start) / run.sampleDelta + 1);
    }
    start += length;
    number += run.sampleCount;
  }
  return static_cast<uint32_t>(number);
}

}  // namespace mp4stbl
