#include "record/movie.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

#include "box/fragment_boxes.h"
#include "box/movie_boxes.h"
#include "box/mp4file.h"
#include "record/sample_entries.h"

namespace mp4stbl::record {

namespace {

// The identity transform of mvhd and tkhd.
constexpr std::array<uint32_t, 9> kMatrix = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};

void put32(Bytes& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
}
void put16(Bytes& out, uint16_t value) {
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}
void putMatrix(Bytes& out) {
  for (uint32_t word : kMatrix) put32(out, word);
}

// A tree under construction; boxes lent to it (the tracks' own tables and
// entries) are taken back before it is deleted.
class Tree {
 public:
  explicit Tree(const char* type) : root_(std::make_unique<ContainerAtom>(headerOf(type))) {}
  ~Tree() {
    for (auto& [parent, child] : lent_) parent->children.remove(child);
  }
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  Atom* root() { return root_.get(); }
  template <class Box = ContainerAtom>
  Box* add(Atom* parent, const char* type) {
    auto* box = new Box(headerOf(type));
    parent->children.push_back(box);
    return box;
  }
  Atom* raw(Atom* parent, const char* type, Bytes body) {
    auto* box = add<UserDefAtom>(parent, type);
    box->body = std::move(body);
    return box;
  }
  void lend(Atom* parent, Atom* child) {
    parent->children.push_back(child);
    lent_.emplace_back(parent, child);
  }
  // The tree's bytes; empty when a box cannot be written.
  Bytes bytes() {
    MemoryStream out;
    if (root_->Write(&out) != 0) return {};
    return out.data();
  }

 private:
  std::unique_ptr<Atom> root_;
  std::vector<std::pair<Atom*, Atom*>> lent_;
};

uint64_t toMovieTime(uint64_t ticks, uint32_t from, uint32_t to) {
  return static_cast<uint64_t>(std::llround(static_cast<double>(ticks) * to / from));
}

// What the track presents, in the movie's time scale. The edit starts at
// the first frame shown, and the frames shown last end that much later
// than the last decode, so the edit lasts as long as the media.
uint64_t presentedTime(const RecordedTrack& track, uint32_t movieTimescale) {
  return toMovieTime(track.mediaDuration(), track.timescale, movieTimescale);
}

void addMovieHeader(Tree& tree, uint32_t timescale, uint64_t duration, uint32_t nextTrack) {
  auto* mvhd = tree.add<MvhdAtom>(tree.root(), "mvhd");
  mvhd->timescale = timescale;
  mvhd->duration = duration;
  mvhd->version = duration > UINT32_MAX ? 1 : 0;
  Bytes& rest = mvhd->rest;
  put32(rest, 0x00010000);  // rate 1.0
  put16(rest, 0x0100);      // volume 1.0
  rest.insert(rest.end(), 10, 0);
  putMatrix(rest);
  rest.insert(rest.end(), 24, 0);
  put32(rest, nextTrack);
}

void addTrackHeader(Tree& tree, Atom* trak, const RecordedTrack& track, uint64_t duration) {
  auto* tkhd = tree.add<TkhdAtom>(trak, "tkhd");
  tkhd->flags = 3;  // enabled, in the movie
  tkhd->trackId = track.id;
  tkhd->duration = duration;
  tkhd->version = duration > UINT32_MAX ? 1 : 0;
  Bytes& rest = tkhd->rest;
  rest.insert(rest.end(), 8, 0);  // reserved
  put16(rest, 0);                 // layer
  put16(rest, 0);                 // alternate group
  put16(rest, track.handler[0] == 's' ? 0x0100 : 0);
  put16(rest, 0);
  putMatrix(rest);
  put32(rest, uint32_t{track.width} << 16);
  put32(rest, uint32_t{track.height} << 16);
}

// The edit list: an empty edit for a track that starts late, then the
// media from the first frame shown. None when neither is needed. A
// fragmented file states no length (0: as long as the fragments last).
void addEdits(Tree& tree, Atom* trak, const RecordedTrack& track, uint32_t movieTimescale,
              bool fragmented) {
  const uint64_t late = fragmented ? 0 : track.firstDecodeTime;
  if (late == 0 && track.presentationDelay == 0) return;
  auto* elst = tree.add<ElstAtom>(tree.add(trak, "edts"), "elst");
  if (late != 0) elst->entries.push_back({toMovieTime(late, track.timescale, movieTimescale), -1});
  const uint64_t shown = fragmented ? 0 : presentedTime(track, movieTimescale);
  elst->entries.push_back({shown, track.presentationDelay});
  elst->version = shown > UINT32_MAX ? 1 : 0;
}

Bytes handlerBody(const char* handler) {
  Bytes body(8, 0);  // version, flags, pre-defined
  body.insert(body.end(), handler, handler + 4);
  body.insert(body.end(), 12, 0);
  const char* name = handler[0] == 'v' ? "VideoHandler" : handler[0] == 's' ? "SoundHandler"
                                                                             : "MetadataHandler";
  body.insert(body.end(), name, name + std::char_traits<char>::length(name) + 1);
  return body;
}

void addMediaHeader(Tree& tree, Atom* minf, const char* handler) {
  if (handler[0] == 'v') {
    tree.raw(minf, "vmhd", {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0});
  } else if (handler[0] == 's') {
    tree.raw(minf, "smhd", Bytes(8, 0));
  } else {
    tree.raw(minf, "nmhd", Bytes(4, 0));
  }
  // One data reference: the media is in this file.
  Atom* dref = tree.raw(tree.add(minf, "dinf"), "dref", {0, 0, 0, 0, 0, 0, 0, 1});
  tree.raw(dref, "url ", {0, 0, 0, 1});
}

// The chunk offsets, moved by `shift`: the track's own table when they do
// not move, else a new one, 64-bit when an offset needs it.
void addChunkOffsets(Tree& tree, Atom* stbl, RecordedTrack& track, int64_t shift) {
  Atom* own = track.co64 ? static_cast<Atom*>(track.co64.get()) : track.stco.get();
  if (shift == 0) return tree.lend(stbl, own);
  std::vector<uint64_t> offsets;
  if (track.co64) {
    offsets.assign(track.co64->entries.begin(), track.co64->entries.end());
  } else {
    offsets.assign(track.stco->entries.begin(), track.stco->entries.end());
  }
  for (uint64_t& offset : offsets) offset = static_cast<uint64_t>(static_cast<int64_t>(offset) + shift);
  const bool wide = !offsets.empty() && *std::max_element(offsets.begin(), offsets.end()) > UINT32_MAX;
  if (wide) {
    auto* co64 = tree.add<Co64Atom>(stbl, "co64");
    for (uint64_t offset : offsets) co64->addEntry(offset);
  } else {
    auto* stco = tree.add<StcoAtom>(stbl, "stco");
    for (uint64_t offset : offsets) stco->addEntry(static_cast<uint32_t>(offset));
  }
}

void addFullTables(Tree& tree, Atom* stbl, RecordedTrack& track, int64_t shift) {
  tree.lend(stbl, track.stts.get());
  if (track.anyOffset) tree.lend(stbl, track.ctts.get());
  tree.lend(stbl, track.stsc.get());
  if (track.frameSize != 0) {
    track.stsz->sample_size = track.frameSize;
    track.stsz->sample_count = track.sampleCount;
  }
  tree.lend(stbl, track.stsz.get());
  if (!track.allSync) tree.lend(stbl, track.stss.get());
  addChunkOffsets(tree, stbl, track, shift);
}

void addEmptyTables(Tree& tree, Atom* stbl) {
  tree.add<SttsAtom>(stbl, "stts");
  tree.add<StscAtom>(stbl, "stsc");
  tree.add<StszAtom>(stbl, "stsz");
  tree.add<StcoAtom>(stbl, "stco");
}

void addTrack(Tree& tree, RecordedTrack& track, uint32_t movieTimescale, bool fragmented,
              int64_t shift) {
  Atom* trak = tree.add(tree.root(), "trak");
  const uint64_t late = toMovieTime(track.firstDecodeTime, track.timescale, movieTimescale);
  addTrackHeader(tree, trak, track, fragmented ? 0 : late + presentedTime(track, movieTimescale));
  addEdits(tree, trak, track, movieTimescale, fragmented);
  Atom* mdia = tree.add(trak, "mdia");
  auto* mdhd = tree.add<MdhdAtom>(mdia, "mdhd");
  mdhd->timescale = track.timescale;
  mdhd->duration = fragmented ? 0 : track.mediaDuration();
  mdhd->version = mdhd->duration > UINT32_MAX ? 1 : 0;
  mdhd->language = 0x55C4;  // "und"
  mdhd->rest = {0, 0};
  tree.raw(mdia, "hdlr", handlerBody(track.handler));
  Atom* minf = tree.add(mdia, "minf");
  addMediaHeader(tree, minf, track.handler);
  Atom* stbl = tree.add<StblAtom>(minf, "stbl");
  tree.lend(tree.add<StsdAtom>(stbl, "stsd"), track.entry.get());
  if (fragmented) {
    addEmptyTables(tree, stbl);
  } else {
    addFullTables(tree, stbl, track, shift);
  }
}

}  // namespace

Bytes fileTypeBox(const std::vector<RecordedTrack>& tracks) {
  Bytes body = {'i', 's', 'o', 'm', 0, 0, 2, 0, 'i', 's', 'o', 'm', 'i', 's', 'o', '2',
                'i', 's', 'o', '6', 'm', 'p', '4', '1'};
  const bool avc = std::any_of(tracks.begin(), tracks.end(), [](const RecordedTrack& track) {
    return track.entry->header.type == "avc1";
  });
  if (avc) body.insert(body.end(), {'a', 'v', 'c', '1'});
  Bytes box;
  put32(box, static_cast<uint32_t>(8 + body.size()));
  box.insert(box.end(), {'f', 't', 'y', 'p'});
  box.insert(box.end(), body.begin(), body.end());
  return box;
}

Bytes fragmentedMovieBox(std::vector<RecordedTrack>& tracks, uint32_t movieTimescale) {
  Tree tree("moov");
  addMovieHeader(tree, movieTimescale, 0, static_cast<uint32_t>(tracks.size() + 1));
  for (RecordedTrack& track : tracks) addTrack(tree, track, movieTimescale, true, 0);
  Atom* mvex = tree.add(tree.root(), "mvex");
  for (const RecordedTrack& track : tracks) {
    auto* trex = tree.add<TrexAtom>(mvex, "trex");
    trex->trackId = track.id;
    trex->defaultDescriptionIndex = 1;
  }
  return tree.bytes();
}

Bytes finalMovieBox(std::vector<RecordedTrack>& tracks, uint32_t movieTimescale, int64_t shift) {
  Tree tree("moov");
  uint64_t duration = 0;
  for (const RecordedTrack& track : tracks) {
    const uint64_t late = toMovieTime(track.firstDecodeTime, track.timescale, movieTimescale);
    duration = std::max(duration, late + presentedTime(track, movieTimescale));
  }
  addMovieHeader(tree, movieTimescale, duration, static_cast<uint32_t>(tracks.size() + 1));
  for (RecordedTrack& track : tracks) addTrack(tree, track, movieTimescale, false, shift);
  return tree.bytes();
}

namespace {

// Fields every sample of a fragment's track shares go into its header;
// those that differ, into each sample of its runs.
struct Shared {
  bool duration = true, size = true, flags = true, offsets = false, negative = false;
  HeldSample first;
};

Shared sharedFields(const std::vector<const Chunk*>& chunks) {
  Shared shared;
  shared.first = chunks.front()->samples.front();
  for (const Chunk* chunk : chunks) {
    for (const HeldSample& sample : chunk->samples) {
      shared.duration = shared.duration && sample.duration == shared.first.duration;
      shared.size = shared.size && sample.size == shared.first.size;
      shared.flags = shared.flags && sample.key == shared.first.key;
      shared.offsets = shared.offsets || sample.compositionOffset != 0;
      shared.negative = shared.negative || sample.compositionOffset < 0;
    }
  }
  return shared;
}

uint32_t flagsOf(bool key) { return key ? kKeySampleFlags : kOtherSampleFlags; }

void addTrackFragment(Tree& tree, RecordedTrack& track, const std::vector<const Chunk*>& chunks,
                      const std::vector<uint32_t>& dataOffsets) {
  const Shared shared = sharedFields(chunks);
  Atom* traf = tree.add(tree.root(), "traf");
  auto* tfhd = tree.add<TfhdAtom>(traf, "tfhd");
  tfhd->flags = TfhdAtom::kDefaultBaseIsMoof;
  tfhd->trackId = track.id;
  if (shared.duration) tfhd->flags |= TfhdAtom::kDefaultDuration;
  if (shared.size) tfhd->flags |= TfhdAtom::kDefaultSize;
  tfhd->flags |= TfhdAtom::kDefaultFlags;
  tfhd->defaultDuration = shared.first.duration;
  tfhd->defaultSize = shared.first.size;
  tfhd->defaultFlags = flagsOf(shared.flags ? shared.first.key : false);
  auto* tfdt = tree.add<TfdtAtom>(traf, "tfdt");
  tfdt->version = 1;
  tfdt->baseMediaDecodeTime = chunks.front()->startTime;
  for (size_t i = 0; i < chunks.size(); ++i) {
    auto* trun = tree.add<TrunAtom>(traf, "trun");
    trun->version = shared.negative ? 1 : 0;
    trun->flags = TrunAtom::kDataOffset;
    if (!shared.duration) trun->flags |= TrunAtom::kDuration;
    if (!shared.size) trun->flags |= TrunAtom::kSize;
    if (!shared.flags) trun->flags |= TrunAtom::kFlags;
    if (shared.offsets) trun->flags |= TrunAtom::kCompositionOffset;
    trun->sampleCount = static_cast<uint32_t>(chunks[i]->samples.size());
    trun->dataOffset = dataOffsets[i];
    if (trun->entryBytes() == 0) continue;
    trun->entries.reserve(chunks[i]->samples.size());
    for (const HeldSample& sample : chunks[i]->samples) {
      trun->entries.push_back({sample.duration, sample.size, flagsOf(sample.key),
                               static_cast<uint32_t>(sample.compositionOffset)});
    }
  }
}

// Every run's data offset counts from the start of the moof, whose size is
// known once it is written: the offsets are built counted from its end, and
// its size is added to each in the bytes (a moof of ours: mfhd and trafs of
// tfhd, tfdt and truns, each trun with its data offset after the count).
void addMoofSizeToDataOffsets(Bytes& moof) {
  const auto size = static_cast<uint32_t>(moof.size());
  auto word = [&moof](size_t at) {
    return uint32_t{moof[at]} << 24 | uint32_t{moof[at + 1]} << 16 | uint32_t{moof[at + 2]} << 8 |
           moof[at + 3];
  };
  auto boxes = [&moof, &word](size_t from, size_t to, const char* type, auto&& visit) {
    for (size_t at = from; at + 8 <= to;) {
      const uint32_t length = word(at);
      if (length < 8 || length > to - at) return;
      if (std::equal(type, type + 4, moof.begin() + static_cast<long>(at + 4))) visit(at, at + length);
      at += length;
    }
  };
  boxes(8, moof.size(), "traf", [&](size_t traf, size_t trafEnd) {
    boxes(traf + 8, trafEnd, "trun", [&](size_t trun, size_t) {
      const uint32_t offset = word(trun + 16) + size;
      for (int i = 0; i < 4; ++i) moof[trun + 16 + i] = static_cast<uint8_t>(offset >> (24 - 8 * i));
    });
  });
}

}  // namespace

Bytes fragmentBox(uint32_t sequenceNumber, const std::vector<PlacedChunk>& chunks) {
  Tree tree("moof");
  tree.add<MfhdAtom>(tree.root(), "mfhd")->sequenceNumber = sequenceNumber;
  std::vector<RecordedTrack*> order;
  for (const PlacedChunk& placed : chunks) {
    if (std::find(order.begin(), order.end(), placed.track) == order.end()) {
      order.push_back(placed.track);
    }
  }
  for (RecordedTrack* track : order) {
    std::vector<const Chunk*> own;
    std::vector<uint32_t> offsets;
    for (const PlacedChunk& placed : chunks) {
      if (placed.track != track) continue;
      own.push_back(placed.chunk);
      offsets.push_back(placed.dataOffset);
    }
    addTrackFragment(tree, *track, own, offsets);
  }
  Bytes moof = tree.bytes();
  addMoofSizeToDataOffsets(moof);
  return moof;
}

}  // namespace mp4stbl::record
