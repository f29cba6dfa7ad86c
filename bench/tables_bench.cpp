// Micro-benchmarks of the sample tables: reading and writing their bodies,
// recording with addEntry, trimming and joining, and the lookups of seeking.
//
//   tables_bench [--benchmark_filter=REGEX] ...
//
// The default log handler stays installed: it drops tracing lines before
// they are formatted, as it does in a real program.
//
// The allocator's thresholds are fixed at start (glibc), so that no figure
// depends on which benchmarks ran before it: blocks up to 32 MiB are reused
// from the heap ("warm"), larger ones always come fresh from the kernel.
// The Cold variants of addEntry hand freed memory back to the kernel after
// every iteration, so that they also pay the page faults of first use.

#include <benchmark/benchmark.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <mp4stbl/box/atom.h>
#include <mp4stbl/box/file_stream.h>
#include <mp4stbl/box/stream.h>
#include <mp4stbl/stbl.h>

using namespace mp4stbl;

namespace {

using benchmark::Counter;
using benchmark::State;

constexpr int64_t kThousand = 1000;
constexpr int64_t kMillion = 1000 * kThousand;
constexpr int64_t kTenMillion = 10 * kMillion;

// ---- tables of a given length ----

// The fixed part of each body: version, flags, count (and stsz's default size).
template <class Box> constexpr unsigned kFrame = 8;
template <> constexpr unsigned kFrame<StszAtom> = 12;

template <class Box> const char* typeOf();
template <> const char* typeOf<SttsAtom>() { return "stts"; }
template <> const char* typeOf<StscAtom>() { return "stsc"; }
template <> const char* typeOf<StszAtom>() { return "stsz"; }
template <> const char* typeOf<StssAtom>() { return "stss"; }
template <> const char* typeOf<StcoAtom>() { return "stco"; }
template <> const char* typeOf<Co64Atom>() { return "co64"; }

// An empty table as a recorder creates it: the size covers header and frame.
template <class Box>
AtomHeader headerOf(uint64_t bodyBytes = kFrame<Box>) {
  AtomHeader header;
  header.type = typeOf<Box>();
  header.size = static_cast<uint32_t>(8 + bodyBytes);
  return header;
}

// Fills a table with n records of the shape a camera recording has; runs
// alternate so that nothing coalesces.
void fill(SttsAtom& t, size_t n) {
  t.entries.resize(n);
  for (size_t i = 0; i < n; ++i) t.entries[i] = {1, uint32_t(3000 + (i & 1))};
}
void fill(StscAtom& t, size_t n) {
  t.entries.resize(n);
  for (size_t i = 0; i < n; ++i) t.entries[i] = {uint32_t(i + 1), uint32_t(1 + (i & 1)), 1};
}
void fill(StszAtom& t, size_t n) {
  t.entries.resize(n);
  for (size_t i = 0; i < n; ++i) t.entries[i] = 16 + (i % 16);
  t.sample_count = static_cast<uint32_t>(n);
}
void fill(StssAtom& t, size_t n) {
  t.entries.resize(n);
  for (size_t i = 0; i < n; ++i) t.entries[i] = uint32_t(1 + 30 * i);
}
void fill(StcoAtom& t, size_t n) {
  t.entries.resize(n);
  for (size_t i = 0; i < n; ++i) t.entries[i] = uint32_t(48 + 24 * i);
}
void fill(Co64Atom& t, size_t n) {
  t.entries.resize(n);
  for (size_t i = 0; i < n; ++i) t.entries[i] = (uint64_t{1} << 32) + 24 * i;
}

template <class Box>
std::unique_ptr<Box> table(size_t n) {
  auto box = std::make_unique<Box>(headerOf<Box>());
  fill(*box, n);
  return box;
}

// The body bytes (what follows the box header) of a table of n records.
template <class Box>
std::vector<unsigned char> bodyOf(size_t n) {
  MemoryStream out;
  table<Box>(n)->writeData(&out);
  return out.data();
}

void setCounters(State& state, int64_t items, int64_t bytes) {
  state.SetItemsProcessed(state.iterations() * items);
  state.SetBytesProcessed(state.iterations() * bytes);
}

// ---- readData / writeData ----

template <class Box>
void BM_ReadData(State& state) {
  const auto n = static_cast<size_t>(state.range(0));
  MemoryStream in(bodyOf<Box>(n));
  const auto bytes = static_cast<uint64_t>(in.getLength());
  for (auto _ : state) {
    in.seek(0);
    Box box(headerOf<Box>(bytes));
    if (box.readData(&in) != 0) state.SkipWithError("readData failed");
    benchmark::DoNotOptimize(box.entries.data());
  }
  setCounters(state, static_cast<int64_t>(n), static_cast<int64_t>(bytes));
}

template <class Box>
void BM_WriteData(State& state) {
  const auto n = static_cast<size_t>(state.range(0));
  auto box = table<Box>(n);
  MemoryStream out;
  box->writeData(&out);  // sizes the stream: the timed passes overwrite it
  for (auto _ : state) {
    out.seek(0);
    if (box->writeData(&out) != 0) state.SkipWithError("writeData failed");
    benchmark::ClobberMemory();
  }
  setCounters(state, static_cast<int64_t>(n), out.getLength());
}

#define TABLE_SIZES Arg(kThousand)->Arg(kMillion)->Arg(kTenMillion)->Unit(benchmark::kMicrosecond)
BENCHMARK_TEMPLATE(BM_ReadData, SttsAtom)->TABLE_SIZES;
BENCHMARK_TEMPLATE(BM_ReadData, StscAtom)->TABLE_SIZES;
BENCHMARK_TEMPLATE(BM_ReadData, StszAtom)->TABLE_SIZES;
BENCHMARK_TEMPLATE(BM_ReadData, StssAtom)->TABLE_SIZES;
BENCHMARK_TEMPLATE(BM_ReadData, StcoAtom)->TABLE_SIZES;
BENCHMARK_TEMPLATE(BM_ReadData, Co64Atom)->TABLE_SIZES;
BENCHMARK_TEMPLATE(BM_WriteData, SttsAtom)->TABLE_SIZES;
BENCHMARK_TEMPLATE(BM_WriteData, StscAtom)->TABLE_SIZES;
BENCHMARK_TEMPLATE(BM_WriteData, StszAtom)->TABLE_SIZES;
BENCHMARK_TEMPLATE(BM_WriteData, StssAtom)->TABLE_SIZES;
BENCHMARK_TEMPLATE(BM_WriteData, StcoAtom)->TABLE_SIZES;
BENCHMARK_TEMPLATE(BM_WriteData, Co64Atom)->TABLE_SIZES;

// ---- addEntry: amortised cost per call on a fresh table ----

// Returns freed memory to the kernel, untimed.
void releaseMemory(State& state) {
  state.PauseTiming();
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
  state.ResumeTiming();
}

template <class Box, void (*Add)(Box&, uint32_t), bool Cold>
void addEntries(State& state) {
  const auto calls = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    {
      Box box(headerOf<Box>());
      for (uint32_t i = 0; i < calls; ++i) Add(box, i);
      benchmark::DoNotOptimize(box.entries.data());
      benchmark::ClobberMemory();
    }
    if (Cold) releaseMemory(state);
  }
  state.SetItemsProcessed(state.iterations() * calls);
  state.counters["per_call"] = Counter(calls, Counter::kIsIterationInvariantRate | Counter::kInvert);
}

template <class Box, void (*Add)(Box&, uint32_t)>
void BM_AddEntry(State& state) { addEntries<Box, Add, false>(state); }

template <class Box, void (*Add)(Box&, uint32_t)>
void BM_AddEntryCold(State& state) { addEntries<Box, Add, true>(state); }

// Constant frame rate: every call folds into the one run.
void sttsSameDelta(SttsAtom& t, uint32_t) { t.addEntry(1, 3000); }
// Alternating durations: every call opens a run.
void sttsNewRun(SttsAtom& t, uint32_t i) { t.addEntry(1, 3000 + (i & 1)); }
void stscSameGrouping(StscAtom& t, uint32_t i) { t.addEntry(i + 1, 30, 1); }
void stscNewRun(StscAtom& t, uint32_t i) { t.addEntry(i + 1, 1 + (i & 1), 1); }
void stszAdd(StszAtom& t, uint32_t i) { t.addEntry(16 + (i & 15)); }
void stssAdd(StssAtom& t, uint32_t i) { t.addEntry(1 + 30 * i); }
void stcoAdd(StcoAtom& t, uint32_t i) { t.addEntry(48 + 24 * i); }
void co64Add(Co64Atom& t, uint32_t i) { t.addEntry((uint64_t{1} << 32) + 24ull * i); }

#define ADD_CALLS Arg(1 << 20)->Unit(benchmark::kMicrosecond)
BENCHMARK_TEMPLATE(BM_AddEntry, SttsAtom, sttsSameDelta)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntry, SttsAtom, sttsNewRun)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntry, StscAtom, stscSameGrouping)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntry, StscAtom, stscNewRun)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntry, StszAtom, stszAdd)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntry, StssAtom, stssAdd)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntry, StcoAtom, stcoAdd)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntry, Co64Atom, co64Add)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntryCold, SttsAtom, sttsSameDelta)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntryCold, SttsAtom, sttsNewRun)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntryCold, StscAtom, stscSameGrouping)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntryCold, StscAtom, stscNewRun)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntryCold, StszAtom, stszAdd)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntryCold, StssAtom, stssAdd)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntryCold, StcoAtom, stcoAdd)->ADD_CALLS;
BENCHMARK_TEMPLATE(BM_AddEntryCold, Co64Atom, co64Add)->ADD_CALLS;

// ---- crop2new and merge of 10^6 records into a fresh table ----

template <class Box, void (*Copy)(Box&, const Box&, uint32_t)>
void BM_Copy(State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  const auto source = table<Box>(n);
  for (auto _ : state) {
    Box box(headerOf<Box>());
    Copy(box, *source, n);
    benchmark::DoNotOptimize(box.entries.data());
    benchmark::ClobberMemory();
  }
  setCounters(state, n, static_cast<int64_t>(n * sizeof(source->entries[0])));
}

void sttsMerge(SttsAtom& t, const SttsAtom& s, uint32_t n) { t.merge(&s, 1, n); }
void stscMerge(StscAtom& t, const StscAtom& s, uint32_t n) { t.merge(&s, 1, n); }
void stszCrop(StszAtom& t, const StszAtom& s, uint32_t n) { t.crop2new(&s, 1, n); }
void stszMerge(StszAtom& t, const StszAtom& s, uint32_t n) { t.merge(&s, 1, n); }
void stssCrop(StssAtom& t, const StssAtom& s, uint32_t n) { t.crop2new(&s, 1, 30 * n); }
void stssMerge(StssAtom& t, const StssAtom& s, uint32_t n) { t.merge(&s, 1, 30 * n, 1000); }
void stcoCrop(StcoAtom& t, const StcoAtom& s, uint32_t n) { t.crop2new(&s, 1, n, 4096); }
void stcoMerge(StcoAtom& t, const StcoAtom& s, uint32_t n) { t.merge(&s, 1, n, 4096); }
void co64Crop(Co64Atom& t, const Co64Atom& s, uint32_t n) { t.crop2new(&s, 1, n, 4096); }
void co64Merge(Co64Atom& t, const Co64Atom& s, uint32_t n) { t.merge(&s, 1, n, 4096); }

#define COPY_SIZE Arg(kMillion)->Unit(benchmark::kMicrosecond)
BENCHMARK_TEMPLATE(BM_Copy, SttsAtom, sttsMerge)->COPY_SIZE;
BENCHMARK_TEMPLATE(BM_Copy, StscAtom, stscMerge)->COPY_SIZE;
BENCHMARK_TEMPLATE(BM_Copy, StszAtom, stszCrop)->COPY_SIZE;
BENCHMARK_TEMPLATE(BM_Copy, StszAtom, stszMerge)->COPY_SIZE;
BENCHMARK_TEMPLATE(BM_Copy, StssAtom, stssCrop)->COPY_SIZE;
BENCHMARK_TEMPLATE(BM_Copy, StssAtom, stssMerge)->COPY_SIZE;
BENCHMARK_TEMPLATE(BM_Copy, StcoAtom, stcoCrop)->COPY_SIZE;
BENCHMARK_TEMPLATE(BM_Copy, StcoAtom, stcoMerge)->COPY_SIZE;
BENCHMARK_TEMPLATE(BM_Copy, Co64Atom, co64Crop)->COPY_SIZE;
BENCHMARK_TEMPLATE(BM_Copy, Co64Atom, co64Merge)->COPY_SIZE;

// The same bytes with std::memcpy into a fresh buffer (what a table copy
// must at least do: allocate and copy) and into a warm one.
void BM_MemcpyFresh(State& state) {
  const auto bytes = static_cast<size_t>(state.range(0));
  const std::vector<unsigned char> from(bytes, 1);
  for (auto _ : state) {
    std::unique_ptr<unsigned char[]> to(new unsigned char[bytes]);
    std::memcpy(to.get(), from.data(), bytes);
    benchmark::DoNotOptimize(to.get());
    benchmark::ClobberMemory();
  }
  setCounters(state, 1, static_cast<int64_t>(bytes));
}

void BM_MemcpyWarm(State& state) {
  const auto bytes = static_cast<size_t>(state.range(0));
  const std::vector<unsigned char> from(bytes, 1);
  std::vector<unsigned char> to(bytes);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), bytes);
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  setCounters(state, 1, static_cast<int64_t>(bytes));
}

// 10^6 records of 4 (stsz, stss, stco), 8 (stts, co64) and 12 (stsc) bytes.
BENCHMARK(BM_MemcpyFresh)->Arg(4 * kMillion)->Arg(8 * kMillion)->Arg(12 * kMillion)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MemcpyWarm)->Arg(4 * kMillion)->Arg(8 * kMillion)->Arg(12 * kMillion)->Unit(benchmark::kMicrosecond);

// ---- lookups ----

// The size and position of the last record: should not depend on the length.
void BM_GetSizeByNO(State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  const auto t = table<StszAtom>(n);
  for (auto _ : state) benchmark::DoNotOptimize(t->getSizeByNO(n));
}

template <class Box>
void BM_GetPosByNO(State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  const auto t = table<Box>(n);
  unsigned long long pos = 0;
  for (auto _ : state) {
    t->getPosByNO(n, &pos);
    benchmark::DoNotOptimize(pos);
  }
}

#define LOOKUP_SIZES Arg(kThousand)->Arg(kMillion)->Arg(kTenMillion)
BENCHMARK(BM_GetSizeByNO)->LOOKUP_SIZES;
BENCHMARK_TEMPLATE(BM_GetPosByNO, StcoAtom)->LOOKUP_SIZES;
BENCHMARK_TEMPLATE(BM_GetPosByNO, Co64Atom)->LOOKUP_SIZES;

// Searches that walk the table: asked for the last record, they cross all of it.
template <class Box>
void BM_GetNextFrameNoByOffset(State& state) {
  const auto n = static_cast<size_t>(state.range(0));
  const auto t = table<Box>(n);
  const uint64_t last = t->entries.back();
  for (auto _ : state) benchmark::DoNotOptimize(t->getNextFrameNoByOffset(last));
  setCounters(state, static_cast<int64_t>(n), static_cast<int64_t>(n * sizeof(t->entries[0])));
}

void BM_GetIFrameNumber(State& state) {
  const auto n = static_cast<size_t>(state.range(0));
  const auto t = table<StssAtom>(n);
  for (auto _ : state) {
    uint32_t no = t->entries.back();
    t->getIFrameNumber(&no);
    benchmark::DoNotOptimize(no);
  }
  setCounters(state, static_cast<int64_t>(n), static_cast<int64_t>(n * 4));
}

void BM_TotalDuration(State& state) {
  const auto n = static_cast<size_t>(state.range(0));
  const auto t = table<SttsAtom>(n);
  for (auto _ : state) benchmark::DoNotOptimize(t->totalDuration());
  setCounters(state, static_cast<int64_t>(n), static_cast<int64_t>(n * 8));
}

void BM_TotalSampleSize(State& state) {
  const auto n = static_cast<size_t>(state.range(0));
  const auto t = table<StszAtom>(n);
  for (auto _ : state) benchmark::DoNotOptimize(t->TotalSampleSize());
  setCounters(state, static_cast<int64_t>(n), static_cast<int64_t>(n * 4));
}

#define SCAN_SIZES Arg(kThousand)->Arg(kMillion)->Unit(benchmark::kMicrosecond)
BENCHMARK_TEMPLATE(BM_GetNextFrameNoByOffset, StcoAtom)->SCAN_SIZES;
BENCHMARK_TEMPLATE(BM_GetNextFrameNoByOffset, Co64Atom)->SCAN_SIZES;
BENCHMARK(BM_GetIFrameNumber)->SCAN_SIZES;
BENCHMARK(BM_TotalDuration)->SCAN_SIZES;
BENCHMARK(BM_TotalSampleSize)->SCAN_SIZES;

// ---- writing the tables of a 10^7-sample recording to a file ----

// One video track, one sample per chunk, a key frame every 30 samples.
struct Recording {
  SttsAtom stts{headerOf<SttsAtom>()};
  StscAtom stsc{headerOf<StscAtom>()};
  StszAtom stsz{headerOf<StszAtom>()};
  StssAtom stss{headerOf<StssAtom>()};
  StcoAtom stco{headerOf<StcoAtom>()};

  explicit Recording(uint32_t samples) {
    stts.entries = {{samples, 3000}};
    stsc.entries = {{1, 1, 1}};
    fill(stsz, samples);
    fill(stss, (samples + 29) / 30);
    fill(stco, samples);
  }
  std::vector<Atom*> boxes() { return {&stts, &stsc, &stsz, &stss, &stco}; }
};

// In memory where possible (tmpfs), so that the disk does not blur the figures.
std::string scratchFile() {
  const std::filesystem::path shm = "/dev/shm";
  std::error_code error;
  const auto dir = std::filesystem::is_directory(shm, error) ? shm : std::filesystem::temp_directory_path();
  return (dir / "mp4stbl-bench-tables.tmp").string();
}

// The library: each box written with Atom::Write to a FileStream.
void BM_WriteTablesToFile(State& state) {
  Recording recording(static_cast<uint32_t>(state.range(0)));
  const std::string path = scratchFile();
  long long written = 0;
  for (auto _ : state) {
    FileStream out;
    bool ok = out.open(path, FileStream::Mode::Write) == 0;
    for (Atom* box : recording.boxes()) ok = ok && box->Write(&out) == 0;
    written = out.getOffset();
    if (out.close() != 0 || !ok) state.SkipWithError("write failed");
  }
  std::remove(path.c_str());
  state.SetBytesProcessed(state.iterations() * written);
}

// The floor: the same bytes, already big-endian, one fwrite per table.
void BM_FwriteTablesToFile(State& state) {
  Recording recording(static_cast<uint32_t>(state.range(0)));
  std::vector<std::vector<unsigned char>> images;
  long long written = 0;
  for (Atom* box : recording.boxes()) {
    MemoryStream image;
    box->Write(&image);
    images.push_back(image.data());
    written += image.getLength();
  }
  const std::string path = scratchFile();
  for (auto _ : state) {
    std::FILE* out = std::fopen(path.c_str(), "wb");
    bool ok = out != nullptr;
    for (const auto& image : images) {
      ok = ok && std::fwrite(image.data(), 1, image.size(), out) == image.size();
    }
    if (out == nullptr || std::fclose(out) != 0 || !ok) state.SkipWithError("fwrite failed");
  }
  std::remove(path.c_str());
  state.SetBytesProcessed(state.iterations() * written);
}

#define FILE_WRITE Arg(kTenMillion)->MinTime(2)->UseRealTime()->Unit(benchmark::kMillisecond)
BENCHMARK(BM_WriteTablesToFile)->FILE_WRITE;
BENCHMARK(BM_FwriteTablesToFile)->FILE_WRITE;

}  // namespace

int main(int argc, char** argv) {
#if defined(__GLIBC__)
  mallopt(M_MMAP_THRESHOLD, 32 << 20);  // the largest glibc accepts
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
#endif
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
