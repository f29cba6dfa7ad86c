// Recovery of a recording whose movie box was never written (battery gone,
// card pulled, process killed): the samples whose bytes are all on disk,
// given sample tables again and written as a regular MP4 file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "../box/result.h"

namespace mp4stbl {

// The length of the raw AAC frame at `data` (`available` bytes, at most
// a frame's largest), found by decoding it with the stream's
// AudioSpecificConfig; 0 when no frame decodes there. Called from two
// threads at once: the same bytes must give the same answer on either.
using AacFrameLength =
    std::function<size_t(const std::vector<uint8_t>& specificConfig, const uint8_t* data,
                         size_t available)>;

// A frame as a decoder gives it: a picture's size, a sound's channels and
// rate; `decoded` false when the frame does not decode without an error.
struct DecodedFrame {
  bool decoded = false;
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t channels = 0;
  uint32_t sampleRate = 0;
};

// The key frame `sample` decoded alone, with the decoder configuration
// `configuration` (the body of an avcC, or of an hvcC when `hevc`).
using KeyFrameDecodes = std::function<DecodedFrame(
    bool hevc, const std::vector<uint8_t>& configuration, const uint8_t* sample, size_t size)>;

// The raw AAC frame `frame` decoded with the AudioSpecificConfig `specificConfig`.
using AacFrameDecodes = std::function<DecodedFrame(const std::vector<uint8_t>& specificConfig,
                                                   const uint8_t* frame, size_t size)>;

struct RecoverOptions {
  // A healthy file from the same device and settings: its tracks, sample
  // entries, time scales, sample durations and chunking stand in for the
  // lost movie box. Empty: the broken file's own movie box (a fragmented
  // recording) must do.
  std::string reference;
  // Needed for an AAC track found through a reference.
  AacFrameLength aacFrameLength;
  // When given, the first key frame found of each video track must decode
  // with the reference's parameter sets to a picture of the reference's
  // size: a reference of another picture size or coding settings reads the
  // same slice headers, and parameter sets in band win over the reference's.
  KeyFrameDecodes keyFrameDecodes;
  // When given, the first frame found of each AAC track must decode to the
  // channels of the reference's AudioSpecificConfig.
  AacFrameDecodes aacFrameDecodes;
  // Called as media bytes are copied; returning false stops the job.
  std::function<bool(uint64_t done, uint64_t total)> progress;
};

// What was found of one track.
struct RecoveredTrack {
  uint32_t id = 0;
  std::string handler;  // "vide", "soun"
  std::string entry;    // "avc1", "mp4a", ...
  uint32_t samples = 0;
  double seconds = 0;
  // Samples the broken file's own tables list that could not be kept.
  uint32_t lost = 0;
};

struct RecoverReport {
  bool fromReference = false;  // else from the file's own fragments
  std::vector<RecoveredTrack> tracks;
  // Where the recovered media data ends in the broken file, and how many
  // of its bytes after that could not be taken for samples.
  uint64_t mediaEnd = 0;
  uint64_t unusedBytes = 0;
  // Why the walk stopped, when it stopped before the end of the data.
  std::string stop;
  // What the new file does not show as the original did.
  std::vector<std::string> notes;
};

// Writes to `output` every sample of `broken` whose bytes are all there,
// as a regular MP4 file. `broken` is only read; `output` appears once it is
// whole and checked (a failure leaves none).
Result<RecoverReport> recover(const std::string& broken, const std::string& output,
                              const RecoverOptions& options = {});

}  // namespace mp4stbl
