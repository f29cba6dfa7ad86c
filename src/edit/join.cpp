// Joining: clips with the same tracks played one after the other.
#include <algorithm>
#include <memory>

#include "box/edit_boxes.h"
#include "edit/editor.h"
#include "edit/output.h"

namespace mp4stbl {

namespace {

using edit::EditSegment;
using edit::NewTrack;

struct Clip {
  std::string path;
  std::unique_ptr<Mp4File> file;
  edit::EditableTracks source;
};

std::string describeTrack(const Track& track) {
  return std::string(track.handler()) + "/" + track.entryType() + " at " +
         std::to_string(track.timescale()) + " Hz";
}

// Every clip holds the same tracks as the first, in the same order.
Status matchTracks(const std::vector<Clip>& clips) {
  const std::vector<Track>& first = clips.front().source.tracks;
  for (const Clip& clip : clips) {
    const std::vector<Track>& tracks = clip.source.tracks;
    if (tracks.size() != first.size()) {
      return Status::failure(clip.path + ": has " + std::to_string(tracks.size()) +
                             " tracks where " + clips.front().path + " has " +
                             std::to_string(first.size()));
    }
    for (size_t t = 0; t < tracks.size(); ++t) {
      if (describeTrack(tracks[t]) != describeTrack(first[t])) {
        return Status::failure(clip.path + ": track " + std::to_string(t + 1) + " is " +
                               describeTrack(tracks[t]) + " where " + clips.front().path +
                               " has " + describeTrack(first[t]));
      }
    }
  }
  return Status();
}

std::vector<unsigned char> bytesOf(Atom& box) {
  MemoryStream out;
  return box.Write(&out) == 0 ? out.data() : std::vector<unsigned char>{};
}

// The output's description index of each of a clip's sample entries: an
// entry equal byte for byte to one already held is shared, another (other
// parameter sets, another picture size) is added.
Result<std::vector<uint32_t>> mapDescriptions(StsdAtom& joined, const StsdAtom& clip) {
  std::vector<std::vector<unsigned char>> held;
  for (Atom* entry : joined.children) held.push_back(bytesOf(*entry));
  std::vector<uint32_t> indexes;
  for (Atom* entry : clip.children) {
    std::vector<unsigned char> bytes = bytesOf(*entry);
    auto found = std::find(held.begin(), held.end(), bytes);
    if (found == held.end()) {
      MemoryStream in(bytes);
      Atom* copy = joined.ReadChild(&in);
      if (copy == nullptr) return Status::failure("a sample entry cannot be copied");
      joined.children.push_back(copy);
      held.push_back(std::move(bytes));
      found = held.end() - 1;
    }
    indexes.push_back(static_cast<uint32_t>(found - held.begin() + 1));
  }
  return indexes;
}

// Where a clip's track starts to play in its own media: the media time of
// its first edit that is not empty (AAC priming, the delay of B-frames).
int64_t playStart(const Track& track) {
  if (track.elst() == nullptr) return 0;
  for (const ElstEntry& edit : track.elst()->entries) {
    if (edit.mediaTime >= 0) return edit.mediaTime;
  }
  return 0;
}

// How long a clip's track plays, in the movie's time scale: as its edit
// list says, else its whole media.
uint64_t playLength(const Track& track, uint32_t movieTimescale) {
  if (track.elst() != nullptr) return track.presentationDuration();
  return rescale(track.mediaDuration(), track.timescale(), movieTimescale);
}

// How long each clip plays: as long as its shortest track, so that no
// track runs short of media within its clip.
std::vector<uint64_t> clipLengths(const std::vector<Clip>& clips) {
  std::vector<uint64_t> lengths;
  const uint32_t movieTimescale = clips.front().source.movieTimescale;
  for (const Clip& clip : clips) {
    uint64_t shortest = UINT64_MAX;
    for (const Track& track : clip.source.tracks) {
      shortest = std::min(shortest, playLength(track, movieTimescale));
    }
    lengths.push_back(shortest);
  }
  return lengths;
}

template <class Box>
std::vector<Box*> boxesOf(const std::vector<std::unique_ptr<Atom>>& boxes) {
  std::vector<Box*> found;
  for (const auto& box : boxes) {
    if (auto* typed = dynamic_cast<Box*>(box.get())) found.push_back(typed);
  }
  return found;
}

std::vector<std::vector<unsigned char>> groupDescriptions(Atom& stbl) {
  std::vector<std::vector<unsigned char>> held;
  for (Atom* box : stbl.children) {
    if (box->header.type == "sgpd") held.push_back(bytesOf(*box));
  }
  return held;
}

// The per-sample boxes beside the tables, joined: ctts when any clip has
// one (a clip without plays in decode order: offset 0), sdtp when every
// clip has one, sample groups when every clip describes them alike.
std::vector<std::unique_ptr<Atom>> joinExtras(std::vector<Clip>& clips, size_t t,
                                              bool* keepGroups) {
  std::vector<std::vector<std::unique_ptr<Atom>>> per;
  for (Clip& clip : clips) {
    const Track& track = clip.source.tracks[t];
    per.push_back(edit::cutExtras(edit::sampleTable(clip.source.traks[t]), 1, track.sampleCount()));
  }
  std::vector<std::unique_ptr<Atom>> joined;
  std::unique_ptr<CttsAtom> ctts;
  bool allSdtp = true;
  const auto descriptions = groupDescriptions(edit::sampleTable(clips.front().source.traks[t]));
  *keepGroups = true;
  for (size_t c = 0; c < clips.size(); ++c) {
    const std::vector<CttsAtom*> offsets = boxesOf<CttsAtom>(per[c]);
    if (!offsets.empty() || ctts != nullptr) {
      if (ctts == nullptr) {
        ctts = std::make_unique<CttsAtom>(offsets.front()->header);
        for (size_t before = 0; before < c; ++before) {
          ctts->entries.push_back({clips[before].source.tracks[t].sampleCount(), 0});
        }
      }
      if (offsets.empty()) {
        ctts->entries.push_back({clips[c].source.tracks[t].sampleCount(), 0});
      } else {
        ctts->version = std::max(ctts->version, offsets.front()->version);
        ctts->entries.insert(ctts->entries.end(), offsets.front()->entries.begin(),
                             offsets.front()->entries.end());
      }
    }
    allSdtp = allSdtp && boxesOf<SdtpAtom>(per[c]).size() == 1;
    const std::vector<SbgpAtom*> groups = boxesOf<SbgpAtom>(per[c]);
    const std::vector<SbgpAtom*> first = boxesOf<SbgpAtom>(per.front());
    bool alike = groups.size() == first.size() &&
                 groupDescriptions(edit::sampleTable(clips[c].source.traks[t])) == descriptions;
    for (size_t g = 0; alike && g < groups.size(); ++g) {
      alike = groups[g]->groupingType == first[g]->groupingType;
    }
    *keepGroups = *keepGroups && alike;
  }
  if (ctts != nullptr) joined.push_back(std::move(ctts));
  if (allSdtp) {
    SdtpAtom* sdtp = boxesOf<SdtpAtom>(per.front()).front();
    for (size_t c = 1; c < clips.size(); ++c) {
      const auto& more = boxesOf<SdtpAtom>(per[c]).front()->rest;
      sdtp->rest.insert(sdtp->rest.end(), more.begin(), more.end());
    }
  }
  for (auto& box : per.front()) {
    const bool group = dynamic_cast<SbgpAtom*>(box.get()) != nullptr;
    if (dynamic_cast<CttsAtom*>(box.get()) != nullptr || (group && !*keepGroups) ||
        (!group && !allSdtp)) {
      continue;
    }
    joined.push_back(std::move(box));
  }
  if (*keepGroups) {
    std::vector<SbgpAtom*> into = boxesOf<SbgpAtom>(joined);
    for (size_t c = 1; c < clips.size(); ++c) {
      const std::vector<SbgpAtom*> groups = boxesOf<SbgpAtom>(per[c]);
      for (size_t g = 0; g < groups.size(); ++g) {
        into[g]->entries.insert(into[g]->entries.end(), groups[g]->entries.begin(),
                                groups[g]->entries.end());
      }
    }
  }
  return joined;
}

// The tables of track t joined across the clips.
Result<NewTrack> joinTrack(std::vector<Clip>& clips, size_t t,
                           const std::vector<uint64_t>& clipLengths) {
  NewTrack made;
  const Track& lead = clips.front().source.tracks[t];
  made.trak = clips.front().source.traks[t];
  made.timescale = lead.timescale();
  made.stts = std::make_unique<SttsAtom>(AtomHeader());
  made.stts->header.type = "stts";
  made.stsc = std::make_unique<StscAtom>(AtomHeader());
  made.stsc->header.type = "stsc";
  auto sizes = std::make_unique<StszAtom>(AtomHeader());
  sizes->header.type = "stsz";
  const bool anySync = std::any_of(clips.begin(), clips.end(), [t](const Clip& clip) {
    return clip.source.tracks[t].stss() != nullptr;
  });
  if (anySync) {
    made.stss = std::make_unique<StssAtom>(AtomHeader());
    made.stss->header.type = "stss";
  }
  StsdAtom* joined = nullptr;
  for (Atom* child : edit::sampleTable(made.trak).children) {
    if (joined == nullptr) joined = dynamic_cast<StsdAtom*>(child);
  }
  if (joined == nullptr) return lead.fail("no stsd");
  bool constant = true;
  uint64_t chunks = 0;
  for (size_t c = 0; c < clips.size(); ++c) {
    const Track& track = clips[c].source.tracks[t];
    const uint32_t count = track.sampleCount();
    if (uint64_t{made.sampleCount} + count > UINT32_MAX) {
      return track.fail("the joined track would pass 2^32 samples");
    }
    Result<std::vector<uint32_t>> descriptions = mapDescriptions(*joined, track.stsd());
    if (!descriptions.ok()) return track.fail(descriptions.message());
    made.stts->merge(&track.stts(), 1, static_cast<uint32_t>(track.stts().entries.size()));
    // The table's own merge keeps first chunks as they stand; a joined
    // track numbers its chunks on, so each run is added renumbered.
    for (const StscEntry& run : track.stsc().entries) {
      const uint32_t index = run.sampleDescriptionIndex;
      if (index == 0 || index > descriptions->size()) {
        return track.fail("stsc names sample description " + std::to_string(index));
      }
      made.stsc->addEntry(static_cast<uint32_t>(run.firstChunk + chunks), run.samplesPerChunk,
                          (*descriptions)[index - 1]);
    }
    if (track.stsz() != nullptr) {
      constant = false;
      sizes->merge(track.stsz(), 1, count);
    } else {
      constant = constant && track.constantSampleSize() == lead.constantSampleSize();
      for (uint32_t n = 0; n < count; ++n) sizes->addEntry(track.constantSampleSize());
    }
    if (track.stss() != nullptr) {
      made.stss->merge(track.stss(), 1, count, made.sampleCount);
    } else if (anySync) {
      for (uint32_t n = 1; n <= count; ++n) made.stss->addEntry(made.sampleCount + n);
    }
    for (uint64_t chunk = 1; chunk <= track.chunkCount(); ++chunk) {
      made.chunkSources.push_back(c);
      made.chunkOffsets.push_back(track.chunkOffset(chunk));
    }
    chunks += track.chunkCount();
    // Each clip plays for the same time on every track, so the tracks meet
    // again at every join however long each clip's media runs.
    made.edits.push_back(
        {clipLengths[c], static_cast<int64_t>(made.mediaDuration) + playStart(track)});
    made.mediaDuration += track.mediaDuration();
    made.sampleCount += count;
  }
  made.extras = joinExtras(clips, t, &made.keepGroups);
  if (constant) {
    made.stsz = edit::constantSizeStsz(lead.constantSampleSize(), made.sampleCount);
  } else {
    made.stsz = std::move(sizes);
  }
  return made;
}

Status addMedia(edit::Layout& layout, size_t source, const Track& track) {
  SampleWalker walk(track);
  for (;;) {
    Result<const SampleInfo*> sample = walk.next();
    if (!sample.ok()) return sample.status();
    if (*sample == nullptr) return Status();
    if ((*sample)->missing) {
      return track.fail("sample " + std::to_string((*sample)->number) +
                        " lies past the end of the file");
    }
    layout.add(source, (*sample)->offset, (*sample)->size);
  }
}

}  // namespace

Status join(const std::vector<std::string>& inputs, const std::string& output,
            const EditOptions& options) {
  if (inputs.size() < 2) return Status::failure("join needs two files or more");
  std::vector<Clip> clips;
  for (const std::string& path : inputs) {
    Clip clip{path, std::make_unique<Mp4File>(), {}};
    Result<edit::EditableTracks> source = edit::editableTracks(*clip.file, path);
    if (!source.ok()) return source.status();
    clip.source = std::move(*source);
    clips.push_back(std::move(clip));
  }
  Status matched = matchTracks(clips);
  if (!matched.ok()) return matched;
  const std::vector<uint64_t> lengths = clipLengths(clips);
  edit::Layout layout;
  std::vector<IOStream*> sources;
  for (size_t c = 0; c < clips.size(); ++c) {
    sources.push_back(clips[c].file->stream());
    for (const Track& track : clips[c].source.tracks) {
      Status added = addMedia(layout, c, track);
      if (!added.ok()) return added;
    }
  }
  layout.finish();
  std::vector<NewTrack> tracks;
  for (size_t t = 0; t < clips.front().source.tracks.size(); ++t) {
    Result<NewTrack> track = joinTrack(clips, t, lengths);
    if (!track.ok()) return track.status();
    tracks.push_back(std::move(*track));
  }
  return edit::writeEdited(*clips.front().file, tracks, layout, sources, inputs, output, options);
}

}  // namespace mp4stbl
