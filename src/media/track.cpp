#include "media/track.h"

#include <algorithm>

#include "box/movie_boxes.h"

namespace mp4stbl {

namespace {

// The one child of `parent` of class Box; null when there is none, a
// failure when there are two.
template <class Box>
Result<const Box*> only(const Atom* parent, const char* type, uint32_t trackId) {
  const Box* found = nullptr;
  for (const Atom* child : parent->children) {
    const auto* box = dynamic_cast<const Box*>(child);
    if (box == nullptr) continue;
    if (found != nullptr) {
      return Status::failure("track " + std::to_string(trackId) + ": two " + type + " boxes");
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

Status trackError(uint32_t id, const std::string& what) {
  return Status::failure("track " + std::to_string(id) + ": " + what);
}

}  // namespace

uint64_t Track::chunkCount() const {
  return stco_ != nullptr ? stco_->entries.size() : co64_->entries.size();
}

uint64_t Track::chunkOffset(uint64_t chunk) const {
  if (chunk == 0 || chunk > chunkCount()) return 0;
  return stco_ != nullptr ? stco_->entries[chunk - 1] : co64_->entries[chunk - 1];
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
    return trackError(id_, "stts times " + std::to_string(timed) + " samples, stsz sizes " +
                               std::to_string(sampleCount()));
  }
  if (sampleCount() > 0 && stsc_->entries.empty()) return trackError(id_, "stsc is empty");
  uint64_t previous = 0;
  for (const StscEntry& run : stsc_->entries) {
    if (run.firstChunk <= previous || (previous == 0 && run.firstChunk != 1)) {
      return trackError(id_, "stsc first chunks must start at 1 and rise, found " +
                                 std::to_string(run.firstChunk));
    }
    if (run.samplesPerChunk == 0) return trackError(id_, "stsc run with 0 samples per chunk");
    if (run.sampleDescriptionIndex == 0 || run.sampleDescriptionIndex > stsd_->children.size()) {
      return trackError(id_, "stsc names sample description " +
                                 std::to_string(run.sampleDescriptionIndex) + " of " +
                                 std::to_string(stsd_->children.size()) + " in stsd");
    }
    previous = run.firstChunk;
  }
  uint32_t last = 0;
  for (uint32_t sync : syncSamples(*this)) {
    if (sync <= last || sync > sampleCount()) {
      return trackError(id_, "stss entry " + std::to_string(sync) +
                                 " is out of order or past the sample count");
    }
    last = sync;
  }
  return Status();
}

namespace {

// Fills the table pointers of `track` from its stbl: one of each, stss
// optional, exactly one of stco and co64.
Status findTables(const Atom* stbl, uint32_t id, const StsdAtom** stsd, const SttsAtom** stts,
                  const StscAtom** stsc, const StszAtom** stsz, const StssAtom** stss,
                  const StcoAtom** stco, const Co64Atom** co64) {
  auto take = [&](auto** slot, auto found) {
    if (found.ok()) *slot = *found;
    return found.status();
  };
  for (const Status& status :
       {take(stsd, only<StsdAtom>(stbl, "stsd", id)), take(stts, only<SttsAtom>(stbl, "stts", id)),
        take(stsc, only<StscAtom>(stbl, "stsc", id)), take(stsz, only<StszAtom>(stbl, "stsz", id)),
        take(stss, only<StssAtom>(stbl, "stss", id)), take(stco, only<StcoAtom>(stbl, "stco", id)),
        take(co64, only<Co64Atom>(stbl, "co64", id))}) {
    if (!status.ok()) return status;
  }
  const char* missing = *stsd == nullptr   ? "stsd"
                        : *stts == nullptr ? "stts"
                        : *stsc == nullptr ? "stsc"
                        : *stsz == nullptr ? "stsz"
                        : (*stco == nullptr) == (*co64 == nullptr) ? "stco or co64"
                                                                   : nullptr;
  if (missing != nullptr) return trackError(id, std::string("needs exactly one ") + missing);
  return Status();
}

}  // namespace

Result<std::vector<Track>> findTracks(Mp4File& file) {
  std::vector<Track> tracks;
  for (Atom* trak : file.find("moov/trak")) {
    Track track;
    track.fileLength_ = file.length();
    if (const auto* tkhd = childOf<TkhdAtom>(trak)) track.id_ = tkhd->trackId;
    const Atom* mdia = childNamed(trak, "mdia");
    const Atom* minf = mdia != nullptr ? childNamed(mdia, "minf") : nullptr;
    const Atom* stbl = minf != nullptr ? childOf<StblAtom>(minf) : nullptr;
    if (stbl == nullptr) return trackError(track.id_, "no stbl");
    if (const auto* mdhd = childOf<MdhdAtom>(mdia)) track.timescale_ = mdhd->timescale;
    if (const auto* hdlr = childOf<HdlrAtom>(mdia)) track.handler_ = hdlr->handlerType();
    Status found = findTables(stbl, track.id_, &track.stsd_, &track.stts_, &track.stsc_,
                              &track.stsz_, &track.stss_, &track.stco_, &track.co64_);
    if (!found.ok()) return found;
    Status checked = track.check();
    if (!checked.ok()) return checked;
    tracks.push_back(track);
  }
  return tracks;
}

SampleWalker::SampleWalker(const Track& track) : track_(track) {}

Status SampleWalker::fail(const std::string& message) {
  number_ = track_.sampleCount();  // nothing more is walked
  return trackError(track_.id(), message);
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
  if (number_ >= track_.sampleCount()) return nullptr;
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
  const uint32_t size = track_.stsz().entries[number_];
  if (position_ > UINT64_MAX - size || position_ + size > track_.fileLength()) {
    return fail("sample " + std::to_string(number_ + 1) + " at offset " +
                std::to_string(position_) + " runs past the end of the file");
  }
  SampleInfo& sample = sample_;
  sample.number = ++number_;
  sample.chunk = static_cast<uint32_t>(chunk_);
  sample.offset = position_;
  sample.size = size;
  sample.decodeTime = time_;
  sample.duration = times[timeRun_ - 1].sampleDelta;
  sample.descriptionIndex = track_.stsc().entries[run_].sampleDescriptionIndex;
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
