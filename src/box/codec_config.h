// The decoder configuration boxes of AVC ("avcC"), HEVC ("hvcC") and MPEG-4
// audio ("esds"), the children of their sample entries that name the
// profile and level or the channels a decoder must handle. The body is kept
// as read and written back unchanged; its leading fields are parsed from
// those bytes without ever reading past them, and a body that is short or
// not a configuration this code knows just leaves `parsed` false.
#pragma once

#include <cstdint>
#include <string>

#include "box/atom.h"

namespace mp4stbl {

// "avcC"
class AvcConfigAtom : public UserDefAtom {
 public:
  explicit AvcConfigAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  // "High", "Constrained Baseline", ...; "unknown" when not parsed.
  std::string profileName() const;
  // "3.1", "1b"; "unknown" when not parsed.
  std::string levelName() const;

  bool parsed = false;
  uint8_t configurationVersion = 0;
  uint8_t profile = 0;        // AVCProfileIndication (profile_idc)
  uint8_t compatibility = 0;  // the constraint_set flags
  uint8_t level = 0;          // level_idc: ten times the level
  uint8_t lengthSize = 0;     // bytes in each NAL unit's length prefix
  uint8_t spsCount = 0;
  uint8_t ppsCount = 0;
};

// "hvcC"
class HevcConfigAtom : public UserDefAtom {
 public:
  explicit HevcConfigAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  // "Main", "Main 10", ...; "unknown" when not parsed.
  std::string profileName() const;
  // "L3.1" (or "H3.1" in the high tier); "unknown" when not parsed.
  std::string levelName() const;

  bool parsed = false;
  uint8_t configurationVersion = 0;
  uint8_t profileSpace = 0;
  uint8_t tier = 0;
  uint8_t profile = 0;  // general_profile_idc
  uint32_t compatibility = 0;
  uint8_t level = 0;  // general_level_idc: thirty times the level
  uint8_t chromaFormat = 0;
  uint8_t lumaBitDepth = 0;
  uint8_t chromaBitDepth = 0;
  uint8_t lengthSize = 0;
  uint16_t vpsCount = 0;
  uint16_t spsCount = 0;
  uint16_t ppsCount = 0;
};

// "esds": the MPEG-4 elementary stream descriptor of "mp4a", whose audio
// configuration tells the channel layout that the sample entry's own
// channel count often does not (writers put 2 there for any stream).
class EsdsAtom : public UserDefAtom {
 public:
  explicit EsdsAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  // Channels the configuration names; 0 when it names none (a program
  // config element) or was not parsed.
  uint32_t channels() const;

  bool parsed = false;
  uint8_t objectType = 0;       // objectTypeIndication, 0x40 for MPEG-4 audio
  uint8_t audioObjectType = 0;  // 2 for AAC LC
  uint32_t sampleRate = 0;
  uint8_t channelConfiguration = 0;
};

// The child types of a sample entry that are read as typed boxes.
extern const AtomType kSampleEntryChildren[3];

}  // namespace mp4stbl
