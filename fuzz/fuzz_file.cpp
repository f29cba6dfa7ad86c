// Whole files: reads the input as an MP4 file; whatever reads must write
// back, read again to the same tree (compared as the bytes each tree
// writes), and have every track walked to its end without a crash.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <mp4stbl/box/stream.h>
#include <mp4stbl/box/log.h>
#include <mp4stbl/box/mp4file.h>
#include <mp4stbl/media/track.h>

using namespace mp4stbl;

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

void quiet(const char*, int, const char*) {}

std::vector<unsigned char> written(Mp4File& file) {
  MemoryStream out;
  check(file.write(&out).ok());  // a tree that was read can be written
  return out.data();
}

// Walks every sample of every track that findTracks accepts.
void walkTracks(Mp4File& file, uint64_t fileLength) {
  const FoundTracks found = findTracks(file);
  for (const std::string& reason : found.unreadable) check(!reason.empty());
  for (const Track& track : found.tracks) {
    SampleWalker walker(track);
    uint32_t walked = 0;
    uint64_t time = 0;
    Result<const SampleInfo*> step = walker.next();
    for (; step.ok() && *step != nullptr; step = walker.next()) {
      const SampleInfo& sample = **step;
      check(walked < track.sampleCount());  // the walk ends
      check(sample.number == ++walked);
      check(sample.chunk >= 1 &&
            sample.chunk <= track.chunkCount() + track.fragments().runs.size());
      check(sample.missing ==
            (sample.size > fileLength || sample.offset > fileLength - sample.size));
      // Fragments set their own decode times and sizes.
      if (walked > track.tableSampleCount()) continue;
      check(sample.decodeTime == time);
      check(sample.size == track.sampleSize(walked));
      time += sample.duration;
      // The sample that plays at a sample's own start is that sample.
      if (walked <= 256 && sample.duration != 0 && !track.fragmented()) {
        check(sampleAtTime(track, sample.decodeTime) == sample.number);
      }
    }
    // Stopping early is always explained.
    check(walked == track.sampleCount() || (!step.ok() && !step.message().empty()));
    // A fragmented track finds times by walking: only as far as the walk.
    const uint32_t last = sampleAtTime(track, UINT64_MAX);
    check(last == track.sampleCount() || (track.fragmented() && !step.ok()));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = (mp4stbl::setLogSink({&quiet, 0}), true);
  (void)silenced;

  MemoryStream input(std::vector<unsigned char>(data, data + size));
  Mp4File file;
  if (!file.read(&input).ok()) return 0;
  const std::vector<unsigned char> first = written(file);

  MemoryStream again(first);
  Mp4File reread;
  check(reread.read(&again).ok());  // what was written reads back
  check(written(reread) == first);  // to the same boxes, sizes and tables

  MemoryStream dump;
  check(file.root.Dump(&dump, 0) == 0);
  walkTracks(file, size);
  return 0;
}
