// The movie, track and media headers and the handler box: what a player
// needs to name a track and its time scale. Versions 0 and 1 are parsed;
// whatever follows the parsed fields (or a whole body of another version)
// is kept as raw bytes, so each box is written back as it was read.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "atom.h"

namespace mp4stbl {

// Reads and writes `fields` of a full box, then keeps the rest raw.
class FullBoxAtom : public Atom {
 public:
  explicit FullBoxAtom(const AtomHeader& header);

  uint8_t version = 0;
  uint32_t flags = 0;
  std::vector<unsigned char> rest;

 protected:
  virtual bool hasKnownVersion() const { return version <= 1; }
  // Time fields are 64-bit in version 1 and 32-bit in version 0.
  template <class Visitor>
  void time(Visitor& v, uint64_t& value) {
    if (version == 1) {
      v(value);
    } else {
      v.as32(value);
    }
  }
  // Defined in box/full_box_io.h, which stays internal.
  // Shows version and flags; whether the fields of this version follow.
  bool describeVersion(FieldSink& sink) const;
  // The creation and modification times every movie header starts with.
  static void describeTimes(FieldSink& sink, uint64_t creation, uint64_t modification);
  template <class Box>
  int readFullBox(Box& box, IOStream* stream);
  template <class Box>
  int writeFullBox(Box& box, IOStream* stream);
};

// "ftyp": the brands a file claims. Kept as read; the brands are parsed
// from those bytes, and a body too short for them leaves `parsed` false.
class FtypAtom : public UserDefAtom {
 public:
  explicit FtypAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  bool parsed = false;
  std::string majorBrand;
  uint32_t minorVersion = 0;
  std::vector<std::string> compatibleBrands;
};

// "mvhd"
class MvhdAtom : public FullBoxAtom {
 public:
  explicit MvhdAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  uint64_t creationTime = 0;
  uint64_t modificationTime = 0;
  uint32_t timescale = 0;
  uint64_t duration = 0;

  template <class Visitor>
  void fields(Visitor& v) {
    time(v, creationTime), time(v, modificationTime), v(timescale), time(v, duration);
  }
};

// "tkhd"
class TkhdAtom : public FullBoxAtom {
 public:
  explicit TkhdAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  // The display size in whole pixels (stored 16.16 after the matrix);
  // false when the box is too short to hold it.
  bool displaySize(uint32_t* width, uint32_t* height) const;

  uint64_t creationTime = 0;
  uint64_t modificationTime = 0;
  uint32_t trackId = 0;
  uint32_t reserved = 0;
  uint64_t duration = 0;

  template <class Visitor>
  void fields(Visitor& v) {
    time(v, creationTime), time(v, modificationTime), v(trackId), v(reserved), time(v, duration);
  }
};

// "mdhd"
class MdhdAtom : public FullBoxAtom {
 public:
  explicit MdhdAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  // Three letters: the packed ISO 639-2/T code, or a QuickTime Macintosh
  // language code below 0x400; "und" when neither names a language.
  std::string languageCode() const;

  uint64_t creationTime = 0;
  uint64_t modificationTime = 0;
  uint32_t timescale = 0;
  uint64_t duration = 0;
  uint16_t language = 0;  // packed ISO-639-2/T code

  template <class Visitor>
  void fields(Visitor& v) {
    time(v, creationTime), time(v, modificationTime), v(timescale), time(v, duration);
    v(language);
  }
};

// "hdlr": the kind of a track ("vide", "soun", "meta", ...). The name that
// follows the fields is kept in `rest`.
class HdlrAtom : public FullBoxAtom {
 public:
  explicit HdlrAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  std::string handlerType() const;
  // The name: a C string, or a counted string as QuickTime writes it.
  std::string name() const;

  uint32_t preDefined = 0;  // QuickTime's component type ("mhlr", "dhlr")
  std::array<uint8_t, 4> handler{};
  std::array<uint8_t, 12> reserved{};

  template <class Visitor>
  void fields(Visitor& v) {
    v(preDefined), v(handler), v(reserved);
  }
};

}  // namespace mp4stbl
