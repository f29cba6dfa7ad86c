// A player's view of a file's tracks: where each sample lies in the file,
// when it plays and whether playback can start there. Built on the sample
// table boxes as they stand; tables that disagree with each other give an
// error that names the track and the table.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "box/mp4file.h"
#include "stbl.h"

struct SampleInfo {
  uint32_t number = 0;  // 1-based
  uint32_t chunk = 0;   // 1-based
  uint64_t offset = 0;  // file position of the first byte
  uint32_t size = 0;
  uint64_t decodeTime = 0;  // time-scale units
  uint32_t duration = 0;
  bool sync = false;
  uint32_t descriptionIndex = 0;  // 1-based, into stsd
};

// The boxes of one track. Pointers into the file's tree: the Track lives no
// longer than its Mp4File.
struct Track {
  uint32_t id = 0;
  std::string handler;  // "vide", "soun", "meta", ...
  uint32_t timescale = 0;
  uint64_t fileLength = 0;  // bounds every sample; 0 when unknown
  const StsdAtom* stsd = nullptr;
  const SttsAtom* stts = nullptr;
  const StscAtom* stsc = nullptr;
  const StszAtom* stsz = nullptr;
  const StssAtom* stss = nullptr;  // none: every sample is a sync sample
  const StcoAtom* stco = nullptr;  // one of stco and co64
  const Co64Atom* co64 = nullptr;

  uint32_t sampleCount() const { return static_cast<uint32_t>(stsz->entries.size()); }
  uint64_t chunkCount() const;
  uint64_t chunkOffset(uint64_t chunk) const;  // 1-based; 0 past the end
  std::string entryType() const;               // of the first sample entry
  const char* kind() const;                    // "video", "audio", "metadata", ...
  // Checks that the tables agree with each other; "" when they do.
  std::string check() const;
};

// Every track of a file, with its tables checked. -1 and a message naming
// the track and the table when a track cannot be walked.
int findTracks(Mp4File& file, uint64_t fileLength, std::vector<Track>* tracks,
               std::string* error);

// Walks a track's samples in order: the sample-to-chunk runs are followed
// once, so each step costs constant time.
class SampleWalker {
 public:
  explicit SampleWalker(const Track& track);

  // The next sample; false at the end, or on an inconsistency, which
  // error() then describes.
  bool next(SampleInfo* sample);
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& message);
  bool enterChunk();

  const Track& track_;
  uint32_t number_ = 0;
  uint64_t chunk_ = 0;
  size_t run_ = 0;
  uint64_t leftInChunk_ = 0;
  uint64_t position_ = 0;
  size_t timeRun_ = 0;
  uint64_t leftInTimeRun_ = 0;
  uint64_t time_ = 0;
  size_t sync_ = 0;
  std::string error_;
};

// The sample that plays at `time` (time-scale units): the last one when
// time lies past the end, 0 for an empty track.
uint32_t sampleAtTime(const Track& track, uint64_t time);
