// Writes a long recording with the library, as a camera would: the tables
// are built sample by sample with addEntry, the box tree is written with the
// box layer, and the media data follows. Frames are small runs of filler
// bytes, so ten million samples stay a few hundred megabytes.
//
//   make_recording OUTPUT [--samples N] [--per-chunk K] [--audio] [--co64]
//
//   --samples N     video samples, 30 per second (default 100000)
//   --per-chunk K   video samples per chunk (default 1)
//   --audio         an interleaved AAC-like track, 48 kHz, 32 frames a chunk
//   --co64          64-bit chunk offsets

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include <mp4stbl/box/atom.h>
#include <mp4stbl/box/file_stream.h>
#include <mp4stbl/box/stream.h>
#include <mp4stbl/box/movie_boxes.h>
#include <mp4stbl/box/mp4file.h>
#include <mp4stbl/stbl.h>

using namespace mp4stbl;

namespace {

constexpr uint32_t kMovieTimescale = 1000;
constexpr uint32_t kVideoTimescale = 90000;
constexpr uint32_t kVideoDelta = 3000;  // 30 frames a second
constexpr uint32_t kAudioTimescale = 48000;
constexpr uint32_t kAudioDelta = 1024;  // samples in one AAC frame
constexpr uint32_t kAudioPerChunk = 32;
constexpr uint32_t kGop = 30;

struct Options {
  std::string output;
  uint32_t samples = 100000;
  uint32_t perChunk = 1;
  bool audio = false;
  bool co64 = false;
};

AtomHeader headerOf(const char* type) {
  AtomHeader header;
  header.type = type;
  header.size = 8;
  return header;
}

template <class Box>
Box* add(Atom& parent, const char* type) {
  AtomHeader header = headerOf(type);
  auto* box = new Box(header);
  parent.children.push_back(box);
  return box;
}

// Big-endian words and bytes for the opaque boxes.
struct Bytes {
  std::vector<unsigned char> data;
  Bytes& u8(uint8_t v) { data.push_back(v); return *this; }
  Bytes& u16(uint16_t v) { return u8(uint8_t(v >> 8)).u8(uint8_t(v)); }
  Bytes& u32(uint32_t v) { return u16(uint16_t(v >> 16)).u16(uint16_t(v)); }
  Bytes& text(const char* s, size_t n) { data.insert(data.end(), s, s + n); return *this; }
  Bytes& zeros(size_t n) { data.insert(data.end(), n, 0); return *this; }
  Bytes& matrix() {
    return u32(0x00010000).u32(0).u32(0).u32(0).u32(0x00010000).u32(0).u32(0).u32(0).u32(0x40000000);
  }
};

UserDefAtom* opaque(Atom& parent, const char* type, const Bytes& body) {
  auto* box = add<UserDefAtom>(parent, type);
  box->body = body.data;
  return box;
}

uint8_t versionFor(uint64_t duration) { return duration > UINT32_MAX ? 1 : 0; }

// A frame's size: key frames 64 bytes, the others 16 to 31.
uint32_t videoSize(uint32_t index) {
  return index % kGop == 0 ? 64 : 16 + ((index * 2654435761u) >> 28);
}
uint32_t audioSize(uint32_t index) { return 16 + ((index * 2246822519u) >> 29); }

// One track while it is recorded.
struct Track {
  uint32_t id;
  bool video;
  uint32_t timescale;
  uint32_t delta;
  uint32_t samples;   // to record
  uint32_t perChunk;
  uint32_t recorded = 0;
  uint32_t chunks = 0;
  uint32_t written = 0;
  Atom* trak = nullptr;
  MdhdAtom* mdhd = nullptr;
  TkhdAtom* tkhd = nullptr;
  SttsAtom* stts = nullptr;
  StscAtom* stsc = nullptr;
  StszAtom* stsz = nullptr;
  StssAtom* stss = nullptr;
  StcoAtom* stco = nullptr;
  Co64Atom* co64 = nullptr;

  uint64_t duration() const { return uint64_t{samples} * delta; }
  // Start of sample `index`, in units of 1/(90000 × 48000) s, common to both tracks.
  uint64_t nextTime(uint32_t index) const {
    return uint64_t{index} * delta * (uint64_t{kVideoTimescale} * kAudioTimescale / timescale);
  }
};

// moov/trak with its headers and an empty sample table.
void buildTrack(Atom& moov, Track& t, const Options& options) {
  t.trak = add<ContainerAtom>(moov, "trak");
  t.tkhd = add<TkhdAtom>(*t.trak, "tkhd");
  t.tkhd->flags = 3;  // enabled, in the movie
  t.tkhd->trackId = t.id;
  t.tkhd->duration = t.duration() * kMovieTimescale / t.timescale;
  t.tkhd->version = versionFor(t.tkhd->duration);
  Bytes tkhdRest;
  tkhdRest.zeros(8).u16(0).u16(t.video ? 0 : 1).u16(t.video ? 0 : 0x0100).u16(0).matrix();
  tkhdRest.u32(t.video ? 320u << 16 : 0).u32(t.video ? 240u << 16 : 0);
  t.tkhd->rest = tkhdRest.data;

  Atom* mdia = add<ContainerAtom>(*t.trak, "mdia");
  t.mdhd = add<MdhdAtom>(*mdia, "mdhd");
  t.mdhd->timescale = t.timescale;
  t.mdhd->duration = t.duration();
  t.mdhd->version = versionFor(t.mdhd->duration);
  t.mdhd->language = 0x55C4;  // "und"
  t.mdhd->rest = {0, 0};
  auto* hdlr = add<HdlrAtom>(*mdia, "hdlr");
  std::memcpy(hdlr->handler.data(), t.video ? "vide" : "soun", 4);
  const char* name = t.video ? "VideoHandler" : "SoundHandler";
  hdlr->rest.assign(name, name + std::strlen(name) + 1);

  Atom* minf = add<ContainerAtom>(*mdia, "minf");
  if (t.video) {
    opaque(*minf, "vmhd", Bytes().u32(1).zeros(8));
  } else {
    opaque(*minf, "smhd", Bytes().u32(0).zeros(4));
  }
  Bytes dref;
  dref.u32(28).text("dref", 4).u32(0).u32(1).u32(12).text("url ", 4).u32(1);
  opaque(*minf, "dinf", dref);

  Atom* stbl = add<StblAtom>(*minf, "stbl");
  Atom* stsd = add<StsdAtom>(*stbl, "stsd");
  if (t.video) {
    auto* entry = add<Avc1Atom>(*stsd, "avc1");
    entry->width = 320;
    entry->height = 240;
    // Baseline 320x240 parameter sets, 4-byte NAL lengths.
    static const unsigned char kSps[] = {0x67, 0x42, 0xc0, 0x1e, 0xda, 0x05, 0x07, 0xe4};
    static const unsigned char kPps[] = {0x68, 0xce, 0x3c, 0x80};
    Bytes avcc;
    avcc.u8(1).u8(66).u8(0xc0).u8(30).u8(0xff).u8(0xe1).u16(sizeof kSps);
    avcc.text(reinterpret_cast<const char*>(kSps), sizeof kSps).u8(1).u16(sizeof kPps);
    avcc.text(reinterpret_cast<const char*>(kPps), sizeof kPps);
    opaque(*entry, "avcC", avcc);
  } else {
    auto* entry = add<Mp4aAtom>(*stsd, "mp4a");
    entry->channelCount = 2;
    entry->sampleRate = kAudioTimescale << 16;
    // AAC-LC, 48 kHz, stereo.
    Bytes esds;
    esds.u32(0).u8(3).u8(25).u16(0).u8(0);                      // ES descriptor
    esds.u8(4).u8(17).u8(0x40).u8(0x15).zeros(3).u32(0).u32(0);  // decoder config
    esds.u8(5).u8(2).u8(0x11).u8(0x90).u8(6).u8(1).u8(2);        // specific info, SL config
    opaque(*entry, "esds", esds);
  }
  auto table = [&](auto* box, uint32_t frame) {
    box->header.size = 8 + frame;
    return box;
  };
  t.stts = table(add<SttsAtom>(*stbl, "stts"), 8);
  t.stsc = table(add<StscAtom>(*stbl, "stsc"), 8);
  t.stsz = table(add<StszAtom>(*stbl, "stsz"), 12);
  if (t.video) t.stss = table(add<StssAtom>(*stbl, "stss"), 8);
  if (options.co64) {
    t.co64 = table(add<Co64Atom>(*stbl, "co64"), 8);
  } else {
    t.stco = table(add<StcoAtom>(*stbl, "stco"), 8);
  }
}

// Records the next chunk of a track at `position` (from the start of the
// media data) and returns its length.
uint64_t recordChunk(Track& t, uint64_t position) {
  const uint32_t count = std::min(t.perChunk, t.samples - t.recorded);
  ++t.chunks;
  if (t.co64 != nullptr) {
    t.co64->addEntry(position);
  } else {
    t.stco->addEntry(static_cast<uint32_t>(position));
  }
  t.stsc->addEntry(t.chunks, count, 1);
  uint64_t length = 0;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t index = t.recorded++;
    const uint32_t size = t.video ? videoSize(index) : audioSize(index);
    t.stsz->addEntry(size);
    t.stts->addEntry(1, t.delta);
    if (t.stss != nullptr && index % kGop == 0) t.stss->addEntry(index + 1);
    length += size;
  }
  return length;
}

// The track whose next chunk starts first; chunks are interleaved in time.
// `done` is the track's cursor: samples recorded, or samples written.
Track* nextChunk(std::vector<Track>& tracks, uint32_t Track::*done) {
  Track* next = nullptr;
  for (Track& t : tracks) {
    if (t.*done < t.samples && (next == nullptr || t.nextTime(t.*done) < next->nextTime(next->*done))) {
      next = &t;
    }
  }
  return next;
}

// Writes the samples of a track's next chunk: each a NAL unit (or an audio
// frame) with its 4-byte length in front and filler after.
bool writeChunk(Track& t, IOStream& out, std::vector<unsigned char>& buffer) {
  const uint32_t count = std::min(t.perChunk, t.samples - t.written);
  buffer.clear();
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t index = t.written++;
    const uint32_t size = t.stsz->entries[index];
    const size_t at = buffer.size();
    buffer.resize(at + size);
    for (uint32_t b = 0; b < size; ++b) buffer[at + b] = static_cast<unsigned char>(b * 7 + 1);
    if (t.video) {
      const uint32_t nal = size - 4;
      buffer[at] = uint8_t(nal >> 24), buffer[at + 1] = uint8_t(nal >> 16);
      buffer[at + 2] = uint8_t(nal >> 8), buffer[at + 3] = uint8_t(nal);
      buffer[at + 4] = index % kGop == 0 ? 0x65 : 0x41;  // IDR or non-IDR slice
    }
  }
  const auto length = static_cast<unsigned>(buffer.size());
  return static_cast<unsigned>(out.writeBytes(buffer.data(), length)) == length;
}

template <class Offsets>
bool shift(Offsets* table, uint64_t base, uint64_t limit) {
  if (table == nullptr) return true;
  for (auto& offset : table->entries) {
    if (offset + base > limit) return false;
    offset = static_cast<typename std::decay_t<decltype(offset)>>(offset + base);
  }
  return true;
}

uint64_t tableBytes(const Atom& box) {
  static const char* const kTables[] = {"stts", "stsc", "stsz", "stss", "stco", "co64"};
  uint64_t total = 0;
  for (const char* type : kTables) {
    if (box.header.type == type) return box.header.boxLength();
  }
  for (const Atom* child : box.children) total += tableBytes(*child);
  return total;
}

int usage() {
  std::fprintf(stderr,
               "usage: make_recording OUTPUT [--samples N] [--per-chunk K] [--audio] [--co64]\n");
  return 2;
}

bool parse(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto number = [&](uint32_t* value) {
      if (i + 1 >= argc) return false;
      char* end = nullptr;
      const unsigned long parsed = std::strtoul(argv[++i], &end, 10);
      if (*end != '\0' || parsed == 0 || parsed > UINT32_MAX) return false;
      *value = static_cast<uint32_t>(parsed);
      return true;
    };
    if (arg == "--samples") {
      if (!number(&options->samples)) return false;
    } else if (arg == "--per-chunk") {
      if (!number(&options->perChunk)) return false;
    } else if (arg == "--audio") {
      options->audio = true;
    } else if (arg == "--co64") {
      options->co64 = true;
    } else if (arg[0] != '-' && options->output.empty()) {
      options->output = arg;
    } else {
      return false;
    }
  }
  return !options->output.empty();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, &options)) return usage();
  const auto started = std::chrono::steady_clock::now();

  Atom root(headerOf("root"));
  Bytes brands;
  brands.text("isom", 4).u32(0x200).text("isomiso2avc1mp41", 16);
  Atom* ftyp = opaque(root, "ftyp", brands);
  Atom* moov = add<ContainerAtom>(root, "moov");
  auto* mvhd = add<MvhdAtom>(*moov, "mvhd");

  std::vector<Track> tracks;
  tracks.push_back({1, true, kVideoTimescale, kVideoDelta, options.samples, options.perChunk});
  if (options.audio) {
    const uint64_t audioSamples =
        (uint64_t{options.samples} * kVideoDelta * kAudioTimescale / kVideoTimescale + kAudioDelta - 1) /
        kAudioDelta;
    tracks.push_back({2, false, kAudioTimescale, kAudioDelta, static_cast<uint32_t>(audioSamples),
                      kAudioPerChunk});
  }
  for (Track& t : tracks) buildTrack(*moov, t, options);
  mvhd->timescale = kMovieTimescale;
  mvhd->duration = tracks[0].tkhd->duration;
  mvhd->version = versionFor(mvhd->duration);
  Bytes mvhdRest;
  mvhdRest.u32(0x00010000).u16(0x0100).zeros(10).matrix().zeros(24).u32(uint32_t(tracks.size() + 1));
  mvhd->rest = mvhdRest.data;

  // Record: chunks interleaved in time order, positions relative to the
  // first byte of the media data.
  uint64_t mediaBytes = 0;
  while (Track* next = nextChunk(tracks, &Track::recorded)) {
    mediaBytes += recordChunk(*next, mediaBytes);
  }
  const auto recorded = std::chrono::steady_clock::now();

  // The movie box goes first, so the media data starts after it: measure it,
  // then move every chunk by that much.
  MemoryStream measure;
  const bool measured = ftyp->Write(&measure) == 0;
  const long long ftypBytes = measure.getOffset();
  if (!measured || moov->Write(&measure) != 0) {
    std::fprintf(stderr, "make_recording: cannot build the movie box\n");
    return 1;
  }
  const bool largeMdat = mediaBytes + 8 > UINT32_MAX;
  const uint64_t base = static_cast<uint64_t>(measure.getLength()) + (largeMdat ? 16 : 8);
  for (Track& t : tracks) {
    if (!shift(t.stco, base, UINT32_MAX) || !shift(t.co64, base, UINT64_MAX)) {
      std::fprintf(stderr, "make_recording: offsets pass 4 GiB; use --co64\n");
      return 1;
    }
  }

  FileStream out;
  if (out.open(options.output, FileStream::Mode::Write) != 0) return 1;
  if (ftyp->Write(&out) != 0 || moov->Write(&out) != 0) return 1;
  const auto tablesWritten = std::chrono::steady_clock::now();
  bool ok = largeMdat ? out.writeBe32(1) == 4 && out.writeBytes(reinterpret_cast<const unsigned char*>("mdat"), 4) == 4 &&
                            out.write64(mediaBytes + 16) == 8
                      : out.writeBe32(static_cast<uint32_t>(mediaBytes + 8)) == 4 &&
                            out.writeBytes(reinterpret_cast<const unsigned char*>("mdat"), 4) == 4;
  std::vector<unsigned char> buffer;
  while (Track* next = ok ? nextChunk(tracks, &Track::written) : nullptr) {
    ok = writeChunk(*next, out, buffer);
  }
  const long long fileBytes = out.getLength();
  if (!ok || out.close() != 0) {
    std::fprintf(stderr, "make_recording: cannot write %s\n", options.output.c_str());
    return 1;
  }

  using Ms = std::chrono::duration<double, std::milli>;
  std::printf("%s: %llu bytes, tables %llu bytes, moov %lld bytes, %u video samples in %u chunks",
              options.output.c_str(), static_cast<unsigned long long>(fileBytes),
              static_cast<unsigned long long>(tableBytes(*moov)), measure.getLength() - ftypBytes,
              tracks[0].samples, tracks[0].chunks);
  if (options.audio) std::printf(", %u audio samples in %u chunks", tracks[1].samples, tracks[1].chunks);
  std::printf("\n  recorded in %.0f ms, ftyp+moov written in %.0f ms\n", Ms(recorded - started).count(),
              Ms(tablesWritten - recorded).count());
  return 0;
}
