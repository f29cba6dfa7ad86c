// A player's view of a file's tracks: where each sample lies in the file,
// when it plays and whether playback can start there. Built on the sample
// table boxes as they stand; tables that disagree with each other give an
// error that names the track and the table.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "../box/edit_boxes.h"
#include "../box/mp4file.h"
#include "../box/result.h"
#include "fragments.h"
#include "../stbl.h"

namespace mp4stbl {

struct SampleInfo {
  uint32_t number = 0;  // 1-based
  uint32_t chunk = 0;   // 1-based
  uint64_t offset = 0;  // file position of the first byte
  uint32_t size = 0;
  uint64_t decodeTime = 0;  // time-scale units
  uint32_t duration = 0;
  int64_t compositionOffset = 0;  // composition minus decode time (ctts or trun)
  // When the sample shows, in time-scale units: its composition time placed
  // on the edit list's timeline. Negative before the first edit starts.
  int64_t presentationTime = 0;
  bool sync = false;
  uint32_t descriptionIndex = 0;  // 1-based, into stsd
  bool missing = false;  // its bytes lie past the end of the file (a file cut short)
};

class Track;

// The tracks of a file whose tables agree with each other, and why each
// other track cannot be walked ("track 2 (soun, mp4a): ..."): one track's
// tables never make the others unreadable.
struct FoundTracks {
  std::vector<Track> tracks;
  std::vector<std::string> unreadable;
};

FoundTracks findTracks(Mp4File& file);

// The boxes of one track, known to agree with each other: only findTracks
// makes one. Pointers into the file's tree: a Track lives no longer than its
// Mp4File.
class Track {
 public:
  uint32_t id() const { return id_; }
  const std::string& handler() const { return handler_; }  // "vide", "soun", ...
  uint32_t timescale() const { return timescale_; }
  uint64_t fileLength() const { return fileLength_; }  // bounds every sample

  const StsdAtom& stsd() const { return *stsd_; }
  const SttsAtom& stts() const { return *stts_; }
  const StscAtom& stsc() const { return *stsc_; }
  // The sample size table; null when every sample has one size.
  const StszAtom* stsz() const { return stsz_; }
  // The one size of every sample, 0 when stsz holds a table.
  uint32_t constantSampleSize() const { return constantSize_; }
  const StssAtom* stss() const { return stss_; }  // none: every sample is a sync sample
  const StcoAtom* stco() const { return stco_; }  // exactly one of stco and co64
  const Co64Atom* co64() const { return co64_; }
  const CttsAtom* ctts() const { return ctts_; }  // none: composition is decode time
  const ElstAtom* elst() const { return elst_; }  // none: the media plays from time 0

  uint32_t movieTimescale() const { return movieTimescale_; }  // of mvhd, for the edit list
  // The sum of the sample durations, in time-scale units: where a
  // fragment's decode time (tfdt) leaves a gap or starts past 0, the gap
  // is not counted.
  uint64_t mediaDuration() const;
  // The sum of the edits' durations, empty ones included, in the movie's
  // time scale; 0 without an edit list. In a fragmented track an edit of
  // duration 0 (as fragmenting writers leave it, the length being unknown
  // when moov is written) lasts from its media time to the end of the
  // samples, as players take it.
  uint64_t presentationDuration() const;
  // What the edit list adds to a sample's composition time: the length of
  // the empty edits that lead, in time-scale units, less the media time
  // where the first other edit starts.
  int64_t presentationShift() const;

  // The samples of the sample table, then those of the fragments.
  uint32_t sampleCount() const { return sampleCount_ + fragmentSamples_; }
  uint32_t tableSampleCount() const { return sampleCount_; }
  uint32_t sampleSize(uint32_t number) const;  // 1-based, of the table; 0 past it
  uint64_t totalSampleBytes() const;
  uint64_t chunkCount() const;  // of the table
  // 1-based: the table's chunks, then each fragment run; 0 past the end.
  uint64_t chunkOffset(uint64_t chunk) const;
  bool fragmented() const { return !fragments_.runs.empty(); }
  const TrackFragments& fragments() const { return fragments_; }
  std::string entryType() const;               // of the first sample entry
  const char* kind() const;                    // "video", "audio", "metadata", ...
  // A failure that names the track: "track 2 (soun, mp4a): what".
  Status fail(const std::string& what) const;

  // The bytes of sample `number` (1-based), read from `stream`: the file
  // the track was read from (Mp4File::stream()). A sample past the end of
  // the file, or past the track's last sample, is refused before anything
  // is allocated.
  Result<std::vector<uint8_t>> readSample(IOStream* stream, uint32_t number) const;
  // The same into `buffer`, whose storage is reused from one sample to the
  // next; a walker's sample skips the look-up.
  Status readSample(IOStream* stream, uint32_t number, std::vector<uint8_t>* buffer) const;
  Status readSample(IOStream* stream, const SampleInfo& sample, std::vector<uint8_t>* buffer) const;

 private:
  friend FoundTracks findTracks(Mp4File& file);
  Track() = default;
  Status takeTables(const Atom* stbl);
  Status check() const;
  Status takeFragments(FragmentIndex& index);
  // Where sample `number`'s bytes start, and how many there are.
  Result<std::pair<uint64_t, uint32_t>> locate(uint32_t number) const;

  uint32_t id_ = 0;
  std::string handler_;
  uint32_t timescale_ = 0;
  uint64_t fileLength_ = 0;
  const StsdAtom* stsd_ = nullptr;
  const SttsAtom* stts_ = nullptr;
  const StscAtom* stsc_ = nullptr;
  const StszAtom* stsz_ = nullptr;
  uint32_t constantSize_ = 0;
  uint32_t sampleCount_ = 0;
  const StssAtom* stss_ = nullptr;
  const StcoAtom* stco_ = nullptr;
  const Co64Atom* co64_ = nullptr;
  const CttsAtom* ctts_ = nullptr;
  const ElstAtom* elst_ = nullptr;
  uint32_t movieTimescale_ = 0;
  TrackFragments fragments_;
  uint32_t fragmentSamples_ = 0;
};

// Walks a track's samples in order: the sample-to-chunk runs are followed
// once, so each step costs constant time.
class SampleWalker {
 public:
  explicit SampleWalker(const Track& track);

  // The next sample; null at the end. A failure (a sample past its chunks
  // or past 2^64) ends the walk; a sample past the end of the file is
  // returned as missing.
  Result<const SampleInfo*> next();

 private:
  Result<const SampleInfo*> nextInTables();
  int64_t nextCompositionOffset();
  Status enterChunk();
  Status fail(const std::string& message);
  Result<const SampleInfo*> nextInFragments();

  const Track& track_;
  SampleInfo sample_;
  uint32_t number_ = 0;
  uint64_t chunk_ = 0;
  size_t run_ = 0;
  uint64_t leftInChunk_ = 0;
  uint64_t position_ = 0;
  size_t timeRun_ = 0;
  uint64_t leftInTimeRun_ = 0;
  uint64_t time_ = 0;
  size_t sync_ = 0;
  size_t offsetRun_ = 0;
  uint64_t leftInOffsetRun_ = 0;
  int64_t shift_ = 0;
  size_t fragmentRun_ = 0;
  uint32_t inRun_ = 0;
};

// `units` of a time scale `from` in the time scale `to`, to the nearest
// unit; 0 when `from` is 0.
uint64_t rescale(uint64_t units, uint32_t from, uint32_t to);

// The sample that plays at `time` (time-scale units): the last one when
// time lies past the end, 0 for an empty track.
uint32_t sampleAtTime(const Track& track, uint64_t time);

// The key frame to start decoding from for sample `asked`: the last one at
// or before it, else (or with `after`) the first one at or after it; `asked`
// itself when there is none.
uint32_t keyFrameNear(const Track& track, uint32_t asked, bool after);

}  // namespace mp4stbl
