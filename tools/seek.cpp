// mp4stbl seek: the key frame to start playing from, and the bytes to read.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "command.h"

namespace mp4stbl::cli {

namespace {

using nlohmann::json;

// Walks to sample `number`; null after a failure message.
std::unique_ptr<SampleInfo> sampleAt(const Options& options, const Track& track,
                                     uint32_t number) {
  SampleWalker walker(track);
  Result<const SampleInfo*> step = walker.next();
  for (; step.ok() && *step != nullptr; step = walker.next()) {
    if ((*step)->number == number) return std::make_unique<SampleInfo>(**step);
  }
  fail(options, step.ok() ? "no sample " + std::to_string(number) : step.message());
  return nullptr;
}

uint32_t sampleFor(const Track& track, double time, uint32_t sample) {
  if (time < 0) return sample;
  return sampleAtTime(track, static_cast<uint64_t>(std::llround(time * track.timescale())));
}

// The key frame a player starts decoding from to show sample `asked`: the
// last one at or before it; with `after`, the first one at or after it
// (which may not exist: then `asked` itself, not a key frame).
uint32_t keyFrameFor(const Track& track, uint32_t asked, bool after) {
  if (track.fragmented()) return keyFrameNear(track, asked, after);
  uint32_t key = asked;
  if (track.stss() == nullptr) return key;
  const std::vector<uint32_t>& syncs = track.stss()->entries;  // ascending, checked
  const auto past = std::upper_bound(syncs.begin(), syncs.end(), asked);
  if (!after && past != syncs.begin()) return *(past - 1);
  track.stss()->getIFrameNumber(&key);
  return key;
}

// The distance from the first byte of the start chunk to that of the end
// chunk, as the offset table gives it.
uint64_t chunkDistance(const Track& track, uint32_t startChunk, uint32_t endChunk,
                       unsigned long long* chunkStart) {
  if (endChunk > track.chunkCount()) {  // a fragment run
    *chunkStart = track.chunkOffset(startChunk);
    return track.chunkOffset(endChunk) - *chunkStart;
  }
  if (track.stco() != nullptr) {
    uint32_t distance = 0;
    track.stco()->getFramePos(startChunk, endChunk, chunkStart, &distance);
    return distance;
  }
  unsigned long long endPos = 0;
  track.co64()->getPosByNO(startChunk, chunkStart);
  track.co64()->getPosByNO(endChunk, &endPos);
  return endPos - *chunkStart;
}

}  // namespace

int seek(const Options& options) {
  const auto opened = open(options);
  if (!opened) return kFailure;
  const Track* track = findTrack(options, *opened);
  if (track == nullptr) return kFailure;
  if (track->sampleCount() == 0) {
    return fail(options, "track " + std::to_string(track->id()) + " has no samples");
  }
  // A time past the end seeks to the last sample.
  std::vector<Clamped> clamps;
  const double trackEnd = seconds(track->mediaDuration(), track->timescale());
  if (options.time >= 0) clampTime("--time", options.time, trackEnd, &clamps);
  if (options.endTime >= 0) clampTime("--end-time", options.endTime, trackEnd, &clamps);
  const uint32_t asked = sampleFor(*track, options.time, options.sample);
  if (asked == 0 || asked > track->sampleCount()) {
    return fail(options, "track " + std::to_string(track->id()) + " has no sample " +
                             std::to_string(asked) + "; it has " +
                             std::to_string(track->sampleCount()));
  }
  const uint32_t key = keyFrameFor(*track, asked, options.after);
  const auto start = sampleAt(options, *track, key);
  if (!start) return kFailure;
  if (!start->sync) {
    return fail(options, "no key frame at or after sample " + std::to_string(asked) +
                             "; the last one is sample " +
                             std::to_string(keyFrameFor(*track, asked, false)));
  }
  uint32_t last = sampleFor(*track, options.endTime, options.endSample);
  last = last == 0 ? track->sampleCount() : std::min(last, track->sampleCount());
  const auto end = sampleAt(options, *track, std::max(last, key));
  if (!end) return kFailure;

  unsigned long long chunkStart = 0;
  const uint64_t distance = chunkDistance(*track, start->chunk, end->chunk, &chunkStart);
  const uint64_t rangeEnd = end->offset + end->size;
  const double keyTime = seconds(start->decodeTime, track->timescale());
  // Players read whole chunks: the range starts at the key frame's chunk.
  const bool atKeyFrame = chunkStart == start->offset;
  if (options.json) {
    printJson({
        {"file", options.file},
        {"track", track->id()},
        {"requestedSample", asked},
        {"keyFrame", key},
        {"keyFrameTime", keyTime},
        {"chunk", start->chunk},
        {"offset", start->offset},
        {"chunkOffset", chunkStart},
        {"chunkDistance", distance},
        {"endSample", end->number},
        {"rangeStart", chunkStart},
        {"rangeLength", rangeEnd - chunkStart},
        {"rangeStartsAtKeyFrame", atKeyFrame},
        {"clamped", clampsDocument(clamps)},
    });
    return 0;
  }
  std::printf("track %u: sample %u -> key frame %u at %.3f s, chunk %u, offset %llu\n",
              track->id(), asked, key, keyTime, start->chunk,
              static_cast<unsigned long long>(start->offset));
  std::printf("read bytes %llu..%llu (%llu bytes) to play through sample %u\n", chunkStart,
              static_cast<unsigned long long>(rangeEnd),
              static_cast<unsigned long long>(rangeEnd - chunkStart), end->number);
  if (atKeyFrame) {
    std::printf("the range starts at the key frame, the first sample of chunk %u\n", start->chunk);
  } else {
    std::printf("the range starts at chunk %u, %llu bytes before the key frame: players read "
                "whole chunks\n",
                start->chunk, static_cast<unsigned long long>(start->offset - chunkStart));
  }
  noteClamps(options, clamps);
  return 0;
}

}  // namespace mp4stbl::cli
