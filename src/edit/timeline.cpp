#include "edit/timeline.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "box/codec_config.h"
#include "box/edit_boxes.h"

namespace mp4stbl::edit {

namespace {

constexpr double kForever = std::numeric_limits<double>::infinity();
constexpr size_t kMostPieces = 4096;

int64_t units(double seconds, double timescale) {
  // Far past any real file, and still far from overflowing.
  constexpr double kLongest = 1e15;
  return std::llround(std::max(-kLongest, std::min(seconds * timescale, kLongest)));
}

// A segment's length in seconds. Fragmented files often write 0: the
// segment then runs to the end of the media, as players take it.
double segmentSeconds(const ElstEntry& edit, uint32_t movieTimescale) {
  if (edit.segmentDuration == 0 || movieTimescale == 0) return kForever;
  return static_cast<double>(edit.segmentDuration) / movieTimescale;
}

// Samples a decoder must take before the first one it shows: the roll
// distance that the track's "roll" sample groups declare, else one frame
// for AAC, whose every frame leans on the one before.
uint32_t preRoll(const Track& track, Atom& stbl) {
  uint32_t roll = 0;
  for (const Atom* box : stbl.children) {
    const auto* groups = dynamic_cast<const SgpdAtom*>(box);
    if (groups == nullptr || groups->groupingType != 0x726F6C6Cu) continue;  // "roll"
    for (const std::vector<uint8_t>& entry : groups->entries) {
      if (entry.size() < 2) continue;
      const auto distance = static_cast<int16_t>(entry[0] << 8 | entry[1]);
      if (distance < 0) roll = std::max<uint32_t>(roll, static_cast<uint32_t>(-distance));
    }
  }
  if (roll == 0 && track.stss() == nullptr && track.entryType() == "mp4a") roll = 1;
  return roll;
}

// The samples of one track that one piece keeps, and what placing them
// needs. Times are the source's: composition times in track units.
struct Selection {
  uint32_t first = 0;  // 0: none
  uint32_t last = 0;
  int64_t from = 0;  // the window kept, after any extension
  int64_t to = 0;
  uint64_t firstDecode = 0;
  int64_t firstShown = 0;                                    // composition time of `first`
  int64_t earliest = std::numeric_limits<int64_t>::max();   // of every kept sample
  int64_t latestEnd = std::numeric_limits<int64_t>::min();  // composition time plus duration
  int64_t smallestOffset = std::numeric_limits<int64_t>::max();
  uint64_t decodeLength = 0;
  std::vector<uint32_t> tail;  // durations of the last samples, the last one last

  bool empty() const { return first == 0 || last < first || latestEnd <= from; }
};

constexpr size_t kTail = 16;

int64_t shownAt(const SampleInfo& sample) {
  return static_cast<int64_t>(sample.decodeTime) + sample.compositionOffset;
}

// Picks the samples that play `from`..`to`: from the sync sample at or
// before `from` (less `roll` samples of pre-roll) to the last sample, in
// decode order, that starts to play before `to`.
Result<Selection> select(const Track& track, int64_t from, int64_t to, uint32_t roll) {
  Selection cut;
  cut.from = from;
  cut.to = to;
  {
    SampleWalker walk(track);
    for (;;) {
      Result<const SampleInfo*> next = walk.next();
      if (!next.ok()) return next.status();
      const SampleInfo* sample = *next;
      if (sample == nullptr || static_cast<int64_t>(sample->decodeTime) >= to) break;
      const int64_t at = shownAt(*sample);
      if (sample->sync && (at <= from || cut.first == 0)) {
        cut.first = sample->number - std::min(roll, sample->number - 1);
      }
      if (cut.first != 0 && at < to) cut.last = sample->number;
    }
  }
  if (cut.first == 0 || cut.last < cut.first) return cut;
  SampleWalker walk(track);
  for (;;) {
    Result<const SampleInfo*> next = walk.next();
    if (!next.ok()) return next.status();
    const SampleInfo* sample = *next;
    if (sample == nullptr || sample->number > cut.last) break;
    if (sample->number < cut.first) continue;
    const int64_t at = shownAt(*sample);
    if (sample->number == cut.first) {
      cut.firstDecode = sample->decodeTime;
      cut.firstShown = at;
    }
    cut.earliest = std::min(cut.earliest, at);
    cut.latestEnd = std::max(cut.latestEnd, at + int64_t{sample->duration});
    cut.smallestOffset = std::min(cut.smallestOffset, sample->compositionOffset);
    cut.decodeLength = sample->decodeTime + sample->duration - cut.firstDecode;
    if (cut.tail.size() == kTail) cut.tail.erase(cut.tail.begin());
    cut.tail.push_back(sample->duration);
  }
  return cut;
}

// Where a piece's samples go in the new track: the last one kept (audio
// frames a joint makes redundant are dropped), what its duration gains, and
// the shift of the composition offsets.
struct Placement {
  uint32_t last = 0;
  uint64_t extra = 0;
  int64_t shift = 0;
};

// A track of the new file, planned piece by piece.
struct Plan {
  std::vector<Placement> placed;
  int64_t mediaStart = 0;  // media time that the new file shows first
  double lateStart = 0;    // seconds before the track starts to play
  uint64_t mediaDuration = 0;
  int64_t shownEnd = 0;  // media time where the last sample stops playing
  bool any = false;
};

// Samples that play out of decode order keep decode times running on and
// move by their composition offsets; any other track moves by its
// durations: frames dropped or the last one lengthened at each joint, to
// the nearest frame, so that no error builds up over many joints.
Plan plan(std::vector<Selection>& cuts, const std::vector<double>& at, double scale,
          bool reordered) {
  Plan made;
  made.placed.resize(cuts.size());
  uint64_t decoded = 0;
  size_t previous = 0;
  for (size_t k = 0; k < cuts.size(); ++k) {
    Selection& cut = cuts[k];
    if (cut.empty()) continue;
    Placement& place = made.placed[k];
    place.last = cut.last;
    if (!made.any) {
      made.any = true;
      made.mediaStart = cut.from - static_cast<int64_t>(cut.firstDecode);
      made.lateStart = at[k];
      if (made.mediaStart < 0) {  // the media starts after the window does
        made.lateStart += static_cast<double>(-made.mediaStart) / scale;
        made.mediaStart = 0;
      }
    } else {
      const int64_t wanted = made.mediaStart + units(at[k] - made.lateStart, scale) - cut.from;
      const auto now = static_cast<int64_t>(decoded);
      Placement& before = made.placed[previous];
      if (reordered) {
        place.shift = wanted + static_cast<int64_t>(cut.firstDecode) - now;
        if (place.shift > 0) {
          before.extra += static_cast<uint64_t>(place.shift);
          decoded += static_cast<uint64_t>(place.shift);
          place.shift = 0;
        }
      } else {
        const int64_t target = wanted + cut.firstShown;
        std::vector<uint32_t>& tail = cuts[previous].tail;
        while (static_cast<int64_t>(decoded) > target && before.last > cuts[previous].first &&
               !tail.empty() && 2 * static_cast<int64_t>(decoded) - tail.back() > 2 * target) {
          decoded -= tail.back();
          tail.pop_back();
          --before.last;
        }
        if (static_cast<int64_t>(decoded) < target) {
          before.extra += static_cast<uint64_t>(target - static_cast<int64_t>(decoded));
          decoded = static_cast<uint64_t>(target);
        }
      }
    }
    made.shownEnd = std::max(made.shownEnd, static_cast<int64_t>(decoded) + place.shift +
                                                cut.latestEnd -
                                                static_cast<int64_t>(cut.firstDecode));
    decoded += cut.decodeLength;
    previous = k;
  }
  made.mediaDuration = decoded;
  return made;
}

// Moves every composition offset of a plan by `by`.
void shiftPlan(Plan& plan, int64_t by) {
  for (Placement& place : plan.placed) place.shift += by;
  plan.mediaStart += by;
  plan.shownEnd += by;
}

// Offsets that a version 0 table cannot hold are moved up, with the edit
// list's media time, so that the first piece keeps its own.
void keepOffsetsPositive(Plan& plan, const std::vector<Selection>& cuts) {
  int64_t lowest = 0;
  for (size_t k = 0; k < cuts.size(); ++k) {
    if (!cuts[k].empty()) lowest = std::min(lowest, cuts[k].smallestOffset + plan.placed[k].shift);
  }
  if (lowest < 0) shiftPlan(plan, -lowest);
}

// Without an edit list every track shows its media from time 0: the
// tracks placed by their offsets move them so that they start at the media
// time where those placed by their durations do.
void startTogether(std::vector<Plan>& plans, const std::vector<bool>& byOffsets,
                   const std::vector<Track>& tracks) {
  double start = -1;
  for (size_t t = 0; t < plans.size(); ++t) {
    if (plans[t].any && !byOffsets[t]) {
      start = std::max(start, static_cast<double>(plans[t].mediaStart) / tracks[t].timescale());
    }
  }
  for (size_t t = 0; t < plans.size() && start >= 0; ++t) {
    if (plans[t].any && byOffsets[t]) {
      shiftPlan(plans[t], units(start, tracks[t].timescale()) - plans[t].mediaStart);
    }
  }
}

// How long a track plays in a new file of `seconds`: no longer than its
// samples last.
double shownSeconds(const Plan& plan, double seconds, double scale) {
  return std::max(0.0, std::min(seconds - plan.lateStart,
                                static_cast<double>(plan.shownEnd - plan.mediaStart) / scale));
}

// The track's one edit, after an empty one when it starts late.
std::vector<EditSegment> singleEdit(const Plan& plan, double seconds, double scale,
                                    uint32_t movieScale) {
  std::vector<EditSegment> edits;
  if (plan.lateStart * movieScale >= 0.5) {
    edits.push_back({static_cast<uint64_t>(units(plan.lateStart, movieScale)), -1});
  }
  edits.push_back({static_cast<uint64_t>(units(shownSeconds(plan, seconds, scale), movieScale)),
                   plan.mediaStart});
  return edits;
}

const Atom* descriptionOf(const Track& track, uint32_t index) {
  if (index == 0 || index > track.stsd().children.size()) return nullptr;
  auto entry = track.stsd().children.begin();
  std::advance(entry, index - 1);
  return *entry;
}

uint16_t be16(const std::vector<unsigned char>& bytes, size_t at) {
  return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

// Appends the NAL units of one parameter-set list of a decoder
// configuration (16-bit lengths) with `lengthSize`-byte length prefixes;
// false when the list runs past the body.
bool appendNals(const std::vector<unsigned char>& body, size_t& at, unsigned count,
                unsigned lengthSize, std::vector<uint8_t>& out) {
  for (unsigned n = 0; n < count; ++n) {
    if (at + 2 > body.size()) return false;
    const size_t length = be16(body, at);
    at += 2;
    if (at + length > body.size()) return false;
    for (unsigned b = lengthSize; b-- > 0;) out.push_back(static_cast<uint8_t>(length >> (8 * b)));
    out.insert(out.end(), body.begin() + static_cast<std::ptrdiff_t>(at),
               body.begin() + static_cast<std::ptrdiff_t>(at + length));
    at += length;
  }
  return true;
}

// The table's own crop gives one sample per chunk of the first
// description; other groupings open a run at each change.
std::unique_ptr<StscAtom> chunkRuns(const StscAtom& source, const std::vector<uint32_t>& perChunk,
                                    const std::vector<uint32_t>& descriptions) {
  auto stsc = std::make_unique<StscAtom>(AtomHeader());
  stsc->header.type = "stsc";
  bool single = true;
  for (size_t c = 0; c < perChunk.size(); ++c) single = single && perChunk[c] == 1 && descriptions[c] == 1;
  if (single) {
    stsc->crop2new(&source);
    return stsc;
  }
  for (size_t c = 0; c < perChunk.size(); ++c) {
    stsc->addEntry(static_cast<uint32_t>(c + 1), perChunk[c], descriptions[c]);
  }
  return stsc;
}

std::vector<std::vector<unsigned char>> groupDescriptions(Atom& stbl) {
  std::vector<std::vector<unsigned char>> held;
  for (Atom* box : stbl.children) {
    if (box->header.type == "sgpd") held.push_back(bytesOf(*box));
  }
  return held;
}

template <class Box>
std::vector<Box*> boxesOf(const std::vector<std::unique_ptr<Atom>>& boxes) {
  std::vector<Box*> found;
  for (const auto& box : boxes) {
    if (auto* typed = dynamic_cast<Box*>(box.get())) found.push_back(typed);
  }
  return found;
}

// The per-sample boxes beside the tables, pieces joined: sdtp when every
// piece has one, sample groups when every source describes them alike (a
// piece whose groups stop short is filled with "no group"). Composition
// offsets are rebuilt, not joined.
struct Extras {
  std::vector<std::unique_ptr<Atom>> boxes;
  bool keepGroups = true;
};

Extras joinExtras(const std::vector<TimelineSource>& sources, const std::vector<Piece>& pieces,
                  const std::vector<Selection>& cuts, const Plan& plan, size_t t) {
  Extras joined;
  std::vector<std::unique_ptr<Atom>>* lead = nullptr;
  std::vector<std::vector<std::unique_ptr<Atom>>> per(pieces.size());
  std::vector<std::vector<unsigned char>> descriptions;
  bool allSdtp = true;
  for (size_t k = 0; k < pieces.size(); ++k) {
    if (cuts[k].empty()) continue;
    Atom& stbl = sampleTable(sources[pieces[k].source].tracks->traks[t]);
    const uint32_t count = plan.placed[k].last - cuts[k].first + 1;
    per[k] = cutExtras(stbl, cuts[k].first, plan.placed[k].last);
    for (SbgpAtom* groups : boxesOf<SbgpAtom>(per[k])) {
      uint64_t covered = 0;
      for (const SbgpEntry& run : groups->entries) covered += run.sampleCount;
      if (covered < count) groups->entries.push_back({static_cast<uint32_t>(count - covered), 0});
    }
    allSdtp = allSdtp && boxesOf<SdtpAtom>(per[k]).size() == 1;
    if (lead == nullptr) {
      lead = &per[k];
      descriptions = groupDescriptions(stbl);
      continue;
    }
    const std::vector<SbgpAtom*> groups = boxesOf<SbgpAtom>(per[k]);
    const std::vector<SbgpAtom*> first = boxesOf<SbgpAtom>(*lead);
    bool alike = groups.size() == first.size() && groupDescriptions(stbl) == descriptions;
    for (size_t g = 0; alike && g < groups.size(); ++g) {
      alike = groups[g]->groupingType == first[g]->groupingType;
    }
    joined.keepGroups = joined.keepGroups && alike;
  }
  if (lead == nullptr) return joined;
  for (size_t k = 0; k < pieces.size(); ++k) {
    if (cuts[k].empty() || &per[k] == lead) continue;
    if (allSdtp) {
      const auto& more = boxesOf<SdtpAtom>(per[k]).front()->rest;
      auto& into = boxesOf<SdtpAtom>(*lead).front()->rest;
      into.insert(into.end(), more.begin(), more.end());
    }
    if (joined.keepGroups) {
      const std::vector<SbgpAtom*> groups = boxesOf<SbgpAtom>(per[k]);
      const std::vector<SbgpAtom*> into = boxesOf<SbgpAtom>(*lead);
      for (size_t g = 0; g < groups.size(); ++g) {
        into[g]->entries.insert(into[g]->entries.end(), groups[g]->entries.begin(),
                                groups[g]->entries.end());
      }
    }
  }
  for (auto& box : *lead) {
    const bool group = dynamic_cast<SbgpAtom*>(box.get()) != nullptr;
    const bool sdtp = dynamic_cast<SdtpAtom*>(box.get()) != nullptr;
    if ((group && joined.keepGroups) || (sdtp && allSdtp)) joined.boxes.push_back(std::move(box));
  }
  return joined;
}

// Composition offsets as runs, in a version 1 table when one is negative.
std::unique_ptr<CttsAtom> offsetTable(const std::vector<std::pair<uint32_t, int64_t>>& runs) {
  bool any = false;
  bool negative = false;
  for (const auto& run : runs) {
    any = any || run.second != 0;
    negative = negative || run.second < 0;
  }
  if (!any) return nullptr;
  AtomHeader header;
  header.type = "ctts";
  auto ctts = std::make_unique<CttsAtom>(header);
  ctts->version = negative ? 1 : 0;
  for (const auto& run : runs) {
    ctts->entries.push_back({run.first, static_cast<uint32_t>(run.second)});  // two's complement
  }
  return ctts;
}

// A failure about a source's track, the source named first: in a join the
// track alone does not say which clip it is.
Status inFile(const TimelineSource& source, const Status& failure) {
  return Status::failure(source.tracks->path + ": " + failure.message());
}

// The tables of track t, built sample by sample from the pieces' sources.
Result<NewTrack> build(const std::vector<TimelineSource>& sources,
                       const std::vector<Piece>& pieces, const std::vector<Selection>& cuts,
                       const Plan& plan, size_t t, Layout& layout) {
  const EditableTracks& lead = *sources.front().tracks;
  NewTrack made;
  made.trak = lead.traks[t];
  made.timescale = lead.tracks[t].timescale();
  made.stts = std::make_unique<SttsAtom>(AtomHeader());
  made.stts->header.type = "stts";
  auto sizes = std::make_unique<StszAtom>(AtomHeader());
  sizes->header.type = "stsz";
  std::vector<uint32_t> perChunk;
  std::vector<uint32_t> chunkDescriptions;
  std::vector<uint32_t> syncs;
  std::vector<std::pair<uint32_t, int64_t>> offsets;
  bool allSync = true;
  bool constant = true;
  size_t previousSource = SIZE_MAX;
  uint32_t described = 1;  // the description of the sample before
  for (size_t k = 0; k < pieces.size(); ++k) {
    if (cuts[k].empty()) continue;
    const Placement& place = plan.placed[k];
    const TimelineSource& source = sources[pieces[k].source];
    const Track& track = source.tracks->tracks[t];
    const std::vector<uint32_t>* map =
        source.descriptions.empty() ? nullptr : &source.descriptions[t];
    const bool grouped = track.stsz() == nullptr;
    constant = constant && grouped && track.constantSampleSize() == lead.tracks[t].constantSampleSize();
    const bool newSource = previousSource != SIZE_MAX && previousSource != pieces[k].source;
    previousSource = pieces[k].source;
    uint32_t sourceChunk = 0;
    SampleWalker walk(track);
    for (;;) {
      Result<const SampleInfo*> next = walk.next();
      if (!next.ok()) return inFile(source, next.status());
      const SampleInfo* sample = *next;
      if (sample == nullptr || sample->number > place.last) break;
      if (sample->number < cuts[k].first) continue;
      if (sample->missing) {
        return inFile(source, missingSample(track, *sample));
      }
      const bool first = sample->number == cuts[k].first;
      const uint64_t duration = sample->duration + (sample->number == place.last ? place.extra : 0);
      if (duration > UINT32_MAX || made.sampleCount == UINT32_MAX) {
        return inFile(source, track.fail("the new track's samples pass what its tables hold"));
      }
      const uint32_t index = sample->descriptionIndex;
      const uint32_t description =
          map != nullptr && index >= 1 && index <= map->size() ? (*map)[index - 1] : index;
      // A decoder starts with the first description and may miss a switch
      // to another: the first sample of a clip, or of a stretch that starts
      // on another description, carries its own parameter sets.
      std::vector<uint8_t> prefix;
      if (first && (newSource || description != described)) {
        prefix = parameterSets(descriptionOf(track, index));
      }
      described = description;
      constant = constant && prefix.empty();
      made.stts->addEntry(1, static_cast<uint32_t>(duration));
      sizes->addEntry(static_cast<uint32_t>(sample->size + prefix.size()));
      ++made.sampleCount;
      if (sample->sync) {
        syncs.push_back(made.sampleCount);
      } else {
        allSync = false;
      }
      const int64_t offset = sample->compositionOffset + place.shift;
      if (!offsets.empty() && offsets.back().second == offset) {
        ++offsets.back().first;
      } else {
        offsets.emplace_back(1, offset);
      }
      if (!grouped || sample->chunk != sourceChunk || first) {
        made.chunkSources.push_back(pieces[k].source);
        made.chunkOffsets.push_back(sample->offset);
        perChunk.push_back(0);
        chunkDescriptions.push_back(description);
        sourceChunk = sample->chunk;
      }
      ++perChunk.back();
      layout.add(pieces[k].source, sample->offset, sample->size, std::move(prefix));
    }
  }
  made.stsc = chunkRuns(lead.tracks[t].stsc(), perChunk, chunkDescriptions);
  if (constant) {
    made.stsz = constantSizeStsz(lead.tracks[t].constantSampleSize(), made.sampleCount);
  } else {
    made.stsz = std::move(sizes);
  }
  if (!allSync) {
    made.stss = std::make_unique<StssAtom>(AtomHeader());
    made.stss->header.type = "stss";
    for (uint32_t number : syncs) made.stss->addEntry(number);
  }
  Extras extras = joinExtras(sources, pieces, cuts, plan, t);
  made.extras = std::move(extras.boxes);
  made.keepGroups = extras.keepGroups;
  if (std::unique_ptr<CttsAtom> ctts = offsetTable(offsets)) made.extras.push_back(std::move(ctts));
  made.mediaDuration = plan.mediaDuration;
  return made;
}

// Video and anything with composition offsets is placed by its offsets.
bool reordered(const std::vector<TimelineSource>& sources, size_t t) {
  for (const TimelineSource& source : sources) {
    const Track& track = source.tracks->tracks[t];
    if (track.ctts() != nullptr || std::string(track.kind()) == "video") return true;
  }
  return false;
}

std::string secondsText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", seconds);
  return text;
}

}  // namespace

std::vector<uint8_t> parameterSets(const Atom* entry) {
  std::vector<uint8_t> out;
  if (entry == nullptr) return out;
  for (const Atom* child : entry->children) {
    if (const auto* avc = dynamic_cast<const AvcConfigAtom*>(child)) {
      const std::vector<unsigned char>& body = avc->body;
      if (!avc->parsed || body.size() < 6) return {};
      size_t at = 6;
      if (!appendNals(body, at, body[5] & 0x1Fu, avc->lengthSize, out) || at >= body.size()) {
        return {};
      }
      const unsigned pps = body[at++];
      if (!appendNals(body, at, pps, avc->lengthSize, out)) return {};
      return out;
    }
    if (const auto* hevc = dynamic_cast<const HevcConfigAtom*>(child)) {
      const std::vector<unsigned char>& body = hevc->body;
      if (!hevc->parsed || body.size() < 23) return {};
      size_t at = 23;
      for (unsigned array = 0; array < body[22]; ++array) {
        if (at + 3 > body.size()) return {};
        const unsigned count = be16(body, at + 1);
        at += 3;
        if (!appendNals(body, at, count, hevc->lengthSize, out)) return {};
      }
      return out;
    }
  }
  return out;
}

Window mediaWindow(const Track& track, double start, double end) {
  const double scale = track.timescale();
  if (track.elst() == nullptr) return {true, units(start, scale), units(end, scale), 0, 0, 0};
  double movie = 0;
  for (const ElstEntry& edit : track.elst()->entries) {
    const double segmentStart = movie;
    movie += segmentSeconds(edit, track.movieTimescale());
    if (edit.mediaTime < 0 || movie <= start) continue;
    if (segmentStart >= end) break;
    const double begin = std::max(start, segmentStart);
    const int64_t from = edit.mediaTime + units(begin - segmentStart, scale);
    return {true, from, from + units(end - begin, scale), begin - start, segmentStart,
            edit.mediaTime};
  }
  return {};
}

size_t leadTrack(const std::vector<Track>& tracks) {
  for (size_t t = 0; t < tracks.size(); ++t) {
    if (std::string(tracks[t].kind()) == "video") return t;
  }
  return 0;
}

std::vector<Piece> piecesOf(size_t source, const Track& lead, double from, double to) {
  std::vector<Piece> pieces;
  double movie = 0;
  double reached = from;
  const std::vector<ElstEntry> whole{{0, 0, 1, 0}};
  const std::vector<ElstEntry>& edits = lead.elst() != nullptr ? lead.elst()->entries : whole;
  for (const ElstEntry& edit : edits) {
    const double segmentStart = movie;
    movie += segmentSeconds(edit, lead.movieTimescale());
    const double start = std::max(from, segmentStart);
    const double end = std::min(to, movie);
    if (end <= start) continue;
    pieces.push_back({source, start, end, start - reached});
    reached = end;
  }
  return pieces;
}

Result<Timeline> layOut(const std::vector<TimelineSource>& sources,
                        const std::vector<Piece>& pieces, bool editList, Layout& layout) {
  const EditableTracks& first = *sources.front().tracks;
  const size_t trackCount = first.tracks.size();
  const size_t count = pieces.size();
  // Each stretch walks its tracks: a hostile edit list of a million
  // segments must not cost a million walks.
  if (count > kMostPieces) {
    return Status::failure("the new file would play " + std::to_string(count) +
                           " stretches of media; at most " + std::to_string(kMostPieces) +
                           " are followed");
  }
  // cuts[t][k], windows[t][k]: what piece k keeps of track t, and the media
  // it plays (its `late` becomes where that starts in the new file).
  std::vector<std::vector<Selection>> cuts(trackCount, std::vector<Selection>(count));
  std::vector<std::vector<Window>> windows(trackCount, std::vector<Window>(count));
  std::vector<bool> byOffsets(trackCount);
  for (size_t t = 0; t < trackCount; ++t) byOffsets[t] = reordered(sources, t);

  auto selectAll = [&](size_t k, double before, double after) -> Status {
    for (size_t t = 0; t < trackCount; ++t) {
      const Track& track = sources[pieces[k].source].tracks->tracks[t];
      const Window& window = windows[t][k];
      if (!window.plays) continue;
      const double scale = track.timescale();
      // Without an edit list nothing hides a pre-roll: the tracks start
      // with the sample that holds the window's start.
      const uint32_t roll = k == 0 && editList
                                ? preRoll(track, sampleTable(sources[pieces[k].source].tracks->traks[t]))
                                : 0;
      Result<Selection> cut =
          select(track, window.from - units(before, scale), window.to + units(after, scale), roll);
      if (!cut.ok()) return inFile(sources[pieces[k].source], cut.status());
      cuts[t][k] = std::move(*cut);
    }
    return Status();
  };

  Timeline timeline;
  double reached = 0;
  for (size_t k = 0; k < count; ++k) {
    for (size_t t = 0; t < trackCount; ++t) {
      windows[t][k] = mediaWindow(sources[pieces[k].source].tracks->tracks[t], pieces[k].start,
                                  pieces[k].end);
    }
    Status selected = selectAll(k, 0, 0);
    if (!selected.ok()) return selected;
    // A piece after the first shows what it decodes before its start, and
    // one before the last what it decodes after its end: one edit cannot
    // hide either. Every track of the piece takes the same extra time, and
    // is picked again for it: the B-frames that play before the last frame
    // kept come along, so the piece leaves no hole before the next.
    double before = 0;
    double after = 0;
    for (size_t t = 0; t < trackCount; ++t) {
      const Selection& cut = cuts[t][k];
      if (!byOffsets[t] || cut.empty()) continue;
      const double scale = sources[pieces[k].source].tracks->tracks[t].timescale();
      if (k > 0) before = std::max(before, static_cast<double>(cut.from - cut.earliest) / scale);
      if (k + 1 < count) after = std::max(after, static_cast<double>(cut.latestEnd - cut.to) / scale);
    }
    if (before > 0 || after > 0) {
      selected = selectAll(k, before, after);
      if (!selected.ok()) return selected;
    }
    if (before > 0.0005) {
      timeline.notes.push_back(sources[pieces[k].source].tracks->path + " from " +
                               secondsText(pieces[k].start) + " s: shown from its key frame, " +
                               secondsText(before) + " s more than its edit list shows");
    }
    reached += pieces[k].gapBefore;
    for (size_t t = 0; t < trackCount; ++t) windows[t][k].late += reached;
    reached += before + (pieces[k].end - pieces[k].start) + after;
  }
  timeline.seconds = reached;

  std::vector<Plan> plans;
  for (size_t t = 0; t < trackCount; ++t) {
    std::vector<double> late(count);
    for (size_t k = 0; k < count; ++k) late[k] = windows[t][k].late;
    plans.push_back(plan(cuts[t], late, first.tracks[t].timescale(), byOffsets[t]));
    if (editList && byOffsets[t]) keepOffsetsPositive(plans[t], cuts[t]);
  }
  if (!editList) startTogether(plans, byOffsets, first.tracks);

  double played = 0;
  for (size_t t = 0; t < trackCount; ++t) {
    if (!plans[t].any) continue;
    Result<NewTrack> made = build(sources, pieces, cuts[t], plans[t], t, layout);
    if (!made.ok()) return made.status();
    const double scale = first.tracks[t].timescale();
    if (editList) {
      made->edits = singleEdit(plans[t], timeline.seconds, scale, first.movieTimescale);
      played = std::max(played, plans[t].lateStart + shownSeconds(plans[t], timeline.seconds, scale));
    } else {
      played = std::max(played, static_cast<double>(plans[t].mediaDuration) / scale);
    }
    timeline.tracks.push_back(std::move(*made));
    timeline.kept.push_back(t);
  }
  timeline.seconds = played;
  return timeline;
}

}  // namespace mp4stbl::edit
