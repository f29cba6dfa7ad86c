// Recording an MP4 file sample by sample, as a camera or a capture program
// does. By default the file on disk is a fragmented MP4 at every moment of
// the recording, so a recording cut short (power lost, process killed)
// plays up to its last complete fragment; finish() turns it into a regular
// MP4 whose moov holds the whole sample tables, writing only boxes and
// changing box headers in place, never moving the media.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../box/result.h"
#include "../box/stream.h"
#include "../media/stream_config.h"

namespace mp4stbl {

struct RecorderOptions {
  enum class Layout {
    // Fragments while recording, a regular file once finished.
    Hybrid,
    // One media data box and the moov written at finish: nothing plays
    // before finish() (mp4stbl recover rebuilds the index).
    Plain,
    // As Hybrid while recording; finish() writes the moov before the media
    // in a new file that replaces the recording (the media is copied once,
    // by the kernel; see recorder.cpp for why).
    MoovFirst,
  };
  Layout layout = Layout::Hybrid;
  // Each track's samples are grouped in chunks of about this long, laid
  // out by time so that a player reads the file forward.
  double chunkSeconds = 0.5;
  // A fragment at least this often, cut at a video key frame when one
  // comes after half of it.
  double fragmentSeconds = 1.0;
  // fdatasync after every fragment (and before finish() changes headers),
  // so a power loss keeps every fragment written; costs a disk round trip
  // per fragment.
  bool syncEachFragment = false;
  uint32_t movieTimescale = 1000;
  // Media held in memory before it is written out, whatever the times say.
  size_t maxBufferedBytes = 64u << 20;
  // Writes on a thread of the recorder's own (for a recording named by its
  // path), up to 4 MiB behind the caller: the caller's thread prepares the next
  // fragment meanwhile. A failure of such a write ends the recording at
  // the next fragment or at finish(), with the file cut back to its last
  // whole fragment as when the caller's thread writes.
  bool backgroundWrites = false;
};

// The timing of one sample, in its track's time scale.
struct SampleTime {
  uint64_t decodeTime = 0;
  // 0: the sample lasts until the track's next sample (the last one, as
  // long as the one before it).
  uint32_t duration = 0;
  int32_t compositionOffset = 0;  // presentation minus decode time
  bool key = true;
};

enum class G711Law { ALaw, MuLaw };

class Recorder {
 public:
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Creates (or replaces) the file at `path`.
  static Result<std::unique_ptr<Recorder>> create(const std::string& path,
                                                  const RecorderOptions& options = {});
  // Records into `sink`, which must outlive the recorder and take seeks
  // back for finish(); MoovFirst needs a path and is refused here.
  static Result<std::unique_ptr<Recorder>> create(IOStream* sink,
                                                  const RecorderOptions& options = {});

  // Tracks are added before the first sample is written; each returns the
  // track's number (its track ID, from 1). `presentationDelay` is the
  // composition time of the first frame shown, which the edit list hides
  // (a stream with B-frames starts its presentation late).
  Result<uint32_t> addH264(const std::vector<Bytes>& sps, const std::vector<Bytes>& pps,
                           uint32_t timescale, uint32_t presentationDelay = 0);
  Result<uint32_t> addHevc(const std::vector<Bytes>& vps, const std::vector<Bytes>& sps,
                           const std::vector<Bytes>& pps, uint32_t timescale,
                           uint32_t presentationDelay = 0);
  Result<uint32_t> addVideo(const VideoConfig& config, uint32_t timescale,
                            uint32_t presentationDelay = 0);
  // The time scale is the sample rate; each sample is one AAC frame.
  Result<uint32_t> addAac(const Bytes& audioSpecificConfig);
  // One byte per sample and channel; write() takes any number of whole
  // frames (one byte per channel each) and `duration` is ignored.
  Result<uint32_t> addG711(G711Law law, uint32_t sampleRate, uint16_t channels = 1);
  // 16-bit little-endian PCM ("sowt"), written like G.711.
  Result<uint32_t> addPcm(uint32_t sampleRate, uint16_t channels);
  // Timed metadata ("gpmd"), e.g. a camera's sensor readings.
  Result<uint32_t> addMetadata(uint32_t timescale);

  // Adds one sample. For video the bytes are the access unit as MP4 stores
  // it (NAL units behind 4-byte lengths). A failure says why and leaves the
  // recording as it was before the call; a failure to write the file
  // leaves it playable up to its last complete fragment and ends the
  // recording.
  Status write(uint32_t track, const uint8_t* bytes, size_t size, const SampleTime& time);
  // The same, keeping `sample`'s buffer rather than copying it (for a
  // track whose calls hold one sample each); `sample` is left with a
  // buffer the recorder is done with.
  Status write(uint32_t track, Bytes&& sample, const SampleTime& time);

  // Writes what is held and the final moov. The recorder takes no more
  // samples afterwards.
  Status finish();

  // Seconds recorded so far on the longest track, and bytes written.
  double seconds() const;
  uint64_t bytesWritten() const;

 private:
  struct State;
  explicit Recorder(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace mp4stbl
