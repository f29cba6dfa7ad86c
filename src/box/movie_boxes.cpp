#include "box/movie_boxes.h"

#include <algorithm>
#include <iterator>

#include "box/byte_order.h"
#include "box/fields.h"
#include "box/full_box_io.h"
#include "box/log.h"

namespace mp4stbl {

FullBoxAtom::FullBoxAtom(const AtomHeader& from) : Atom(from) {}

MvhdAtom::MvhdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int MvhdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int MvhdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

TkhdAtom::TkhdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int TkhdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int TkhdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

MdhdAtom::MdhdAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int MdhdAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int MdhdAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

HdlrAtom::HdlrAtom(const AtomHeader& from) : FullBoxAtom(from) {}
int HdlrAtom::readData(IOStream* stream) { return readFullBox(*this, stream); }
int HdlrAtom::writeData(IOStream* stream) { return writeFullBox(*this, stream); }

std::string HdlrAtom::handlerType() const { return std::string(handler.begin(), handler.end()); }

std::string HdlrAtom::name() const {
  if (!rest.empty() && rest[0] == rest.size() - 1) return std::string(rest.begin() + 1, rest.end());
  return std::string(rest.begin(), std::find(rest.begin(), rest.end(), '\0'));
}

namespace {

// Where fields lie in `rest`, past the parsed ones: the display size of
// tkhd after its reserved words, layer, group, volume and matrix, and the
// next track id of mvhd after its rate, volume, matrix and reserved words.
constexpr size_t kTkhdWidth = 52;
constexpr size_t kMvhdNextTrack = 76;

// The 32-bit number at `at` in `bytes`, when they hold it.
bool wordAt(const std::vector<unsigned char>& bytes, size_t at, uint32_t* value) {
  if (bytes.size() < at + 4) return false;
  *value = byte_order::load<uint32_t>(bytes.data() + at);
  return true;
}

std::string fourcc(uint32_t code) {
  std::string text(4, ' ');
  for (int i = 0; i < 4; ++i) text[i] = static_cast<char>(code >> (24 - 8 * i));
  return text;
}

// Macintosh language codes 0 to 23 as ISO 639-2/T codes.
constexpr const char* kMacLanguages[] = {
    "eng", "fra", "deu", "ita", "nld", "swe", "spa", "dan", "por", "nor", "heb", "jpn",
    "ara", "fin", "ell", "isl", "mlt", "tur", "hrv", "zho", "urd", "hin", "tha", "kor",
};

}  // namespace

bool FullBoxAtom::describeVersion(FieldSink& sink) const {
  sink.field("version", version);
  sink.field("flags", flags);
  return hasKnownVersion();
}

void FullBoxAtom::describeTimes(FieldSink& sink, uint64_t creation, uint64_t modification) {
  sink.field("creation_time", creation);
  sink.field("modification_time", modification);
}

void HdlrAtom::describe(FieldSink& sink) const {
  if (!describeVersion(sink)) return;
  if (preDefined != 0) sink.text("component", fourcc(preDefined));
  sink.text("handler", handlerType());
  sink.text("name", name());
}

void MvhdAtom::describe(FieldSink& sink) const {
  if (!describeVersion(sink)) return;
  describeTimes(sink, creationTime, modificationTime);
  sink.field("timescale", timescale);
  sink.field("duration", duration);
  uint32_t next = 0;
  if (wordAt(rest, kMvhdNextTrack, &next)) sink.field("next_track_id", next);
}

bool TkhdAtom::displaySize(uint32_t* width, uint32_t* height) const {
  uint32_t w = 0, h = 0;
  if (!hasKnownVersion() || !wordAt(rest, kTkhdWidth, &w) || !wordAt(rest, kTkhdWidth + 4, &h)) {
    return false;
  }
  *width = w >> 16;
  *height = h >> 16;
  return true;
}

void TkhdAtom::describe(FieldSink& sink) const {
  if (!describeVersion(sink)) return;
  describeTimes(sink, creationTime, modificationTime);
  sink.field("track_id", trackId);
  sink.field("duration", duration);
  uint32_t width = 0, height = 0;
  if (displaySize(&width, &height)) {
    sink.field("width", width);
    sink.field("height", height);
  }
}

std::string MdhdAtom::languageCode() const {
  if (language < std::size(kMacLanguages)) return kMacLanguages[language];
  std::string code(3, ' ');
  for (int i = 0; i < 3; ++i) {
    const unsigned letter = language >> (10 - 5 * i) & 0x1F;
    if (letter < 1 || letter > 26) return "und";
    code[i] = static_cast<char>(0x60 + letter);
  }
  return code;
}

void MdhdAtom::describe(FieldSink& sink) const {
  if (!describeVersion(sink)) return;
  describeTimes(sink, creationTime, modificationTime);
  sink.field("timescale", timescale);
  sink.field("duration", duration);
  sink.text("language", languageCode());
}

FtypAtom::FtypAtom(const AtomHeader& from) : UserDefAtom(from) {}

int FtypAtom::readData(IOStream* stream) {
  if (UserDefAtom::readData(stream) != 0) return -1;
  parsed = body.size() >= 8;
  if (!parsed) return 0;
  majorBrand = fourcc(byte_order::load<uint32_t>(body.data()));
  minorVersion = byte_order::load<uint32_t>(body.data() + 4);
  // A partial brand at the end stays in the body, unnamed.
  for (size_t at = 8; at + 4 <= body.size(); at += 4) {
    compatibleBrands.push_back(fourcc(byte_order::load<uint32_t>(body.data() + at)));
  }
  return 0;
}

void FtypAtom::describe(FieldSink& sink) const {
  if (!parsed) return;
  sink.text("major_brand", majorBrand);
  sink.field("minor_version", minorVersion);
  std::string brands;
  for (const std::string& brand : compatibleBrands) brands += (brands.empty() ? "" : " ") + brand;
  sink.text("compatible_brands", brands);
}

}  // namespace mp4stbl
