#include "media/fragments.h"

#include "media/track.h"

namespace mp4stbl {

namespace {

template <class Box>
const Box* childOf(const Atom* parent) {
  for (const Atom* child : parent->children) {
    if (const auto* box = dynamic_cast<const Box*>(child)) return box;
  }
  return nullptr;
}

// The run's sizes, durations and key frames summed; a field with no
// per-sample value counts its default once per sample.
void sumRun(FragmentRun* run, TrackFragments* track) {
  const TrunAtom& trun = *run->trun;
  const uint64_t count = trun.sampleCount;
  run->bytes = trun.has(TrunAtom::kSize) ? 0 : count * run->defaultSize;
  run->duration = trun.has(TrunAtom::kDuration) ? 0 : count * run->defaultDuration;
  for (const TrunEntry& entry : trun.entries) {
    if (trun.has(TrunAtom::kSize)) run->bytes += entry.size;
    if (trun.has(TrunAtom::kDuration)) run->duration += entry.duration;
  }
  if (trun.has(TrunAtom::kFlags) || count == 0) {
    for (uint32_t i = 0; i < trun.entries.size(); ++i) track->syncSamples += run->sample(i).sync;
  } else {
    const bool restSync = (run->defaultFlags & kSampleIsNonSync) == 0;
    track->syncSamples += run->sample(0).sync + (count - 1) * restSync;
  }
  track->samples += count;
  track->bytes += run->bytes;
  track->duration += run->duration;
}

// The runs of one track fragment. Its data starts at `base`; a run without
// a data offset follows the one before it. Returns where its data ends.
uint64_t indexTraf(const Atom& traf, const TfhdAtom& tfhd, const TrexAtom* trex, uint64_t base,
                   TrackFragments* track) {
  const TfdtAtom* tfdt = childOf<TfdtAtom>(&traf);
  auto pick = [&](uint32_t flag, uint32_t own, uint32_t TrexAtom::*fallback) {
    return tfhd.has(flag) ? own : trex != nullptr ? trex->*fallback : 0;
  };
  uint64_t position = base;
  bool first = true;
  for (const Atom* child : traf.children) {
    const auto* trun = dynamic_cast<const TrunAtom*>(child);
    if (trun == nullptr) continue;
    FragmentRun run;
    run.trun = trun;
    // Offsets wrap on purpose: a negative data offset counts back from the base.
    run.dataStart =
        trun->has(TrunAtom::kDataOffset)
            ? base + static_cast<uint64_t>(int64_t{static_cast<int32_t>(trun->dataOffset)})
            : position;
    run.timed = first && tfdt != nullptr;
    run.decodeStart = run.timed ? tfdt->baseMediaDecodeTime : 0;
    run.defaultDuration =
        pick(TfhdAtom::kDefaultDuration, tfhd.defaultDuration, &TrexAtom::defaultDuration);
    run.defaultSize = pick(TfhdAtom::kDefaultSize, tfhd.defaultSize, &TrexAtom::defaultSize);
    run.defaultFlags = pick(TfhdAtom::kDefaultFlags, tfhd.defaultFlags, &TrexAtom::defaultFlags);
    run.descriptionIndex = pick(TfhdAtom::kDescriptionIndex, tfhd.descriptionIndex,
                                &TrexAtom::defaultDescriptionIndex);
    sumRun(&run, track);
    position = run.dataStart + run.bytes;
    track->runs.push_back(run);
    first = false;
  }
  return position;
}

}  // namespace

FragmentSample FragmentRun::sample(uint32_t i) const {
  const bool stored = i < trun->entries.size();
  auto field = [&](uint32_t flag, uint32_t TrunEntry::*value, uint32_t otherwise) {
    return stored && trun->has(flag) ? trun->entries[i].*value : otherwise;
  };
  FragmentSample sample;
  sample.size = field(TrunAtom::kSize, &TrunEntry::size, defaultSize);
  sample.duration = field(TrunAtom::kDuration, &TrunEntry::duration, defaultDuration);
  const uint32_t flags = i == 0 && trun->has(TrunAtom::kFirstSampleFlags)
                             ? trun->firstSampleFlags
                             : field(TrunAtom::kFlags, &TrunEntry::flags, defaultFlags);
  sample.sync = (flags & kSampleIsNonSync) == 0;
  sample.compositionOffset =
      stored && trun->has(TrunAtom::kCompositionOffset) ? trun->compositionOffset(i) : 0;
  return sample;
}

FragmentIndex indexFragments(Mp4File& file) {
  FragmentIndex index;
  std::map<uint32_t, const TrexAtom*> trexes;
  for (const Atom* box : file.find("moov/mvex/trex")) {
    if (const auto* trex = dynamic_cast<const TrexAtom*>(box)) trexes.emplace(trex->trackId, trex);
  }
  for (const Atom* moof : file.find("moof")) {
    const uint64_t moofStart = moof->header.headerOffset;
    // The first track fragment counts from the moof, each other one from
    // the end of the data of the one before, unless it says otherwise.
    uint64_t dataEnd = moofStart;
    for (const Atom* traf : moof->children) {
      if (traf->header.type != "traf") continue;
      const TfhdAtom* tfhd = childOf<TfhdAtom>(traf);
      if (tfhd == nullptr) {
        index.problems.push_back("the track fragment at offset " +
                                 std::to_string(traf->header.headerOffset) + " has no tfhd");
        continue;
      }
      const auto trex = trexes.find(tfhd->trackId);
      const bool known = trex != trexes.end();
      const auto [entry, added] = index.byTrack.try_emplace(tfhd->trackId);
      TrackFragments& track = entry->second;
      if (added) {
        track.firstMoof = moofStart;
        track.hasTrex = known;
      }
      const uint64_t base = tfhd->has(TfhdAtom::kBaseDataOffset)      ? tfhd->baseDataOffset
                            : tfhd->has(TfhdAtom::kDefaultBaseIsMoof) ? moofStart
                                                                      : dataEnd;
      dataEnd = indexTraf(*traf, *tfhd, known ? trex->second : nullptr, base, &track);
    }
  }
  return index;
}

Status Track::takeFragments(FragmentIndex& index) {
  const auto found = index.byTrack.find(id_);
  if (found == index.byTrack.end()) return Status();
  TrackFragments& fragments = found->second;
  if (!fragments.hasTrex) return fail("has fragments but no trex in mvex");
  if (fragments.samples > UINT32_MAX - sampleCount_ || fragments.samples > fileLength_) {
    return fail("fragments hold " + std::to_string(fragments.samples) +
                " samples, more than the file can");
  }
  // Decode time runs on from the end of the table unless a tfdt sets it.
  uint64_t time = 0;
  for (const SttsEntry& run : stts_->entries) time += uint64_t{run.sampleCount} * run.sampleDelta;
  for (FragmentRun& run : fragments.runs) {
    if (run.descriptionIndex == 0 || run.descriptionIndex > stsd_->children.size()) {
      return fail("the fragment run at offset " + std::to_string(run.trun->header.headerOffset) +
                  " names sample description " + std::to_string(run.descriptionIndex) + " of " +
                  std::to_string(stsd_->children.size()) + " in stsd");
    }
    if (!run.timed) run.decodeStart = time;
    time = run.decodeStart + run.duration;
  }
  fragments.endTime = time;
  fragmentSamples_ = static_cast<uint32_t>(fragments.samples);
  fragments_ = std::move(fragments);
  return Status();
}

Result<const SampleInfo*> SampleWalker::nextInFragments() {
  const std::vector<FragmentRun>& runs = track_.fragments().runs;
  while (fragmentRun_ < runs.size() && inRun_ == runs[fragmentRun_].trun->sampleCount) {
    ++fragmentRun_;
    inRun_ = 0;
  }
  if (fragmentRun_ >= runs.size()) {
    return fail("the fragments end before sample " + std::to_string(number_ + 1));
  }
  const FragmentRun& run = runs[fragmentRun_];
  if (inRun_ == 0) {
    position_ = run.dataStart;
    time_ = run.decodeStart;
  }
  const FragmentSample own = run.sample(inRun_);
  SampleInfo& sample = sample_;
  sample.number = ++number_;
  sample.chunk = static_cast<uint32_t>(track_.chunkCount() + fragmentRun_ + 1);
  sample.offset = position_;
  sample.size = own.size;
  sample.decodeTime = time_;
  sample.duration = own.duration;
  sample.sync = own.sync;
  sample.descriptionIndex = run.descriptionIndex;
  // A run that starts or wraps past the end is missing, never a failure.
  sample.missing = own.size > track_.fileLength() || position_ > track_.fileLength() - own.size;
  sample.compositionOffset = own.compositionOffset;
  position_ += own.size;  // wraps like the data offsets
  time_ += own.duration;  // wraps like the decode times it follows
  ++inRun_;
  return &sample_;
}

namespace {

// Calls `visit` on every sample until it returns false or the walk ends.
template <class Visit>
void eachSample(const Track& track, Visit visit) {
  SampleWalker walker(track);
  for (auto step = walker.next(); step.ok() && *step != nullptr; step = walker.next()) {
    if (!visit(**step)) return;
  }
}

}  // namespace

uint32_t sampleAtTimeInFragments(const Track& track, uint64_t time) {
  uint32_t found = track.sampleCount() > 0 ? 1 : 0;
  eachSample(track, [&](const SampleInfo& sample) {
    if (sample.decodeTime <= time) found = sample.number;
    return true;
  });
  return found;
}

uint32_t keyFrameNear(const Track& track, uint32_t asked, bool after) {
  uint32_t before = 0, next = 0;
  eachSample(track, [&](const SampleInfo& sample) {
    if (!sample.sync) return true;
    if (sample.number <= asked) before = sample.number;
    if (sample.number >= asked) next = sample.number;
    return sample.number < asked;
  });
  if (!after && before != 0) return before;
  return next != 0 ? next : asked;
}

}  // namespace mp4stbl
