#include "edit/output.h"

#include <algorithm>
#include <filesystem>

#include "box/byte_order.h"
#include "box/edit_boxes.h"
#include "box/log.h"
#include "box/movie_boxes.h"
#include "edit/flatten.h"

namespace mp4stbl::edit {

namespace {

bool isSampleTableChild(const Atom& box) {
  // The description of the codings and of sample groups do not depend on
  // which samples are kept; every per-sample table is rebuilt or dropped.
  return box.header.type != "stsd" && box.header.type != "sgpd";
}

bool isMedia(const Atom& box) {
  const std::string& type = box.header.type;
  return type == "mdat" || type == "moof" || type == "mfra" || type == "sidx" ||
         dynamic_cast<const MdatAtom*>(&box) != nullptr;
}

// A 64-bit value in a header field that version 0 keeps in 32 bits moves
// the box to version 1.
void setDuration(FullBoxAtom& box, uint64_t& field, uint64_t value) {
  field = value;
  if (value > UINT32_MAX && box.version == 0) box.version = 1;
}

// "edts" holding one "elst" of `edits`, in version 1 when a value needs it.
std::unique_ptr<Atom> editBox(const std::vector<EditSegment>& edits) {
  AtomHeader header;
  header.type = "elst";
  auto elst = std::make_unique<ElstAtom>(header);
  for (const EditSegment& edit : edits) {
    elst->entries.push_back({edit.duration, edit.mediaTime, 1, 0});
    if (edit.duration > UINT32_MAX || edit.mediaTime > INT32_MAX) elst->version = 1;
  }
  header.type = "edts";
  auto edts = std::make_unique<ContainerAtom>(header);
  edts->children.push_back(elst.release());
  return edts;
}

Atom& sampleTable(const NewTrack& track) { return edit::sampleTable(track.trak); }

void placeTables(NewTrack& track) {
  Atom& stbl = sampleTable(track);
  removeChildren(&stbl, &isSampleTableChild);
  if (!track.keepGroups) {
    removeChildren(&stbl, [](const Atom& box) { return box.header.type == "sgpd"; });
  }
  for (Atom* table : {static_cast<Atom*>(track.stts.release()),
                      static_cast<Atom*>(track.stss.release()),
                      static_cast<Atom*>(track.stsc.release()), track.stsz.release()}) {
    if (table != nullptr) stbl.children.push_back(table);
  }
  for (auto& extra : track.extras) stbl.children.push_back(extra.release());
  removeChildren(track.trak, [](const Atom& box) { return box.header.type == "edts"; });
  if (!track.edits.empty()) {
    auto at = track.trak->children.begin();
    while (at != track.trak->children.end() && (*at)->header.type == "tkhd") ++at;
    track.trak->children.insert(at, editBox(track.edits).release());
  }
}

uint64_t presentationDuration(const NewTrack& track, uint32_t movieTimescale) {
  if (track.edits.empty()) return rescale(track.mediaDuration, track.timescale, movieTimescale);
  uint64_t total = 0;
  for (const EditSegment& edit : track.edits) total += edit.duration;
  return total;
}

void setDurations(Atom& moov, const std::vector<NewTrack>& tracks) {
  auto* mvhd = childOf<MvhdAtom>(&moov);
  uint64_t longest = 0;
  for (const NewTrack& track : tracks) {
    const uint64_t length = presentationDuration(track, mvhd->timescale);
    longest = std::max(longest, length);
    if (auto* tkhd = childOf<TkhdAtom>(track.trak)) setDuration(*tkhd, tkhd->duration, length);
    auto* mdhd = childOf<MdhdAtom>(childNamed(track.trak, "mdia"));
    setDuration(*mdhd, mdhd->duration, track.mediaDuration);
  }
  setDuration(*mvhd, mvhd->duration, longest);
}

uint64_t writtenLength(Atom& box) {
  MemoryStream sink;
  return box.Write(&sink) == 0 ? sink.data().size() : 0;
}

// The chunk offset tables of every track, for media data that starts at
// `base`; stco where every offset fits in 32 bits.
std::vector<std::unique_ptr<Atom>> offsetTables(const std::vector<NewTrack>& tracks,
                                                const Layout& layout, uint64_t base,
                                                const std::vector<bool>& wide) {
  std::vector<std::unique_ptr<Atom>> tables;
  for (size_t t = 0; t < tracks.size(); ++t) {
    const NewTrack& track = tracks[t];
    // Each chunk's place follows from the layout, not from its source
    // neighbour, so the tables are built entry by entry rather than by the
    // tables' crop and merge, which keep distances between chunks.
    if (wide[t]) {
      auto co64 = std::make_unique<Co64Atom>(AtomHeader());
      co64->header.type = "co64";
      co64->entries.reserve(track.chunkOffsets.size());
      for (size_t c = 0; c < track.chunkOffsets.size(); ++c) {
        co64->addEntry(base + layout.map(track.chunkSources[c], track.chunkOffsets[c]));
      }
      tables.push_back(std::move(co64));
    } else {
      auto stco = std::make_unique<StcoAtom>(AtomHeader());
      stco->header.type = "stco";
      stco->entries.reserve(track.chunkOffsets.size());
      for (size_t c = 0; c < track.chunkOffsets.size(); ++c) {
        const uint64_t at = base + layout.map(track.chunkSources[c], track.chunkOffsets[c]);
        stco->addEntry(static_cast<uint32_t>(at));
      }
      tables.push_back(std::move(stco));
    }
  }
  return tables;
}

bool needsWide(const NewTrack& track, const Layout& layout, uint64_t base) {
  uint64_t last = 0;
  for (size_t c = 0; c < track.chunkOffsets.size(); ++c) {
    last = std::max(last, layout.map(track.chunkSources[c], track.chunkOffsets[c]));
  }
  return base + last > UINT32_MAX;
}

// The length of what precedes the media data, with offsets of the width
// chosen so far, and the layout placed after it. The movie box grows as
// tracks move to co64, so the choice is repeated until it holds; each round
// can only widen tracks.
Result<uint64_t> settleOffsets(Mp4File& tree, Atom& moov, std::vector<NewTrack>& tracks,
                               Layout& layout, bool moovLast, std::vector<bool>& wide) {
  uint64_t before = CopyMdatAtom::headerLengthFor(layout);
  for (Atom* box : tree.root.children) before += writtenLength(*box);
  for (size_t round = 0; round <= tracks.size(); ++round) {
    uint64_t base = before;
    if (!moovLast) {
      auto tables = offsetTables(tracks, layout, 0, wide);
      for (size_t t = 0; t < tracks.size(); ++t) sampleTable(tracks[t]).children.push_back(tables[t].release());
      base += writtenLength(moov);
      for (NewTrack& track : tracks) {
        delete sampleTable(track).children.back();
        sampleTable(track).children.pop_back();
      }
    }
    layout.place(base);
    bool changed = false;
    for (size_t t = 0; t < tracks.size(); ++t) {
      if (!wide[t] && needsWide(tracks[t], layout, base)) wide[t] = changed = true;
    }
    if (!changed) return base;
  }
  return Status::failure("the chunk offsets do not settle");
}

Status refuseInputs(const std::vector<std::string>& inputs, const std::string& output) {
  namespace fs = std::filesystem;
  for (const std::string& input : inputs) {
    std::error_code ignored;
    if (input == output || fs::equivalent(input, output, ignored)) {
      return Status::failure(output + " is one of the inputs; write to another file");
    }
  }
  return Status();
}

Status samplesInside(const Track& track) {
  SampleWalker walk(track);
  for (;;) {
    Result<const SampleInfo*> sample = walk.next();
    if (!sample.ok()) return sample.status();
    if (*sample == nullptr) return Status();
    if ((*sample)->missing) return track.fail("a sample lies past the end of the new file");
  }
}

// Samples of one size (PCM: one a sound sample, millions of them) are
// checked a chunk at a time.
Status chunksInside(const Track& track) {
  const std::vector<StscEntry>& runs = track.stsc().entries;
  const uint64_t size = track.constantSampleSize();
  for (size_t run = 0; run < runs.size(); ++run) {
    const uint64_t next = run + 1 < runs.size() ? runs[run + 1].firstChunk : UINT64_MAX;
    const uint64_t last = std::min(next - 1, track.chunkCount());
    const uint64_t length = size * runs[run].samplesPerChunk;
    for (uint64_t chunk = runs[run].firstChunk; chunk <= last; ++chunk) {
      const uint64_t offset = track.chunkOffset(chunk);
      if (offset > track.fileLength() || length > track.fileLength() - offset) {
        return track.fail("chunk " + std::to_string(chunk) + " lies past the end of the new file");
      }
    }
  }
  return Status();
}

// Reads the new file back: every track readable and every sample inside it.
Status checkOutput(const std::string& output, const std::vector<NewTrack>& planned) {
  Mp4File file;
  Status opened = file.open(output);
  if (!opened.ok()) return Status::failure("the new file does not read back: " + opened.message());
  FoundTracks found = findTracks(file);
  if (!found.unreadable.empty()) {
    return Status::failure("the new file does not read back: " + found.unreadable.front());
  }
  if (found.tracks.size() != planned.size()) {
    return Status::failure("the new file does not read back: a track is missing");
  }
  for (size_t t = 0; t < planned.size(); ++t) {
    const Track& track = found.tracks[t];
    if (track.sampleCount() != planned[t].sampleCount) {
      return track.fail("the new file holds " + std::to_string(track.sampleCount()) +
                        " samples where " + std::to_string(planned[t].sampleCount) +
                        " were written");
    }
    Status inside = track.constantSampleSize() != 0 ? chunksInside(track) : samplesInside(track);
    if (!inside.ok()) return inside;
  }
  return Status();
}

}  // namespace

std::vector<std::unique_ptr<Atom>> cutExtras(Atom& stbl, uint32_t first, uint32_t last) {
  std::vector<std::unique_ptr<Atom>> extras;
  for (Atom* box : stbl.children) {
    // A version whose records are not known stays raw and cannot be cut.
    const auto* full = dynamic_cast<FullBoxAtom*>(box);
    if (full != nullptr && !full->rest.empty() && dynamic_cast<SdtpAtom*>(box) == nullptr) continue;
    if (auto* ctts = dynamic_cast<CttsAtom*>(box)) {
      auto cut = std::make_unique<CttsAtom>(ctts->header);
      cut->version = ctts->version;
      cut->flags = ctts->flags;
      appendRuns(cut->entries, ctts->entries, first, last);
      extras.push_back(std::move(cut));
    } else if (auto* sbgp = dynamic_cast<SbgpAtom*>(box)) {
      auto cut = std::make_unique<SbgpAtom>(sbgp->header);
      cut->version = sbgp->version;
      cut->flags = sbgp->flags;
      cut->groupingType = sbgp->groupingType;
      cut->groupingTypeParameter = sbgp->groupingTypeParameter;
      appendRuns(cut->entries, sbgp->entries, first, last);
      extras.push_back(std::move(cut));
    } else if (auto* sdtp = dynamic_cast<SdtpAtom*>(box)) {
      // One byte a sample; a table of another length describes nothing
      // that can be cut, and is dropped.
      if (sdtp->sampleFlags().size() < last) continue;
      auto cut = std::make_unique<SdtpAtom>(sdtp->header);
      cut->version = sdtp->version;
      cut->flags = sdtp->flags;
      cut->rest.assign(sdtp->rest.begin() + first - 1, sdtp->rest.begin() + last);
      extras.push_back(std::move(cut));
    }
  }
  return extras;
}

Atom* childNamed(Atom* parent, const char* type) {
  for (Atom* child : parent->children) {
    if (child->header.type == type) return child;
  }
  return nullptr;
}

std::vector<unsigned char> bytesOf(Atom& box) {
  MemoryStream out;
  return box.Write(&out) == 0 ? out.data() : std::vector<unsigned char>{};
}

Status missingSample(const Track& track, const SampleInfo& sample) {
  return track.fail("sample " + std::to_string(sample.number) + " lies past the end of the file");
}

Atom& sampleTable(Atom* trak) {
  return *childNamed(childNamed(childNamed(trak, "mdia"), "minf"), "stbl");
}

std::unique_ptr<Atom> constantSizeStsz(uint32_t size, uint32_t count) {
  AtomHeader header;
  header.type = "stsz";
  auto stsz = std::make_unique<UserDefAtom>(header);
  stsz->body.assign(12, 0);
  byte_order::store<uint32_t>(stsz->body.data() + 4, size);
  byte_order::store<uint32_t>(stsz->body.data() + 8, count);
  return stsz;
}

Result<EditableTracks> editableTracks(Mp4File& file, const std::string& path) {
  Status opened = file.open(path);
  if (!opened.ok()) return Status::failure(path + ": " + opened.message());
  Status flat = flattenFragments(file);
  if (!flat.ok()) return Status::failure(path + ": " + flat.message());
  FoundTracks found = findTracks(file);
  if (!found.unreadable.empty()) return Status::failure(path + ": " + found.unreadable.front());
  if (found.tracks.empty()) return Status::failure(path + ": no track with a sample table");
  EditableTracks editable;
  editable.path = path;
  editable.tracks = std::move(found.tracks);
  editable.traks = file.find("moov/trak");
  const std::vector<Atom*> mvhd = file.find("moov/mvhd");
  const auto* header = mvhd.empty() ? nullptr : dynamic_cast<const MvhdAtom*>(mvhd.front());
  if (header == nullptr || header->timescale == 0) {
    return Status::failure(path + ": no movie header with a time scale");
  }
  editable.movieTimescale = header->timescale;
  for (const Track& track : editable.tracks) {
    if (track.timescale() == 0) return track.fail("its media header has no time scale");
  }
  return editable;
}

Status writeEdited(Mp4File& tree, std::vector<NewTrack>& tracks, Layout& layout,
                   const std::vector<IOStream*>& sources, const std::vector<std::string>& inputs,
                   const std::string& output, const EditOptions& options) {
  Status refused = refuseInputs(inputs, output);
  if (!refused.ok()) return refused;
  removeChildren(&tree.root, &isMedia);
  std::unique_ptr<Atom> moov(childNamed(&tree.root, "moov"));
  tree.root.children.remove(moov.get());
  removeChildren(moov.get(), [](const Atom& box) { return box.header.type == "mvex"; });
  setDurations(*moov, tracks);
  for (NewTrack& track : tracks) placeTables(track);

  std::vector<bool> wide(tracks.size(), false);
  Result<uint64_t> base = settleOffsets(tree, *moov, tracks, layout, options.moovLast, wide);
  if (!base.ok()) return base.status();
  auto offsets = offsetTables(tracks, layout, *base, wide);
  for (size_t t = 0; t < tracks.size(); ++t) {
    sampleTable(tracks[t]).children.push_back(offsets[t].release());
  }
  // Everything else first, then the movie and the media in the order asked.
  if (!options.moovLast) tree.root.children.push_back(moov.release());
  tree.root.children.push_back(new CopyMdatAtom(layout, sources, options.progress));
  if (options.moovLast) tree.root.children.push_back(moov.release());

  Status saved = tree.save(output);
  if (!saved.ok()) return saved;
  Status checked = checkOutput(output, tracks);
  if (!checked.ok()) {
    std::error_code ignored;
    std::filesystem::remove(output, ignored);
    return Status::failure("the new file failed its check and was removed: " + checked.message());
  }
  return Status();
}

}  // namespace mp4stbl::edit
