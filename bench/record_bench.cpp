// The recorder's own costs, apart from parsing elementary streams and from
// the disk:
//
//   1. write(): 25 frames/s of video and 44.1 kHz AAC (43 frames/s), small
//      pre-made samples, into a stream that counts the bytes and keeps none;
//      ns per sample, and the heap and resident memory the recording holds
//      per sample once it is long.
//   2. finish() of a one-hour recording (25 frames/s + 48 kHz AAC: 90000 +
//      168750 samples) written to a real file, in each layout, on a warm
//      page cache.
//
//   record_bench [--part 1|2] [--hours H] [--runs N] [--dir DIR]
//
//   --part P    only part 1 or part 2 (both by default)
//   --hours H   length of the recording of part 1 (default 12: 2.9 million samples)
//   --runs N    runs of each measurement; the fastest is shown (default 3)
//   --dir DIR   where part 2 writes its file (default build/bench-data)

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <mp4stbl/box/stream.h>
#include <mp4stbl/record/recorder.h>

using namespace mp4stbl;

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Takes every write and seek and keeps only the position and the length.
class DiscardStream : public IOStream {
 public:
  int read(unsigned char*, unsigned) override { return -1; }
  int write(const unsigned char*, unsigned count) override {
    position_ += count;
    length_ = std::max(length_, position_);
    return static_cast<int>(count);
  }
  int seek(long long offset) override {
    if (offset < 0) return -1;
    position_ = offset;
    return 0;
  }
  long long getOffset() override { return position_; }
  long long getLength() override { return length_; }

 private:
  long long position_ = 0;
  long long length_ = 0;
};

// Baseline 320x240 parameter sets from x264 (25 frames/s in the VUI).
const Bytes kSps = {0x67, 0x42, 0xc0, 0x0d, 0xd9, 0x01, 0x41, 0xfb, 0x01, 0x10, 0x00, 0x00,
                    0x03, 0x00, 0x10, 0x00, 0x00, 0x03, 0x03, 0x20, 0xf1, 0x42, 0xa4, 0x80};
const Bytes kPps = {0x68, 0xcb, 0x83, 0xcb, 0x20};
// AAC-LC stereo at 44.1 and 48 kHz.
const Bytes kAac44 = {0x12, 0x10};
const Bytes kAac48 = {0x11, 0x90};

constexpr uint32_t kVideoTimescale = 90000;
constexpr uint32_t kFrameTicks = 3600;  // 25 frames a second
constexpr uint32_t kGop = 50;
constexpr uint32_t kAacFrame = 1024;

// One sample to write, made before the clock starts.
struct Sample {
  uint32_t track;
  uint32_t size;
  SampleTime time;
};

// The samples of `seconds` of video and AAC at `audioRate`, interleaved by
// time as a capture program hands them over. Sizes are drawn from
// [video, 2 video) and [audio, 2 audio) bytes, key frames 8 video.
std::vector<Sample> makeSamples(double seconds, uint32_t audioRate, uint32_t video,
                                uint32_t audio) {
  const auto frames = static_cast<uint64_t>(seconds * 25);
  const auto aacFrames = static_cast<uint64_t>(seconds * audioRate / kAacFrame);
  std::vector<Sample> samples;
  samples.reserve(frames + aacFrames);
  uint64_t v = 0, a = 0;
  while (v < frames || a < aacFrames) {
    // Video frame v starts at v / 25 s, AAC frame a at a * 1024 / rate s.
    const bool videoNext = a == aacFrames || (v < frames && v * audioRate <= a * kAacFrame * 25);
    if (videoNext) {
      const bool key = v % kGop == 0;
      const auto size = key ? 8 * video : video + static_cast<uint32_t>((v * 2654435761u) >> 16) % video;
      samples.push_back({1, size, {v * kFrameTicks, kFrameTicks, 0, key}});
      ++v;
    } else {
      const auto size = audio + static_cast<uint32_t>((a * 2246822519u) >> 16) % audio;
      samples.push_back({2, size, {a * kAacFrame, kAacFrame, 0, true}});
      ++a;
    }
  }
  return samples;
}

// Filler every sample is cut from: the recorder stores sample bytes as they
// come and never looks inside them.
std::vector<uint8_t> sampleBytes(const std::vector<Sample>& samples) {
  uint32_t largest = 0;
  for (const Sample& s : samples) largest = std::max(largest, s.size);
  return std::vector<uint8_t>(largest, 0x5a);
}

Result<std::unique_ptr<Recorder>> startRecording(Result<std::unique_ptr<Recorder>> made,
                                                 uint32_t audioRate) {
  if (!made.ok()) return made;
  Recorder& recorder = **made;
  Result<uint32_t> video = recorder.addH264({kSps}, {kPps}, kVideoTimescale);
  if (!video.ok()) return video.status();
  Result<uint32_t> audio = recorder.addAac(audioRate == 44100 ? kAac44 : kAac48);
  if (!audio.ok()) return audio.status();
  return made;
}

Status writeAll(Recorder& recorder, const std::vector<Sample>& samples,
                const std::vector<uint8_t>& bytes) {
  for (const Sample& s : samples) {
    if (Status written = recorder.write(s.track, bytes.data(), s.size, s.time); !written.ok()) {
      return written;
    }
  }
  return {};
}

// Bytes the heap has handed out, mapped blocks included.
size_t heapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

size_t residentBytes() {
  long pages = 0, resident = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
  }
  return static_cast<size_t>(resident) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

struct Options {
  int part = 0;  // both
  double hours = 12;
  int runs = 3;
  std::string dir = "build/bench-data";
};

int perSample(const Options& options) {
  const std::vector<Sample> samples = makeSamples(options.hours * 3600, 44100, 24, 16);
  const std::vector<uint8_t> bytes = sampleBytes(samples);
  const auto count = static_cast<double>(samples.size());
  std::printf("write(): %.0f h, %zu samples (25 frames/s, video 24 to 47 bytes, key frames 192;"
              " AAC 44.1 kHz, 16 to 31 bytes) into a stream that keeps nothing\n",
              options.hours, samples.size());
  double best = 0, bestFinish = 0;
  for (int run = 0; run < options.runs; ++run) {
    // The last run's memory goes back to the system, so that this run's
    // pages are counted as they are touched.
    malloc_trim(0);
    DiscardStream sink;
    Result<std::unique_ptr<Recorder>> recorder =
        startRecording(Recorder::create(&sink), 44100);
    if (!recorder.ok()) {
      std::fprintf(stderr, "record_bench: %s\n", recorder.status().message().c_str());
      return 1;
    }
    const size_t heapBefore = heapInUse(), residentBefore = residentBytes();
    const auto start = Clock::now();
    const Status written = writeAll(**recorder, samples, bytes);
    const double ms = msSince(start);
    const size_t heap = heapInUse() - heapBefore;
    const size_t resident = residentBytes() - residentBefore;
    const long long beforeFinish = sink.getLength();
    const auto finishStart = Clock::now();
    const Status finished = written.ok() ? (*recorder)->finish() : written;
    const double finishMs = msSince(finishStart);
    if (!finished.ok()) {
      std::fprintf(stderr, "record_bench: %s\n", finished.message().c_str());
      return 1;
    }
    if (run == 0 || ms < best) best = ms;
    if (run == 0 || finishMs < bestFinish) bestFinish = finishMs;
    std::printf("  run %d: %.1f ms, %.1f ns a sample; heap +%.1f MiB (%.2f bytes a sample),"
                " resident +%.1f MiB (%.2f); finish %.1f ms, moov and the last fragment %.2f"
                " bytes a sample\n",
                run + 1, ms, ms * 1e6 / count, heap / 1048576.0, heap / count,
                resident / 1048576.0, resident / count, finishMs,
                static_cast<double>(sink.getLength() - beforeFinish) / count);
  }
  std::printf("  fastest: %.1f ns a sample (%.0f ms for %zu samples); finish %.1f ms\n",
              best * 1e6 / count, best, samples.size(), bestFinish);
  return 0;
}

const char* layoutName(RecorderOptions::Layout layout) {
  switch (layout) {
    case RecorderOptions::Layout::Hybrid: return "hybrid";
    case RecorderOptions::Layout::Plain: return "plain";
    case RecorderOptions::Layout::MoovFirst: return "moov-first";
  }
  return "";
}

int oneHour(const Options& options) {
  const std::vector<Sample> samples = makeSamples(3600, 48000, 2000, 200);
  const std::vector<uint8_t> bytes = sampleBytes(samples);
  const std::string path = options.dir + "/record-bench.mp4";
  std::printf("finish(): one hour, %zu samples (25 frames/s, video 2000 to 3999 bytes, key"
              " frames 16000; AAC 48 kHz, 200 to 399 bytes) into %s\n",
              samples.size(), path.c_str());
  for (auto layout : {RecorderOptions::Layout::Hybrid, RecorderOptions::Layout::Plain,
                      RecorderOptions::Layout::MoovFirst}) {
    RecorderOptions recorderOptions;
    recorderOptions.layout = layout;
    double best = 0, recordMs = 0;
    long long fileBytes = 0, media = 0;
    for (int run = 0; run < options.runs; ++run) {
      // A new file each time: ext4 writes a file that was cut to 0 bytes on
      // open (O_TRUNC) back to the disk as soon as it is closed.
      std::remove(path.c_str());
      Result<std::unique_ptr<Recorder>> recorder =
          startRecording(Recorder::create(path, recorderOptions), 48000);
      const auto start = Clock::now();
      Status status = recorder.ok() ? writeAll(**recorder, samples, bytes) : recorder.status();
      const double written = msSince(start);
      media = recorder.ok() ? static_cast<long long>((*recorder)->bytesWritten()) : 0;
      const auto finishStart = Clock::now();
      if (status.ok()) status = (*recorder)->finish();
      const double ms = msSince(finishStart);
      if (!status.ok()) {
        std::fprintf(stderr, "record_bench: %s\n", status.message().c_str());
        return 1;
      }
      if (run == 0 || ms < best) best = ms, recordMs = written;
      if (FILE* file = std::fopen(path.c_str(), "rb")) {
        std::fseek(file, 0, SEEK_END);
        fileBytes = std::ftell(file);
        std::fclose(file);
      }
    }
    std::printf("  %-10s finish %.1f ms (fastest of %d); writes before it %.0f ms; file %.1f MiB,"
                " %.2f bytes a sample after the last write\n",
                layoutName(layout), best, options.runs, recordMs, fileBytes / 1048576.0,
                static_cast<double>(fileBytes - media) / static_cast<double>(samples.size()));
  }
  std::remove(path.c_str());
  return 0;
}

bool parse(int argc, char** argv, Options* options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string arg = argv[i];
    char* end = nullptr;
    if (arg == "--part") {
      options->part = static_cast<int>(std::strtol(argv[i + 1], &end, 10));
      if (*end != '\0' || options->part < 1 || options->part > 2) return false;
    } else if (arg == "--hours") {
      options->hours = std::strtod(argv[i + 1], &end);
      if (*end != '\0' || !(options->hours > 0)) return false;
    } else if (arg == "--runs") {
      options->runs = static_cast<int>(std::strtol(argv[i + 1], &end, 10));
      if (*end != '\0' || options->runs < 1) return false;
    } else if (arg == "--dir") {
      options->dir = argv[i + 1];
    } else {
      return false;
    }
  }
  return argc % 2 == 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, &options)) {
    std::fprintf(stderr, "usage: record_bench [--part 1|2] [--hours H] [--runs N] [--dir DIR]\n");
    return 2;
  }
  if (options.part != 2) {
    if (int failed = perSample(options); failed != 0) return failed;
  }
  return options.part == 1 ? 0 : oneHour(options);
}
