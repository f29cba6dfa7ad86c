// A sample's bytes, found from its number without walking the samples
// before it: the sample-to-chunk runs give its chunk, the sizes before it
// in that chunk its offset.
#include "media/track.h"

namespace mp4stbl {

Result<std::pair<uint64_t, uint32_t>> Track::locate(uint32_t number) const {
  if (number == 0 || number > sampleCount()) {
    return fail("no sample " + std::to_string(number) + "; the track has " +
                std::to_string(sampleCount()));
  }
  if (number > sampleCount_) {
    uint64_t left = number - sampleCount_ - 1;  // samples before it in the fragments
    for (const FragmentRun& run : fragments_.runs) {
      if (left >= run.trun->sampleCount) {
        left -= run.trun->sampleCount;
        continue;
      }
      uint64_t offset = run.dataStart;
      for (uint32_t i = 0; i < left; ++i) offset += run.sample(i).size;
      return std::make_pair(offset, run.sample(static_cast<uint32_t>(left)).size);
    }
    return fail("the fragments end before sample " + std::to_string(number));
  }
  const std::vector<StscEntry>& runs = stsc_->entries;
  uint64_t first = 1;  // the first sample of the run
  for (size_t r = 0; r < runs.size(); ++r) {
    const uint64_t lastChunk = r + 1 < runs.size() ? runs[r + 1].firstChunk - 1 : chunkCount();
    const uint64_t chunks = lastChunk >= runs[r].firstChunk ? lastChunk - runs[r].firstChunk + 1 : 0;
    const uint64_t inRun = chunks * runs[r].samplesPerChunk;
    if (number >= first + inRun) {
      first += inRun;
      continue;
    }
    const uint64_t chunk = runs[r].firstChunk + (number - first) / runs[r].samplesPerChunk;
    uint64_t offset = chunkOffset(chunk);
    const uint64_t chunkStart = number - (number - first) % runs[r].samplesPerChunk;
    for (uint64_t n = chunkStart; n < number; ++n) offset += sampleSize(static_cast<uint32_t>(n));
    return std::make_pair(offset, sampleSize(number));
  }
  return fail("sample " + std::to_string(number) + " lies past the chunks of " +
              (stco_ != nullptr ? "stco" : "co64"));
}

Result<std::vector<uint8_t>> Track::readSample(IOStream* stream, uint32_t number) const {
  std::vector<uint8_t> bytes;
  Status read = readSample(stream, number, &bytes);
  if (!read.ok()) return read;
  return bytes;
}

Status Track::readSample(IOStream* stream, uint32_t number, std::vector<uint8_t>* buffer) const {
  Result<std::pair<uint64_t, uint32_t>> where = locate(number);
  if (!where.ok()) return where.status();
  SampleInfo sample;
  sample.number = number;
  sample.offset = where->first;
  sample.size = where->second;
  return readSample(stream, sample, buffer);
}

Status Track::readSample(IOStream* stream, const SampleInfo& sample,
                         std::vector<uint8_t>* buffer) const {
  // The table's size is checked against the file before it sizes the buffer.
  const long long length = stream->getLength();
  const uint64_t end = length < 0 ? fileLength_ : static_cast<uint64_t>(length);
  if (sample.size > end || sample.offset > end - sample.size) {
    return fail("sample " + std::to_string(sample.number) + " (" + std::to_string(sample.size) +
                " bytes at offset " + std::to_string(sample.offset) +
                ") lies past the end of the file, " + std::to_string(end) + " bytes");
  }
  buffer->resize(sample.size);
  if (stream->seek(static_cast<long long>(sample.offset)) != 0 ||
      (sample.size > 0 &&
       static_cast<unsigned>(stream->readBytes(buffer->data(), sample.size)) != sample.size)) {
    return fail("sample " + std::to_string(sample.number) + " cannot be read at offset " +
                std::to_string(sample.offset));
  }
  return Status();
}

}  // namespace mp4stbl
