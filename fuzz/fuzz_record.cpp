// A recording fed from hostile elementary streams: the input's first byte
// picks the reader (H.264/HEVC Annex B or AAC in ADTS) and the size of the
// pieces the rest arrives in; whatever the readers take is recorded into
// memory and finished. Nothing may crash, and a finished recording must
// read back with every sample that was written.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include <mp4stbl/box/log.h>
#include <mp4stbl/box/mp4file.h>
#include <mp4stbl/media/elementary.h>
#include <mp4stbl/media/track.h>
#include <mp4stbl/record/recorder.h>

using namespace mp4stbl;

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

void quiet(const char*, int, const char*) {}

// The frames of a reader, recorded as one track once its configuration is
// known; false when the recorder refuses a frame.
struct VideoFeed {
  AnnexBReader reader;
  uint32_t track = 0;
  uint32_t written = 0;
  bool take(Recorder& recorder) {
    VideoFrame frame;
    while (reader.next(&frame)) {
      if (track == 0) {
        Result<uint32_t> added = recorder.addVideo(*reader.config(), 90000, 3000 * reader.reorderDelay());
        if (!added.ok()) return false;
        track = *added;
      }
      const int64_t offset =
          (int64_t(frame.presentationIndex) + reader.reorderDelay() - int64_t(frame.decodeIndex)) * 3000;
      check(offset >= 0);
      const SampleTime time{frame.decodeIndex * 3000, 3000, static_cast<int32_t>(offset), frame.key};
      if (!recorder.write(track, frame.data.data(), frame.data.size(), time).ok()) return false;
      ++written;
    }
    return true;
  }
};

struct AudioFeed {
  AdtsReader reader;
  uint32_t track = 0;
  uint32_t written = 0;
  bool take(Recorder& recorder) {
    Bytes frame;
    while (reader.next(&frame)) {
      if (track == 0) {
        Result<uint32_t> added = recorder.addAac(reader.config()->specificConfig);
        if (!added.ok()) return false;
        track = *added;
      }
      const SampleTime time{uint64_t{written} * reader.config()->samplesPerFrame};
      if (!recorder.write(track, frame.data(), frame.size(), time).ok()) return false;
      ++written;
    }
    return true;
  }
};

template <class Feed>
void run(FuzzedDataProvider& input, size_t piece) {
  MemoryStream sink;
  RecorderOptions options;
  options.fragmentSeconds = 0.1;
  auto recorder = Recorder::create(&sink, options);
  Feed feed;
  while (input.remaining_bytes() > 0) {
    const std::vector<uint8_t> bytes = input.ConsumeBytes<uint8_t>(piece);
    if (!feed.reader.feed(bytes.data(), bytes.size()).ok() || !feed.take(**recorder)) return;
  }
  if (!feed.reader.finish().ok() || !feed.take(**recorder)) return;
  if (feed.track == 0 || !(*recorder)->finish().ok()) return;
  MemoryStream in(sink.data());
  Mp4File file;
  check(file.read(&in).ok());
  FoundTracks found = findTracks(file);
  check(found.tracks.size() == 1 && found.tracks[0].sampleCount() == feed.written);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  setLogSink({&quiet, 4});
  FuzzedDataProvider input(data, size);
  const uint8_t choice = input.ConsumeIntegral<uint8_t>();
  const size_t piece = 1 + (choice >> 1) * 37;
  if (choice & 1) {
    run<AudioFeed>(input, piece);
  } else {
    run<VideoFeed>(input, piece);
  }
  return 0;
}
