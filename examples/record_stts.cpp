// Records the time-to-sample table of a short clip sample by sample, writes
// the box to a file, reads it back and prints its runs and its duration.
//
//   record_stts [OUTPUT]      (default: stts.box)

#include <cstdio>
#include <string>

#include <mp4stbl/box/atom.h>
#include <mp4stbl/box/file_stream.h>
#include <mp4stbl/stbl.h>

namespace {

constexpr uint32_t kTimescale = 90000;

AtomHeader sttsHeader() {
  AtomHeader header;
  header.type = "stts";
  header.size = 16;  // box header, version, flags and count, before any run
  return header;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string path = argc > 1 ? argv[1] : "stts.box";

  // Two seconds at 30 fps, then two at 25 fps, then a short last frame.
  SttsAtom recorded(sttsHeader());
  for (int i = 0; i < 60; ++i) recorded.addEntry(1, kTimescale / 30);
  for (int i = 0; i < 50; ++i) recorded.addEntry(1, kTimescale / 25);
  recorded.addEntry(1, 1000);

  {
    mp4stbl::FileStream out;
    if (out.open(path, mp4stbl::FileStream::Mode::Write) != 0 || recorded.Write(&out) != 0 ||
        out.close() != 0) {
      std::fprintf(stderr, "record_stts: cannot write %s\n", path.c_str());
      return 1;
    }
  }

  mp4stbl::FileStream in;
  SttsAtom readBack(sttsHeader());
  if (in.open(path, mp4stbl::FileStream::Mode::Read) != 0 || readBack.Read(&in) != 0) {
    std::fprintf(stderr, "record_stts: cannot read %s back\n", path.c_str());
    return 1;
  }

  std::printf("%s: %s box of %lld bytes, %zu runs\n", path.c_str(), readBack.header.type.c_str(),
              in.getLength(), readBack.entries.size());
  std::printf("%8s %12s %14s\n", "samples", "delta", "run duration");
  for (const SttsEntry& run : readBack.entries) {
    std::printf("%8u %12u %14llu\n", run.sampleCount, run.sampleDelta,
                static_cast<unsigned long long>(run.sampleCount) * run.sampleDelta);
  }
  const uint64_t total = readBack.totalDuration();
  std::printf("total duration: %llu units at %u Hz = %.3f s\n",
              static_cast<unsigned long long>(total), kTimescale,
              static_cast<double>(total) / kTimescale);
  return 0;
}
