#include "recover/recover.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <optional>

#include "box/codec_config.h"
#include "box/file_stream.h"
#include "box/movie_boxes.h"
#include "box/new_file.h"
#include "box/sample_entry.h"
#include "edit/output.h"
#include "edit/timeline.h"
#include "recover/presentation.h"
#include "recover/scan.h"
#include "recover/tables.h"

namespace mp4stbl {

namespace {

using edit::NewTrack;
using recovery::FoundSample;
using recovery::TrackModel;
using recovery::TrackTables;

const char* const kNeedsReference =
    "recover it with --reference GOOD, a healthy file recorded by the same device with the "
    "same settings";

// The edit list of a recovered track: the empty edits that lead, then the
// media from where the first other edit starts to where the last sample shown ends.
std::vector<edit::EditSegment> editsOf(const ElstAtom* elst, uint64_t presentationEnd,
                                       uint32_t timescale, uint32_t movieTimescale) {
  std::vector<edit::EditSegment> edits;
  if (elst == nullptr) return edits;
  for (const ElstEntry& entry : elst->entries) {
    if (entry.mediaTime < 0) {
      edits.push_back({entry.segmentDuration, -1});
      continue;
    }
    const auto from = static_cast<uint64_t>(entry.mediaTime);
    const uint64_t left = presentationEnd > from ? presentationEnd - from : 0;
    edits.push_back({rescale(left, timescale, movieTimescale), entry.mediaTime});
    break;
  }
  if (edits.size() == 1 && edits.front().mediaTime == 0) edits.clear();
  return edits;
}

RecoveredTrack describe(const Track& track, const TrackTables& tables) {
  RecoveredTrack made;
  made.id = track.id();
  made.handler = track.handler();
  made.entry = track.entryType();
  made.samples = tables.samples();
  made.seconds = track.timescale() == 0
                     ? 0
                     : static_cast<double>(tables.duration()) / track.timescale();
  return made;
}

// --- A file whose own tables or fragments index its samples ---

// Each track's samples up to the first whose bytes are not all in the
// file; a sample lasts until the next one decodes, as in the fragments.
Result<RecoverReport> fromOwnTables(Mp4File& file, std::vector<Track>& tracks,
                                    const std::string& broken, const std::string& output,
                                    const RecoverOptions& options) {
  RecoverReport report;
  std::vector<NewTrack> made;
  edit::Layout layout;
  const std::vector<Atom*> traks = file.find("moov/trak");
  uint64_t end = 0;
  for (size_t t = 0; t < tracks.size(); ++t) {
    const Track& track = tracks[t];
    TrackTables tables(track.stsz() == nullptr ? track.constantSampleSize() : 0);
    SampleWalker walk(track);
    std::optional<SampleInfo> pending;
    uint32_t lost = 0;
    for (;;) {
      Result<const SampleInfo*> next = walk.next();
      if (!next.ok()) return Status::failure(broken + ": " + next.message());
      if (*next == nullptr) break;
      const SampleInfo& sample = **next;
      if (sample.missing || lost != 0) {
        ++lost;
        continue;
      }
      if (pending) {
        const uint64_t gap = sample.decodeTime - pending->decodeTime;
        FoundSample found{pending->offset, pending->size,
                          gap <= UINT32_MAX ? static_cast<uint32_t>(gap) : pending->duration,
                          pending->compositionOffset, pending->sync, pending->descriptionIndex};
        tables.add(found);
      }
      pending = sample;
    }
    if (pending) {
      tables.add({pending->offset, pending->size, pending->duration, pending->compositionOffset,
                  pending->sync, pending->descriptionIndex});
    }
    end = std::max(end, tables.end());
    RecoveredTrack summary = describe(track, tables);
    summary.lost = lost;
    report.tracks.push_back(summary);
    NewTrack& next = made.emplace_back();
    next.trak = traks[t];
    next.timescale = track.timescale();
    next.edits =
        editsOf(track.elst(), tables.presentationEnd(), track.timescale(), track.movieTimescale());
    tables.finish(next, layout);
  }
  if (std::all_of(made.begin(), made.end(), [](const NewTrack& n) { return n.sampleCount == 0; })) {
    return Status::failure(broken + ": no sample of its tracks is whole in the file; " +
                           kNeedsReference);
  }
  layout.finish();
  report.mediaEnd = end;
  report.unusedBytes = file.length() > end ? file.length() - end : 0;
  EditOptions edit;
  edit.progress = options.progress;
  Status written = edit::writeEdited(file, made, layout, {file.stream()}, {broken}, output, edit);
  if (!written.ok()) return written;
  return report;
}

// --- A file with no index, walked by a reference's tracks ---

struct MediaSpan {
  uint64_t start = 0;
  uint64_t end = 0;
};

bool printable(const unsigned char* type) {
  return std::all_of(type, type + 4, [](unsigned char c) { return c >= 0x20 && c < 0x7f; });
}

// The body of the first media data box, up to the end of the file when its
// header claims more (a recording cut short) or gives size 0.
Result<MediaSpan> findMediaData(IOStream& stream, const std::string& path) {
  const auto length = static_cast<uint64_t>(stream.getLength());
  uint64_t pos = 0;
  while (length - pos >= 8) {
    unsigned char header[16];
    if (stream.seek(static_cast<long long>(pos)) != 0 || stream.read(header, 8) != 8) {
      return Status::failure(path + ": cannot be read at offset " + std::to_string(pos));
    }
    uint64_t size = (uint64_t{header[0]} << 24) | (uint64_t{header[1]} << 16) |
                    (uint64_t{header[2]} << 8) | header[3];
    uint64_t headerSize = 8;
    if (size == 1) {
      if (length - pos < 16 || stream.read(header + 8, 8) != 8) break;
      size = 0;
      for (int i = 8; i < 16; ++i) size = (size << 8) | header[i];
      headerSize = 16;
    } else if (size == 0) {
      size = length - pos;
    }
    if (!printable(header + 4) || size < headerSize) {
      return Status::failure(path + ": is not an MP4 file: no box header at offset " +
                             std::to_string(pos));
    }
    if (std::string(reinterpret_cast<char*>(header + 4), 4) == "mdat") {
      const uint64_t end = size > length - pos ? length : pos + size;
      return MediaSpan{pos + headerSize, end};
    }
    if (size > length - pos) break;
    pos += size;
  }
  return Status::failure(path + ": has no media data box (mdat)");
}

// The major brand of a file that starts with ftyp; empty otherwise.
std::string majorBrand(IOStream& stream) {
  unsigned char header[12];
  if (stream.seek(0) != 0 || stream.read(header, 12) != 12) return "";
  if (std::string(reinterpret_cast<char*>(header + 4), 4) != "ftyp") return "";
  return std::string(reinterpret_cast<char*>(header + 8), 4);
}

template <class Config>
const Config* configOf(const Atom& box) {
  for (const Atom* child : box.children) {
    if (const auto* config = dynamic_cast<const Config*>(child)) return config;
    if (const Config* inner = configOf<Config>(*child)) return inner;
  }
  return nullptr;
}

// The AudioSpecificConfig in an esds body: ES_Descriptor, then its
// DecoderConfigDescriptor (of MPEG-4 audio), then the DecoderSpecificInfo.
std::vector<uint8_t> specificConfig(const std::vector<unsigned char>& body) {
  size_t at = 4;  // version and flags
  auto descriptor = [&](uint8_t tag, size_t* length) {
    if (at >= body.size() || body[at] != tag) return false;
    ++at;
    *length = 0;
    for (int i = 0; i < 4 && at < body.size(); ++i) {
      const uint8_t byte = body[at++];
      *length = (*length << 7) | (byte & 0x7f);
      if ((byte & 0x80) == 0) return true;
    }
    return false;
  };
  size_t length = 0;
  if (!descriptor(3, &length) || body.size() - at < 3) return {};
  const uint8_t flags = body[at + 2];
  at += 3;
  if ((flags & 0x80) != 0) at += 2;
  if ((flags & 0x40) != 0 && at < body.size()) at += 1 + body[at];
  if ((flags & 0x20) != 0) at += 2;
  if (!descriptor(4, &length) || body.size() - at < 13 || body[at] != 0x40) return {};
  at += 13;
  if (!descriptor(5, &length) || body.size() - at < length) return {};
  return std::vector<uint8_t>(body.begin() + static_cast<std::ptrdiff_t>(at),
                              body.begin() + static_cast<std::ptrdiff_t>(at + length));
}

// The body of the esds box that a QuickTime sound entry holds in its wave
// box (kept as opaque bytes); empty when there is none.
std::vector<unsigned char> esdsInWave(const Atom& entry) {
  for (const Atom* child : entry.children) {
    const auto* wave = dynamic_cast<const UserDefAtom*>(child);
    if (wave == nullptr || child->header.type != "wave") continue;
    const std::vector<unsigned char>& body = wave->body;
    size_t at = 0;
    while (body.size() - at >= 8) {
      const size_t size = (size_t{body[at]} << 24) | (size_t{body[at + 1]} << 16) |
                          (size_t{body[at + 2]} << 8) | body[at + 3];
      if (size < 8 || size > body.size() - at) break;
      if (std::string(body.begin() + static_cast<std::ptrdiff_t>(at + 4),
                      body.begin() + static_cast<std::ptrdiff_t>(at + 8)) == "esds") {
        return std::vector<unsigned char>(body.begin() + static_cast<std::ptrdiff_t>(at + 8),
                                          body.begin() + static_cast<std::ptrdiff_t>(at + size));
      }
      at += size;
    }
  }
  return {};
}

// The duration most samples of the track have.
uint32_t usualDuration(const Track& track) {
  std::map<uint32_t, uint64_t> counts;
  for (const SttsEntry& entry : track.stts().entries) counts[entry.sampleDelta] += entry.sampleCount;
  uint32_t usual = 0;
  uint64_t most = 0;
  for (const auto& [duration, count] : counts) {
    if (count > most) {
      most = count;
      usual = duration;
    }
  }
  return usual;
}

// The samples a chunk of the track holds, chunk by chunk; and its largest sample.
struct Chunking {
  std::vector<uint32_t> perChunk;
  uint32_t largest = 0;
};

Result<Chunking> chunkingOf(const Track& track) {
  Chunking chunking;
  SampleWalker walk(track);
  uint32_t chunk = 0;
  for (;;) {
    Result<const SampleInfo*> next = walk.next();
    if (!next.ok()) return next.status();
    if (*next == nullptr) break;
    if ((*next)->chunk != chunk) chunking.perChunk.push_back(0);
    chunk = (*next)->chunk;
    ++chunking.perChunk.back();
    chunking.largest = std::max(chunking.largest, (*next)->size);
  }
  return chunking;
}

// How the track's samples are told in media data; a failure for a coding
// whose samples cannot be found.
Result<TrackModel> modelOf(const Track& track, const RecoverOptions& options) {
  TrackModel model;
  model.timescale = track.timescale();
  model.sampleDuration = usualDuration(track);
  Result<Chunking> chunking = chunkingOf(track);
  if (!chunking.ok()) return chunking.status();
  if (track.stsd().children.empty() || model.sampleDuration == 0 || chunking->perChunk.empty()) {
    return track.fail("has no samples to learn from");
  }
  const Atom& entry = *track.stsd().children.front();
  if (track.handler() == "vide") {
    model.kind = TrackModel::Kind::Video;
    const auto* avc = configOf<AvcConfigAtom>(entry);
    const auto* hevc = configOf<HevcConfigAtom>(entry);
    const uint8_t lengthSize = avc != nullptr && avc->parsed     ? avc->lengthSize
                               : hevc != nullptr && hevc->parsed ? hevc->lengthSize
                                                                 : 0;
    if (lengthSize != 1 && lengthSize != 2 && lengthSize != 4) {
      return track.fail("is not H.264 or HEVC with NAL unit lengths: its frames cannot be found");
    }
    const auto codec = avc != nullptr ? recovery::VideoCodec::H264 : recovery::VideoCodec::Hevc;
    Result<recovery::NalFormat> format =
        recovery::nalFormat(codec, lengthSize, edit::parameterSets(&entry));
    if (!format.ok()) return track.fail(format.message() + ": its slice headers cannot be read");
    model.nal = std::move(*format);
    model.reorders = track.ctts() != nullptr;
    model.nal.maxNalLength =
        std::clamp<uint64_t>(uint64_t{chunking->largest} * 4, 64u << 10, 8u << 20);
    return model;
  }
  if (track.handler() != "soun") return track.fail("is neither video nor sound");
  uint32_t fixedSize = track.constantSampleSize();
  if (fixedSize == 0 && track.stsz() != nullptr && !track.stsz()->entries.empty()) {
    const std::vector<uint32_t>& sizes = track.stsz()->entries;
    const bool same = std::all_of(sizes.begin(), sizes.end(),
                                  [&](uint32_t size) { return size == sizes.front(); });
    if (same && track.entryType() != "mp4a") fixedSize = sizes.front();
  }
  if (fixedSize != 0) {
    model.kind = TrackModel::Kind::Fixed;
    model.sampleSize = fixedSize;
    const std::vector<uint32_t>& counts = chunking->perChunk;
    uint32_t packet = counts.front();
    for (size_t c = 1; c + 1 < counts.size(); ++c) packet = std::gcd(packet, counts[c]);
    model.packetSamples = std::max<uint32_t>(packet, 1);
    return model;
  }
  const auto* esds = configOf<EsdsAtom>(entry);
  const std::vector<unsigned char> esdsBody = esds != nullptr ? esds->body : esdsInWave(entry);
  if (track.entryType() == "mp4a" && !esdsBody.empty()) {
    model.kind = TrackModel::Kind::Aac;
    model.aacConfig = specificConfig(esdsBody);
    if (model.aacConfig.empty()) return track.fail("esds holds no AAC AudioSpecificConfig");
    if (!options.aacFrameLength) {
      return track.fail("AAC frames are found by decoding them, and no AAC decoder was given");
    }
    return model;
  }
  return track.fail("has samples of varying size in a coding whose frames cannot be found");
}

// Composition offsets for the frames of a reference that reorders them
// (B-frames): their order counts placed as the reference shows its own.
Status showInOrder(const Track& track, IOStream& reference, const TrackModel& model,
                   const std::vector<recovery::PictureCount>& pictures, TrackTables& tables) {
  Result<recovery::Presentation> presentation =
      recovery::presentationOf(track, reference, model.nal, model.sampleDuration);
  if (!presentation.ok()) return presentation.status();
  Result<std::vector<int64_t>> offsets = recovery::compositionOffsets(pictures, *presentation);
  if (!offsets.ok()) return track.fail(offsets.message());
  tables.setCompositionOffsets(*offsets);
  return Status();
}

Result<std::vector<uint8_t>> firstSample(const Track& track, const TrackTables& tables,
                                         IOStream& media) {
  std::vector<uint8_t> frame(tables.firstSize());
  if (media.seek(static_cast<long long>(tables.firstOffset())) != 0 ||
      media.read(frame.data(), static_cast<unsigned>(frame.size())) !=
          static_cast<int>(frame.size())) {
    return track.fail("its first sample cannot be read");
  }
  return frame;
}

std::string pictureSize(uint32_t width, uint32_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

// The first key frame found of a video track decodes with the reference's
// decoder configuration to a picture of the reference's size, when a
// decoder was given.
Status keyFrameFits(const Track& track, const TrackTables& tables, IOStream& media,
                    const RecoverOptions& options) {
  const Atom& entry = *track.stsd().children.front();
  const auto* avc = configOf<AvcConfigAtom>(entry);
  const auto* hevc = configOf<HevcConfigAtom>(entry);
  const std::vector<unsigned char>& configuration = avc != nullptr ? avc->body : hevc->body;
  Result<std::vector<uint8_t>> frame = firstSample(track, tables, media);
  if (!frame.ok()) return frame.status();
  const DecodedFrame decoded =
      options.keyFrameDecodes(avc == nullptr, configuration, frame->data(), frame->size());
  const std::string where = "the key frame at offset " + std::to_string(tables.firstOffset());
  if (!decoded.decoded) {
    return track.fail("the reference's parameter sets do not decode its video (" + where + ")");
  }
  const auto* visual = dynamic_cast<const VisualSampleEntry*>(&entry);
  if (visual != nullptr && visual->width != 0 && visual->height != 0 &&
      (decoded.width != visual->width || decoded.height != visual->height)) {
    return track.fail("its pictures are " + pictureSize(decoded.width, decoded.height) +
                      " and the reference's " + pictureSize(visual->width, visual->height) +
                      " (" + where + ")");
  }
  return Status();
}

// The channels an AAC track's configuration names: its esds's, else its
// sample entry's; 0 when neither does.
uint32_t aacChannels(const Track& track) {
  const Atom& entry = *track.stsd().children.front();
  const auto* esds = configOf<EsdsAtom>(entry);
  if (esds != nullptr && esds->channels() != 0) return esds->channels();
  const auto* sound = dynamic_cast<const AudioSampleEntry*>(&entry);
  return sound != nullptr ? sound->channels() : 0;
}

// The first AAC frame found decodes to the channels of the reference's
// configuration, when a decoder was given.
Status aacFrameFits(const Track& track, const TrackModel& model, const TrackTables& tables,
                    IOStream& media, const RecoverOptions& options) {
  Result<std::vector<uint8_t>> frame = firstSample(track, tables, media);
  if (!frame.ok()) return frame.status();
  const DecodedFrame decoded = options.aacFrameDecodes(model.aacConfig, frame->data(), frame->size());
  const uint32_t channels = aacChannels(track);
  if (decoded.decoded && channels != 0 && decoded.channels != channels) {
    return track.fail("its AAC frames hold " + std::to_string(decoded.channels) +
                      " channels and the reference's " + std::to_string(channels) +
                      " (the frame at offset " + std::to_string(tables.firstOffset()) + ")");
  }
  return Status();
}

// What cannot be checked of a sound track: its samples (raw PCM and G.711
// bytes, raw AAC frames) do not carry their rate, so the reference's is taken.
std::string rateNote(const Track& track, const TrackModel& model) {
  const Atom& entry = *track.stsd().children.front();
  const auto* esds = configOf<EsdsAtom>(entry);
  const auto* sound = dynamic_cast<const AudioSampleEntry*>(&entry);
  double rate = track.timescale();
  if (model.kind == TrackModel::Kind::Aac && esds != nullptr && esds->sampleRate != 0) {
    rate = esds->sampleRate;
  } else if (sound != nullptr && sound->samplesPerSecond() > 0) {
    rate = sound->samplesPerSecond();
  }
  const char* samples = model.kind == TrackModel::Kind::Aac ? "raw AAC frames" : "raw samples";
  return track
      .fail(std::string(samples) + " do not carry their rate: " + std::to_string(std::llround(rate)) +
            " Hz is the reference's, unchecked")
      .message();
}

// The first sample found of the track decodes as the reference's would,
// when a decoder was given.
Status firstSampleFits(const Track& track, const TrackModel& model, const TrackTables& tables,
                       IOStream& media, const RecoverOptions& options) {
  if (tables.samples() == 0) return Status();
  if (model.kind == TrackModel::Kind::Video && options.keyFrameDecodes) {
    return keyFrameFits(track, tables, media, options);
  }
  if (model.kind == TrackModel::Kind::Aac && options.aacFrameDecodes) {
    return aacFrameFits(track, model, tables, media, options);
  }
  return Status();
}

Result<RecoverReport> recoverWithReference(const std::string& broken, const std::string& output,
                                           const RecoverOptions& options) {
  Mp4File reference;
  Result<edit::EditableTracks> source = edit::editableTracks(reference, options.reference);
  if (!source.ok()) return Status::failure("--reference: " + source.message());
  FileStream media;
  if (media.open(broken, FileStream::Mode::Read) != 0) {
    return Status::failure(broken + ": cannot be opened: " +
                           systemReason(media.error(), "no reason given"));
  }
  Result<MediaSpan> span = findMediaData(media, broken);
  if (!span.ok()) return span.status();
  // One device writes one kind of file.
  const std::string brand = majorBrand(media);
  const std::string referenceBrand = majorBrand(*reference.stream());
  if (!brand.empty() && !referenceBrand.empty() && brand != referenceBrand) {
    return Status::failure(broken + ": its brand is '" + brand + "' and the reference's '" +
                           referenceBrand + "': is " + options.reference +
                           " from the same device and settings?");
  }

  std::vector<TrackModel> models;
  std::vector<size_t> kept;  // the reference tracks that are looked for
  RecoverReport report;
  report.fromReference = true;
  std::vector<std::string> notes;
  for (size_t t = 0; t < source->tracks.size(); ++t) {
    Result<TrackModel> model = modelOf(source->tracks[t], options);
    if (!model.ok()) {
      return Status::failure(options.reference + ": " + model.message());
    }
    models.push_back(*model);
    kept.push_back(t);
  }
  recovery::ScanResult scan =
      recovery::scanMedia(media, span->start, span->end, models, options.aacFrameLength);
  uint32_t found = 0;
  for (const TrackTables& tables : scan.tables) found += tables.samples();
  if (found == 0) {
    std::string names;
    for (const Track& track : source->tracks) names += (names.empty() ? "" : ", ") + track.entryType();
    return Status::failure(broken + ": its media data at offset " + std::to_string(span->start) +
                           " holds no sample of the reference's tracks (" + names +
                           "): is " + options.reference + " from the same device and settings?");
  }
  // Media data that ends the walk before one of the tracks was ever found
  // is not what the reference describes.
  for (size_t m = 0; m < models.size(); ++m) {
    if (scan.tables[m].samples() != 0 || scan.stop.empty()) continue;
    const Track& track = source->tracks[kept[m]];
    return Status::failure(broken + ": " +
                           track.fail("no sample of the reference's track is found before " +
                                      scan.stop + ": is " + options.reference +
                                      " from the same device and settings?")
                               .message());
  }
  for (size_t m = 0; m < models.size(); ++m) {
    Status decodes = firstSampleFits(source->tracks[kept[m]], models[m], scan.tables[m], media,
                                     options);
    if (!decodes.ok()) {
      return Status::failure(broken + ": " + decodes.message() + ": is " +
                             options.reference + " from the same device and settings?");
    }
  }
  std::vector<NewTrack> made;
  edit::Layout layout;
  for (size_t m = 0; m < models.size(); ++m) {
    const Track& track = source->tracks[kept[m]];
    report.tracks.push_back(describe(track, scan.tables[m]));
    if (models[m].kind != TrackModel::Kind::Video && scan.tables[m].samples() != 0) {
      report.notes.push_back(rateNote(track, models[m]));
    }
    NewTrack& next = made.emplace_back();
    next.trak = source->traks[kept[m]];
    next.timescale = track.timescale();
    Status shown = models[m].reorders ? showInOrder(track, *reference.stream(), models[m], scan.pictures[m],
                                          scan.tables[m])
                            : Status();
    // Without composition offsets the B-frame delay that the edit list hides is not there.
    if (shown.ok()) {
      next.edits = editsOf(track.elst(), scan.tables[m].presentationEnd(), track.timescale(),
                           source->movieTimescale);
    } else {
      report.notes.push_back(shown.message() + ": composition offsets are not rebuilt, frames "
                                               "show in decode order");
    }
    scan.tables[m].finish(next, layout);
  }
  layout.finish();
  report.mediaEnd = scan.end;
  report.unusedBytes = span->end - scan.end;
  report.stop = scan.stop;
  EditOptions edit;
  edit.progress = options.progress;
  Status written = edit::writeEdited(reference, made, layout, {&media}, {broken, options.reference},
                                     output, edit);
  if (!written.ok()) return written;
  return report;
}

}  // namespace

Result<RecoverReport> recover(const std::string& broken, const std::string& output,
                              const RecoverOptions& options) {
  Mp4File file;
  Status opened = file.open(broken);
  if (!file.isOpen()) return Status::failure(broken + ": " + opened.message());
  if (opened.ok() && !file.find("moov/trak").empty()) {
    FoundTracks found = findTracks(file);
    if (!found.unreadable.empty()) {
      return Status::failure(broken + ": " + found.unreadable.front());
    }
    if (!found.tracks.empty()) {
      return fromOwnTables(file, found.tracks, broken, output, options);
    }
  }
  if (options.reference.empty()) {
    return Status::failure(broken + ": no movie box indexes its media data; " + kNeedsReference);
  }
  return recoverWithReference(broken, output, options);
}

}  // namespace mp4stbl
