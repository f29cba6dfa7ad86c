#include "recover/presentation.h"

#include <algorithm>
#include <numeric>

namespace mp4stbl::recovery {

namespace {

// Samples of the healthy file read to learn from: a few seconds of video,
// each read up to its first slice header.
constexpr uint32_t kLearnSamples = 600;
constexpr uint32_t kHeaderBytes = 4096;

// The first picture of each coded video sequence, and the end.
std::vector<size_t> sequenceStarts(const std::vector<PictureCount>& pictures) {
  std::vector<size_t> starts;
  for (size_t i = 0; i < pictures.size(); ++i) {
    if (i == 0 || pictures[i].newSequence) starts.push_back(i);
  }
  starts.push_back(pictures.size());
  return starts;
}

int64_t smallestCount(const std::vector<PictureCount>& pictures, size_t from, size_t to) {
  int64_t least = pictures[from].poc;
  for (size_t i = from; i < to; ++i) least = std::min(least, pictures[i].poc);
  return least;
}

// The order count between pictures that show one after the other: what
// every count of a sequence is a multiple of, counted from its least.
int64_t pocStep(const std::vector<PictureCount>& pictures) {
  const std::vector<size_t> starts = sequenceStarts(pictures);
  int64_t step = 0;
  for (size_t s = 0; s + 1 < starts.size(); ++s) {
    const int64_t least = smallestCount(pictures, starts[s], starts[s + 1]);
    for (size_t i = starts[s]; i < starts[s + 1]; ++i) step = std::gcd(step, pictures[i].poc - least);
  }
  return step == 0 ? 1 : step;
}

// Each picture's place in presentation order: a sequence shows after the
// pictures decoded before it, its pictures by their order counts. Frames
// missing from the end of a sequence leave their places empty.
Result<std::vector<int64_t>> places(const std::vector<PictureCount>& pictures, int64_t step) {
  std::vector<int64_t> placed(pictures.size());
  const std::vector<size_t> starts = sequenceStarts(pictures);
  for (size_t s = 0; s + 1 < starts.size(); ++s) {
    const int64_t least = smallestCount(pictures, starts[s], starts[s + 1]);
    for (size_t i = starts[s]; i < starts[s + 1]; ++i) {
      const int64_t apart = pictures[i].poc - least;
      if (apart % step != 0) {
        return Status::failure("picture " + std::to_string(i + 1) + " has order count " +
                               std::to_string(pictures[i].poc) + ", not a multiple of " +
                               std::to_string(step) + " from its sequence's first");
      }
      placed[i] = static_cast<int64_t>(starts[s]) + apart / step;
    }
  }
  return placed;
}

}  // namespace

PictureCount pictureCount(PictureOrder& order, const AccessUnit& unit) {
  PictureCount count;
  if (unit.avcSps != nullptr) {
    count.poc = order.avc(unit.avcSlice, *unit.avcSps);
    count.newSequence = unit.avcSlice.nalType == 5;
  } else if (unit.hevcSps != nullptr) {
    count.poc = order.hevc(unit.hevcSlice, *unit.hevcSps, &count.newSequence);
  }
  return count;
}

Result<Presentation> presentationOf(const Track& track, IOStream& stream, const NalFormat& format,
                                    uint32_t duration) {
  std::vector<PictureCount> pictures;
  std::vector<int64_t> times;
  PictureOrder order;
  std::vector<uint8_t> header(kHeaderBytes);
  SampleWalker walk(track);
  while (pictures.size() < kLearnSamples) {
    Result<const SampleInfo*> next = walk.next();
    if (!next.ok()) return next.status();
    if (*next == nullptr || (*next)->missing) break;
    const SampleInfo& sample = **next;
    const auto want = static_cast<unsigned>(std::min<uint32_t>(sample.size, kHeaderBytes));
    if (stream.seek(static_cast<long long>(sample.offset)) != 0 ||
        stream.read(header.data(), want) != static_cast<int>(want)) {
      return track.fail("sample " + std::to_string(sample.number) + " cannot be read");
    }
    const AccessUnit unit = findAccessUnit(format, header.data(), want);
    if (unit.avcSps == nullptr && unit.hevcSps == nullptr) {
      return track.fail("sample " + std::to_string(sample.number) +
                        " holds no slice that reads with its parameter sets");
    }
    pictures.push_back(pictureCount(order, unit));
    times.push_back(static_cast<int64_t>(sample.decodeTime) + sample.compositionOffset);
  }
  if (pictures.empty()) return track.fail("has no video sample to learn from");
  Presentation presentation;
  presentation.pocStep = pocStep(pictures);
  presentation.duration = duration;
  Result<std::vector<int64_t>> placed = places(pictures, presentation.pocStep);
  if (!placed.ok()) return track.fail(placed.message());
  presentation.firstTime = times[0] - (*placed)[0] * duration;
  for (size_t i = 0; i < times.size(); ++i) {
    if (times[i] != presentation.firstTime + (*placed)[i] * duration) {
      return track.fail("sample " + std::to_string(i + 1) +
                        " shows at a time its order count does not give");
    }
  }
  return presentation;
}

Result<std::vector<int64_t>> compositionOffsets(const std::vector<PictureCount>& pictures,
                                                const Presentation& presentation) {
  Result<std::vector<int64_t>> placed = places(pictures, presentation.pocStep);
  if (!placed.ok()) return placed.status();
  std::vector<int64_t> offsets(pictures.size());
  const int64_t duration = presentation.duration;
  for (size_t i = 0; i < pictures.size(); ++i) {
    offsets[i] = presentation.firstTime + ((*placed)[i] - static_cast<int64_t>(i)) * duration;
  }
  return offsets;
}

}  // namespace mp4stbl::recovery
