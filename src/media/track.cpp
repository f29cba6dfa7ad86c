#include "media/track.h"

#include <algorithm>

#include "box/movie_boxes.h"

namespace {

template <class Box>
const Box* only(const Atom* parent, const char* type, uint32_t trackId, std::string* error) {
  const Box* found = nullptr;
  for (const Atom* child : parent->children) {
    const auto* box = dynamic_cast<const Box*>(child);
    if (box == nullptr) continue;
    if (found != nullptr) {
      *error = "track " + std::to_string(trackId) + ": two " + type + " boxes";
      return nullptr;
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
  return track.stss != nullptr ? track.stss->entries : none;
}

std::string trackError(uint32_t id, const std::string& what) {
  return "track " + std::to_string(id) + ": " + what;
}

}  // namespace

uint64_t Track::chunkCount() const {
  return stco != nullptr ? stco->entries.size() : co64->entries.size();
}

uint64_t Track::chunkOffset(uint64_t chunk) const {
  if (chunk == 0 || chunk > chunkCount()) return 0;
  return stco != nullptr ? stco->entries[chunk - 1] : co64->entries[chunk - 1];
}

std::string Track::entryType() const {
  return stsd->children.empty() ? "" : stsd->children.front()->header.type;
}

const char* Track::kind() const {
  if (handler == "vide") return "video";
  if (handler == "soun") return "audio";
  if (handler == "meta" || handler == "text" || handler == "sbtl" || handler == "subt" ||
      handler == "tmcd") {
    return "metadata";
  }
  return "other";
}

std::string Track::check() const {
  uint64_t timed = 0;
  for (const SttsEntry& run : stts->entries) timed += run.sampleCount;
  if (timed != sampleCount()) {
    return trackError(id, "stts times " + std::to_string(timed) + " samples, stsz sizes " +
                              std::to_string(sampleCount()));
  }
  if (sampleCount() > 0 && stsc->entries.empty()) return trackError(id, "stsc is empty");
  uint64_t previous = 0;
  for (const StscEntry& run : stsc->entries) {
    if (run.firstChunk <= previous || (previous == 0 && run.firstChunk != 1)) {
      return trackError(id, "stsc first chunks must start at 1 and rise, found " +
                                std::to_string(run.firstChunk));
    }
    if (run.samplesPerChunk == 0) return trackError(id, "stsc run with 0 samples per chunk");
    if (run.sampleDescriptionIndex == 0 || run.sampleDescriptionIndex > stsd->children.size()) {
      return trackError(id, "stsc names sample description " +
                                std::to_string(run.sampleDescriptionIndex) + " of " +
                                std::to_string(stsd->children.size()) + " in stsd");
    }
    previous = run.firstChunk;
  }
  uint32_t last = 0;
  for (uint32_t sync : syncSamples(*this)) {
    if (sync <= last || sync > sampleCount()) {
      return trackError(id, "stss entry " + std::to_string(sync) +
                                " is out of order or past the sample count");
    }
    last = sync;
  }
  return "";
}

int findTracks(Mp4File& file, uint64_t fileLength, std::vector<Track>* tracks,
               std::string* error) {
  tracks->clear();
  for (Atom* trak : file.find("moov/trak")) {
    Track track;
    track.fileLength = fileLength;
    if (const auto* tkhd = childOf<TkhdAtom>(trak)) track.id = tkhd->trackId;
    const Atom* mdia = childNamed(trak, "mdia");
    const Atom* minf = mdia != nullptr ? childNamed(mdia, "minf") : nullptr;
    const Atom* stbl = minf != nullptr ? childOf<StblAtom>(minf) : nullptr;
    if (stbl == nullptr) {
      *error = trackError(track.id, "no stbl");
      return -1;
    }
    if (const auto* mdhd = childOf<MdhdAtom>(mdia)) track.timescale = mdhd->timescale;
    if (const auto* hdlr = childOf<HdlrAtom>(mdia)) track.handler = hdlr->handlerType();
    error->clear();
    track.stsd = only<StsdAtom>(stbl, "stsd", track.id, error);
    track.stts = only<SttsAtom>(stbl, "stts", track.id, error);
    track.stsc = only<StscAtom>(stbl, "stsc", track.id, error);
    track.stsz = only<StszAtom>(stbl, "stsz", track.id, error);
    track.stss = only<StssAtom>(stbl, "stss", track.id, error);
    track.stco = only<StcoAtom>(stbl, "stco", track.id, error);
    track.co64 = only<Co64Atom>(stbl, "co64", track.id, error);
    if (!error->empty()) return -1;
    const char* missing = track.stsd == nullptr   ? "stsd"
                          : track.stts == nullptr ? "stts"
                          : track.stsc == nullptr ? "stsc"
                          : track.stsz == nullptr ? "stsz"
                          : (track.stco == nullptr) == (track.co64 == nullptr) ? "stco or co64"
                                                                               : nullptr;
    if (missing != nullptr) {
      *error = trackError(track.id, std::string("needs exactly one ") + missing);
      return -1;
    }
    *error = track.check();
    if (!error->empty()) return -1;
    tracks->push_back(track);
  }
  return 0;
}

SampleWalker::SampleWalker(const Track& track) : track_(track) {}

bool SampleWalker::fail(const std::string& message) {
  error_ = trackError(track_.id, message);
  number_ = track_.sampleCount();  // nothing more is walked
  return false;
}

bool SampleWalker::enterChunk() {
  ++chunk_;
  const auto& runs = track_.stsc->entries;
  if (run_ + 1 < runs.size() && runs[run_ + 1].firstChunk <= chunk_) ++run_;
  if (chunk_ > track_.chunkCount()) {
    return fail("sample " + std::to_string(number_ + 1) + " lies in chunk " +
                std::to_string(chunk_) + ", past the " + std::to_string(track_.chunkCount()) +
                " chunks of " + (track_.stco != nullptr ? "stco" : "co64"));
  }
  leftInChunk_ = runs[run_].samplesPerChunk;
  position_ = track_.chunkOffset(chunk_);
  return true;
}

bool SampleWalker::next(SampleInfo* sample) {
  if (number_ >= track_.sampleCount()) return false;
  if (leftInChunk_ == 0 && !enterChunk()) return false;
  while (leftInTimeRun_ == 0) leftInTimeRun_ = track_.stts->entries[timeRun_++].sampleCount;

  const uint32_t size = track_.stsz->entries[number_];
  if (position_ > UINT64_MAX - size ||
      (track_.fileLength != 0 && position_ + size > track_.fileLength)) {
    return fail("sample " + std::to_string(number_ + 1) + " at offset " +
                std::to_string(position_) + " runs past the end of the file");
  }
  sample->number = ++number_;
  sample->chunk = static_cast<uint32_t>(chunk_);
  sample->offset = position_;
  sample->size = size;
  sample->decodeTime = time_;
  sample->duration = track_.stts->entries[timeRun_ - 1].sampleDelta;
  sample->descriptionIndex = track_.stsc->entries[run_].sampleDescriptionIndex;
  const std::vector<uint32_t>& syncs = syncSamples(track_);
  while (sync_ < syncs.size() && syncs[sync_] < number_) ++sync_;
  sample->sync = track_.stss == nullptr || (sync_ < syncs.size() && syncs[sync_] == number_);

  position_ += size;
  time_ += sample->duration;
  --leftInChunk_;
  --leftInTimeRun_;
  return true;
}

uint32_t sampleAtTime(const Track& track, uint64_t time) {
  uint64_t start = 0;
  uint64_t number = 0;
  for (const SttsEntry& run : track.stts->entries) {
    const uint64_t length = uint64_t{run.sampleCount} * run.sampleDelta;
    if (time < start + length) {
      return static_cast<uint32_t>(number + (time - start) / run.sampleDelta + 1);
    }
    start += length;
    number += run.sampleCount;
  }
  return static_cast<uint32_t>(number);
}
