// The recording, editing and lookup operations of the six tables, driven by
// the input: source tables hold whatever the input gives (unsorted, zeros,
// huge values), destination tables start empty and change only through
// addEntry, crop2new and merge, sometimes with themselves as the source.
// After every step: the box grew by exactly one record's width per record
// appended (4, not 8, for co64's crop2new), stsz's sample_count follows its
// entries, and every lookup gives what a plain walk over the table gives
// (0, its argument left alone, or a value of the table).
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include <mp4stbl/box/log.h>
#include <mp4stbl/stbl.h>

using namespace mp4stbl;

namespace {

constexpr size_t kMaxTable = 3000;  // keeps every operation fast

void check(bool ok) {
  if (!ok) __builtin_trap();
}

void quiet(const char*, int, const char*) {}

template <class Box>
struct Pair {  // a destination built by the operations, a source given by the input
  Box dst, src;
  // `body`: version, flags, count, and stsz's default size: an empty table.
  Pair(const char* type, uint32_t body) : dst(header(type, body)), src(header(type, body)) {}
  static AtomHeader header(const char* type, uint32_t body) {
    AtomHeader h;
    h.type = type;
    h.size = 8 + body;
    return h;
  }
  // Now and then the destination itself, while that cannot blow up.
  const Box* source(FuzzedDataProvider& in) {
    return in.ConsumeIntegralInRange(0, 7) == 0 && dst.entries.size() <= kMaxTable ? &dst : &src;
  }
};

template <class T>
T value(FuzzedDataProvider& in) {  // small numbers often, so that runs, ranges and offsets meet
  return in.ConsumeBool() ? in.ConsumeIntegralInRange<T>(0, 8) : in.ConsumeIntegral<T>();
}

template <class Box, class Op>
void grows(Box& box, uint32_t width, Op op) {
  const uint32_t size = box.header.size;
  const size_t count = box.entries.size();
  op();
  check(box.entries.size() >= count);
  check(box.header.size - size == width * (box.entries.size() - count));
}

// Entry `no` (1-based) of a table, or `none` when there is no such entry.
template <class T>
uint64_t entryOr(const std::vector<T>& entries, uint64_t no, uint64_t none) {
  return no >= 1 && no <= entries.size() ? uint64_t{entries[no - 1]} : none;
}

template <class T>
uint32_t firstAtOrAfter(const std::vector<T>& entries, uint64_t offset) {  // 0 for none
  for (size_t i = 0; i < entries.size(); ++i) {
    if (entries[i] >= offset) return static_cast<uint32_t>(i + 1);
  }
  return 0;
}

void lookups(FuzzedDataProvider& in, const SttsAtom& stts, const StszAtom& stsz,
             const StssAtom& stss, const StcoAtom& stco, const Co64Atom& co64) {
  uint64_t duration = 0, total = 0;
  for (const SttsEntry& run : stts.entries) {
    duration += static_cast<uint32_t>(run.sampleCount * run.sampleDelta);
  }
  for (uint32_t size : stsz.entries) total += size;
  check(stts.totalDuration() == duration && stsz.TotalSampleSize() == total);
  check(stsz.getCount() == static_cast<int32_t>(stsz.entries.size()));

  const uint32_t no = value<uint32_t>(in), end = value<uint32_t>(in);
  check(stsz.getSizeByNO(no) == entryOr(stsz.entries, no, 0));
  uint32_t sync = no;
  stss.getIFrameNumber(&sync);
  check(sync == entryOr(stss.entries, firstAtOrAfter(stss.entries, no), no));
  unsigned long long pos = 0xDEADBEEF;
  stco.getPosByNO(no, &pos);
  check(pos == entryOr(stco.entries, no, 0xDEADBEEF));
  co64.getPosByNO(no, &pos);
  check(pos == entryOr(co64.entries, no, 0));
  check(stco.getStartOffset() == entryOr(stco.entries, 1, 0));
  check(co64.getStartOffset() == entryOr(co64.entries, 1, 0));

  // getFramePos as a walk from chunk 1 that stops at endNo.
  unsigned long long startPos = in.ConsumeBool() ? 0 : value<uint32_t>(in), wantPos = startPos;
  uint32_t length = 0xDEADBEEF, wantLength = length, base = 0;
  stco.getFramePos(no, end, &startPos, &length);
  for (uint32_t n = 1; n <= stco.entries.size(); ++n) {
    if (n == no && wantPos == 0) wantPos = base = stco.entries[n - 1];
    if (n == end) {
      wantLength = stco.entries[n - 1] - base;
      break;
    }
  }
  check(startPos == wantPos && length == wantLength);

  // The first chunk at or after an offset; what a miss gives differs on purpose.
  const uint64_t offset = in.ConsumeBool() ? value<uint32_t>(in) : value<uint64_t>(in);
  const uint32_t s = firstAtOrAfter(stco.entries, offset), c = firstAtOrAfter(co64.entries, offset);
  const auto stcoCount = static_cast<uint32_t>(stco.entries.size());
  const auto co64Count = static_cast<uint32_t>(co64.entries.size());
  check(stco.getNextFrameNoByOffset(offset) == (s != 0 ? s : stcoCount));
  check(stco.getLastFrameNoByOffset(offset) == (s != 0 ? s - 1 : stcoCount));
  check(co64.getNextFrameNoByOffset(offset) == c);
  check(co64.getLastFrameNoByOffset(offset) == (c != 0 ? c - 1 : co64Count));
}

template <class Entry, class Make>
void fill(FuzzedDataProvider& in, std::vector<Entry>& entries, Make make) {
  const size_t count = in.ConsumeIntegralInRange<size_t>(0, kMaxTable);
  for (size_t i = 0; i < count && in.remaining_bytes() > 0; ++i) entries.push_back(make());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = (mp4stbl::setLogSink({&quiet, 0}), true);
  (void)silenced;
  FuzzedDataProvider in(data, size);
  Pair<SttsAtom> stts("stts", 8);
  Pair<StscAtom> stsc("stsc", 8);
  Pair<StszAtom> stsz("stsz", 12);
  Pair<StssAtom> stss("stss", 8);
  Pair<StcoAtom> stco("stco", 8);
  Pair<Co64Atom> co64("co64", 8);
  auto u32 = [&] { return value<uint32_t>(in); };
  fill(in, stts.src.entries, [&] { return SttsEntry{u32(), u32()}; });
  fill(in, stsc.src.entries, [&] { return StscEntry{u32(), u32(), u32()}; });
  fill(in, stsz.src.entries, u32);
  stsz.src.sample_count = static_cast<uint32_t>(stsz.src.entries.size());
  fill(in, stss.src.entries, u32);
  fill(in, stco.src.entries, u32);
  fill(in, co64.src.entries, [&] { return value<uint64_t>(in); });

  for (int step = 0; step < 48 && in.remaining_bytes() > 0; ++step) {
    const uint32_t a = u32(), b = u32(), c = u32();
    const uint64_t at = in.ConsumeBool() ? a : value<uint64_t>(in);
    switch (in.ConsumeIntegralInRange(0, 15)) {
      case 0: grows(stts.dst, 8, [&] { stts.dst.addEntry(a, b); }); break;
      case 1: grows(stts.dst, 8, [&] { stts.dst.merge(stts.source(in), a, b); }); break;
      case 2: grows(stsc.dst, 12, [&] { stsc.dst.addEntry(a, b, c); }); break;
      case 3: grows(stsc.dst, 12, [&] { stsc.dst.crop2new(stsc.source(in)); }); break;
      case 4: grows(stsc.dst, 12, [&] { stsc.dst.merge(stsc.source(in), a, b); }); break;
      case 5: grows(stsz.dst, 4, [&] { stsz.dst.addEntry(a); }); break;
      case 6: grows(stsz.dst, 4, [&] { stsz.dst.crop2new(stsz.source(in), a, b); }); break;
      case 7: grows(stsz.dst, 4, [&] { stsz.dst.merge(stsz.source(in), a, b); }); break;
      case 8: grows(stss.dst, 4, [&] { stss.dst.addEntry(a); }); break;
      case 9: grows(stss.dst, 4, [&] { stss.dst.crop2new(stss.source(in), a, b); }); break;
      case 10: grows(stss.dst, 4, [&] { stss.dst.merge(stss.source(in), a, b, c); }); break;
      case 11: grows(stco.dst, 4, [&] { stco.dst.addEntry(a); }); break;
      case 12: grows(stco.dst, 4, [&] { stco.dst.crop2new(stco.source(in), a, b, at); }); break;
      case 13: grows(stco.dst, 4, [&] { stco.dst.merge(stco.source(in), a, b, at); }); break;
      case 14: grows(co64.dst, 8, [&] { co64.dst.addEntry(at); }); break;
      default:
        if (in.ConsumeBool()) {
          grows(co64.dst, 4, [&] { co64.dst.crop2new(co64.source(in), a, b, at); });
        } else {
          grows(co64.dst, 8, [&] { co64.dst.merge(co64.source(in), a, b, at); });
        }
    }
    check(stsz.dst.sample_count == stsz.dst.entries.size());
    if (in.ConsumeBool()) lookups(in, stts.dst, stsz.dst, stss.dst, stco.dst, co64.dst);
  }
  lookups(in, stts.src, stsz.src, stss.src, stco.src, co64.src);
  return 0;
}
