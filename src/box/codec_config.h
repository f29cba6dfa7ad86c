// The decoder configuration boxes of AVC ("avcC"), HEVC ("hvcC"), MPEG-4
// audio ("esds"), AC-3 ("dac3"), E-AC-3 ("dec3") and ALAC ("alac"), the
// children of their sample entries that name the profile and level or the
// channels and rate a decoder must handle. The body is kept
// as read and written back unchanged; its leading fields are parsed from
// those bytes without ever reading past them, and a body that is short or
// not a configuration this code knows just leaves `parsed` false.
#pragma once

#include <cstdint>
#include <string>

#include "atom.h"

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

// An audio decoder configuration: the channels and rate of the stream
// itself, which outrank the sample entry's fields (writers put 2 channels
// there for any stream, and a rate past 65535 does not fit its 16.16 field).
class AudioConfigAtom : public UserDefAtom {
 public:
  explicit AudioConfigAtom(const AtomHeader& header);
  // 0 when the configuration names none or was not parsed.
  virtual uint32_t channels() const = 0;
  virtual uint32_t samplesPerSecond() const { return 0; }
};

// "esds": the MPEG-4 elementary stream descriptor of "mp4a". Its decoder
// specific information is an AudioSpecificConfig for AAC, and Vorbis's
// three headers for Vorbis (object type 0xDD), whose first one names the
// channels and rate.
class EsdsAtom : public AudioConfigAtom {
 public:
  explicit EsdsAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  // Channels the configuration names; 0 when it names none (a program
  // config element) or was not parsed.
  uint32_t channels() const override;

  bool parsed = false;
  uint8_t objectType = 0;       // objectTypeIndication, 0x40 for MPEG-4 audio
  uint8_t audioObjectType = 0;  // 2 for AAC LC; 0 for Vorbis
  uint32_t sampleRate = 0;      // AAC: without SBR's doubling
  uint8_t channelConfiguration = 0;  // AAC's; Vorbis's channel count
};

// "dac3": AC-3's bit stream information; the channels are the audio coding
// mode's plus the LFE channel.
class Ac3ConfigAtom : public AudioConfigAtom {
 public:
  explicit Ac3ConfigAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;
  uint32_t channels() const override;

  bool parsed = false;
  uint8_t sampleRateCode = 0;  // fscod
  uint8_t bitStreamId = 0;     // bsid
  uint8_t codingMode = 0;      // acmod
  bool lfe = false;            // lfeon
};

// "dec3": E-AC-3's; the channels are those of the first independent
// substream's coding mode and LFE channel.
class Eac3ConfigAtom : public Ac3ConfigAtom {
 public:
  explicit Eac3ConfigAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  uint16_t dataRate = 0;  // kbit/s
  uint8_t independentSubstreams = 0;
};

// "alac": the ALAC decoder's configuration inside its sample entry.
class AlacConfigAtom : public AudioConfigAtom {
 public:
  explicit AlacConfigAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;
  uint32_t channels() const override { return parsed ? channelCount : 0; }
  uint32_t samplesPerSecond() const override { return parsed ? sampleRate : 0; }

  bool parsed = false;
  uint32_t frameLength = 0;
  uint8_t bitDepth = 0;
  uint8_t channelCount = 0;
  uint32_t sampleRate = 0;
};

// The child types of a sample entry that are read as typed boxes.
extern const AtomType kSampleEntryChildren[6];

}  // namespace mp4stbl
