// Readers of elementary streams as encoders and capture devices emit them:
// H.264 and HEVC in Annex B byte-stream form, AAC in ADTS. Bytes are fed in
// pieces of any size (a pipe's reads); whole access units and frames come
// out in decode order, in the form MP4 stores them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "../box/result.h"
#include "stream_config.h"

namespace mp4stbl {

// One access unit of a video stream.
struct VideoFrame {
  // Every NAL unit of the access unit (parameter sets, SEI and delimiters
  // included) in stream order, each behind a 4-byte big-endian length.
  Bytes data;
  uint64_t decodeIndex = 0;  // 0 for the stream's first frame
  // Its place in presentation order, counted over the whole stream.
  // presentationIndex + reorderDelay() >= decodeIndex for every frame.
  uint64_t presentationIndex = 0;
  bool key = false;  // IDR (H.264, or a recovery point of 0 frames); IRAP (HEVC)
};

// H.264 or HEVC, told apart by the first parameter sets.
class AnnexBReader {
 public:
  AnnexBReader();
  ~AnnexBReader();
  AnnexBReader(const AnnexBReader&) = delete;
  AnnexBReader& operator=(const AnnexBReader&) = delete;

  // Appends bytes of the stream. A failure (parameter sets that do not
  // parse, a frame before any parameter sets, a frame that is too large)
  // says why and where (byte offset in the stream); frames already taken
  // stay valid.
  Status feed(const uint8_t* bytes, size_t size);
  // The stream ended: the last access unit is complete.
  Status finish();
  // The stream was cut off (a signal, a producer gone): the access unit
  // still being read may be short and is left out; every frame before it
  // is released with its presentation index.
  Status cut();
  // The configuration of the first parameter sets; none before they came.
  const VideoConfig* config() const;
  // The next frame in decode order once its presentation index is known;
  // false when none is ready yet.
  bool next(VideoFrame* frame);
  // Frames by which presentation may lag decoding: the frames the decoder
  // holds back. Known with config().
  uint32_t reorderDelay() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// AAC in ADTS: each frame's raw data block without its header (and CRC).
class AdtsReader {
 public:
  AdtsReader();
  ~AdtsReader();
  AdtsReader(const AdtsReader&) = delete;
  AdtsReader& operator=(const AdtsReader&) = delete;

  // A failure: bytes that are not ADTS, a frame of several raw data
  // blocks, a configuration that changes mid-stream; with the byte offset.
  Status feed(const uint8_t* bytes, size_t size);
  // The stream ended. A partial frame at the end is dropped, and the
  // failure says how many bytes; the frames before it stay.
  Status finish();
  const AudioConfig* config() const;
  bool next(Bytes* frame);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace mp4stbl
