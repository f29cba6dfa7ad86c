#include "stbl.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "box/byte_order.h"
#include "box/log.h"
#include "box/bounded_fill.h"
#include "box/memory_hints.h"
#include "box/wide_clones.h"

namespace mp4stbl {

namespace {

// ---- The table frame shared by every sample table ----

// Loads byteCount bytes of table into a fresh malloc'd buffer owned by the
// caller and converts its words to host order ("co64" holds 64-bit words,
// every other table 32-bit ones).
int ReadTableFromStream(IOStream* stream, unsigned char** out, uint32_t byteCount,
                        const std::string& type) {
  if (stream == nullptr || out == nullptr) {
    QX_LOG_NULL_PARAM("ReadTableFromStream");
    return -1;
  }
  if (byteCount == 0) {
    QX_LOG_Printf("MP4", 3, "malloc %u bytes for building %s failed\n", byteCount, type.c_str());
    return -1;
  }
  // A stream that cannot hold the table is refused before anything is
  // allocated, so a tiny hostile file never costs gigabytes.
  const long long length = stream->getLength();
  if (length >= 0 && length - stream->getOffset() < static_cast<long long>(byteCount)) {
    QX_LOG_Printf("MP4", 3, "read %u bytes to %s buf failed\n", byteCount, type.c_str());
    return -1;
  }
  *out = static_cast<unsigned char*>(std::malloc(byteCount));
  if (*out == nullptr) {
    QX_LOG_Printf("MP4", 3, "malloc %u bytes for building %s failed\n", byteCount, type.c_str());
    return -1;
  }
  adviseHugePages(*out, byteCount);
  const char* failure = nullptr;
  if (memset_s(*out, byteCount, 0, byteCount) != 0) {
    failure = "memset %u bytes for building %s failed\n";
  } else if (static_cast<uint32_t>(stream->readBytes(*out, byteCount)) != byteCount) {
    failure = "read %u bytes to %s buf failed\n";
  }
  if (failure != nullptr) {
    QX_LOG_Printf("MP4", 3, failure, byteCount, type.c_str());
    std::free(*out);
    *out = nullptr;
    return -1;
  }
  if (type == "co64") {
    stream->swapArrayOfBe64(reinterpret_cast<unsigned long long*>(*out), byteCount / 8);
  } else {
    stream->swapArrayOfBe32(reinterpret_cast<uint32_t*>(*out), byteCount / 4);
  }
  return 0;
}

// The fields of one record in file order. Reading and writing both walk
// this list, so the two cannot disagree on the layout.
constexpr std::array<uint32_t SttsEntry::*, 2> membersOf(const SttsEntry*) {
  return {&SttsEntry::sampleCount, &SttsEntry::sampleDelta};
}

constexpr std::array<uint32_t StscEntry::*, 3> membersOf(const StscEntry*) {
  return {&StscEntry::firstChunk, &StscEntry::samplesPerChunk,
          &StscEntry::sampleDescriptionIndex};
}

// A record of 32-bit fields, listed by membersOf.
template <class Entry>
struct Record {
  using Word = uint32_t;
  static constexpr auto kMembers = membersOf(static_cast<const Entry*>(nullptr));
  static constexpr unsigned kFields = kMembers.size();
  template <class E>
  static auto& field(E& entry, unsigned i) { return entry.*kMembers[i]; }
};

// A record that is a single number; Word is the type the stream converts.
template <class StreamWord>
struct NumberRecord {
  using Word = StreamWord;
  static constexpr unsigned kFields = 1;
  template <class E>
  static E& field(E& entry, unsigned) { return entry; }
};

template <>
struct Record<uint32_t> : NumberRecord<uint32_t> {};

template <>
struct Record<uint64_t> : NumberRecord<unsigned long long> {};

template <class Entry>
constexpr unsigned widthOf() {
  return Record<Entry>::kFields * sizeof(typename Record<Entry>::Word);
}

// What sets one table apart inside the shared frame.
struct TableKind {
  const char* type;
  unsigned width;
  // "stts" alone admits a count equal to the guard's quotient, and alone
  // logs its refusal; the other tables refuse equality silently.
  bool admitsQuotient;
};

constexpr TableKind kStts{"stts", widthOf<SttsEntry>(), true};
constexpr TableKind kStsc{"stsc", widthOf<StscEntry>(), false};
constexpr TableKind kStsz{"stsz", widthOf<uint32_t>(), false};
constexpr TableKind kStss{"stss", widthOf<uint32_t>(), false};
constexpr TableKind kStco{"stco", widthOf<uint32_t>(), false};
constexpr TableKind kCo64{"co64", widthOf<uint64_t>(), false};

int readVersionFlags(IOStream* stream, uint8_t* version, uint32_t* flags) {
  if (stream->readByte(version) != 1) {
    logStreamFailure(stream, "readByte");
    return -1;
  }
  if (stream->readBe24(flags) != 3) {
    logStreamFailure(stream, "readBe24");
    return -1;
  }
  return 0;
}

int readWord(IOStream* stream, uint32_t* value) {
  if (stream->readBe32(value) != 4) {
    logStreamFailure(stream, "readBe32");
    return -1;
  }
  return 0;
}

// Reads the entry count and applies the table's guard, which keeps
// count × width plus the box's size within 32 bits. Returns 1 when entries
// follow, 0 for an empty table (a notice, not a failure), -1 on failure.
int readCount(const Atom& box, IOStream* stream, const TableKind& kind, uint32_t* count) {
  if (readWord(stream, count) != 0) return -1;
  if (*count == 0) {
    QX_LOG_Printf("MP4", 1, "no entry in %s\n", kind.type);
    return 0;
  }
  const uint32_t quotient = (0xFFFFFFFFu - box.header.size) / kind.width;
  const bool fits = kind.admitsQuotient ? *count <= quotient : *count < quotient;
  if (!fits) {
    if (kind.admitsQuotient) QX_LOG_Printf("MP4", 3, "%s entry count err\n", kind.type);
    return -1;
  }
  return 1;
}

// Makes room for `extra` more entries at once; growth stays geometric so
// that repeated appends remain amortised constant time.
template <class T>
void reserveMore(std::vector<T>& entries, size_t extra) {
  if (extra > entries.max_size() - entries.size()) throw std::length_error("sample table too long");
  const size_t needed = entries.size() + extra;
  if (needed > entries.capacity()) {
    entries.reserve(std::max(needed, entries.size() * 2));
    adviseHugePages(entries.data(), entries.capacity() * sizeof(T));
  }
}

// The append rule: a record in place, then the box grows by `width`. The
// record comes by value so that it stays in registers.
template <class T>
void appendEntry(Atom& box, std::vector<T>& entries, T entry, unsigned width) {
  entries.emplace_back() = entry;  // assigned field by field, not copied through memory
  box.IncreaseSize(width);
}

// The same growth for `count` records appended at once.
void growBy(Atom& box, unsigned width, size_t count) {
  constexpr size_t kStep = size_t{1} << 26;  // keeps one step within 32 bits
  for (; count > kStep; count -= kStep) box.IncreaseSize(static_cast<unsigned>(kStep * width));
  box.IncreaseSize(static_cast<unsigned>(count * width));
}

// Reads count records with one stream read and appends them in file order.
template <class Entry>
int loadEntries(IOStream* stream, std::vector<Entry>& entries, uint32_t count,
                const TableKind& kind) {
  using R = Record<Entry>;
  unsigned char* raw = nullptr;
  // The guard keeps count × width within 32 bits.
  if (ReadTableFromStream(stream, &raw, count * kind.width, kind.type) != 0) return -1;
  std::unique_ptr<unsigned char, decltype(&std::free)> owner(raw, &std::free);
  const auto* words = reinterpret_cast<const typename R::Word*>(raw);
  reserveMore(entries, count);
  if constexpr (R::kFields == 1) {
    entries.insert(entries.end(), words, words + count);
  } else {
    const size_t first = entries.size();
    entries.resize(first + count);
    for (uint32_t i = 0; i < count; ++i) {
      for (unsigned f = 0; f < R::kFields; ++f) {
        R::field(entries[first + i], f) = words[size_t{i} * R::kFields + f];
      }
    }
  }
  return 0;
}

// The body every table shares: version, flags, the fields in `leading`
// (only "stsz" has one), the count, the records. `keptCount`, where given,
// receives the count once it has passed the guard.
template <class Entry>
int readTable(Atom& box, IOStream* stream, uint8_t* version, uint32_t* flags,
              std::vector<Entry>& entries, const TableKind& kind,
              std::initializer_list<uint32_t*> leading = {}, uint32_t* keptCount = nullptr) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("readData");
    return -1;
  }
  if (readVersionFlags(stream, version, flags) != 0) return -1;
  for (uint32_t* field : leading) {
    if (readWord(stream, field) != 0) return -1;
  }
  uint32_t count = 0;
  const int found = readCount(box, stream, kind, &count);
  if (found <= 0) return found;
  if (keptCount != nullptr) *keptCount = count;
  return loadEntries(stream, entries, count, kind);
}

int writeVersionFlags(IOStream* stream, uint8_t version, uint32_t flags) {
  if (stream->writeByte(version) != 1) {
    logStreamFailure(stream, "writeByte");
    return -1;
  }
  if (stream->writeBe24(flags) != 3) {
    logStreamFailure(stream, "writeBe24");
    return -1;
  }
  return 0;
}

int writeField(IOStream* stream, uint32_t value) {
  if (stream->writeBe32(value) != 4) {
    logStreamFailure(stream, "writeBe32");
    return -1;
  }
  return 0;
}

// Writes the records big-endian in blocks, one stream call per block, with
// the outcome of one call per field: the stream stops where it refused, and
// that refusal is reported at the offset it reached, as the write of that
// field would be. Nothing is retried.
template <class Entry>
int writeEntries(IOStream* stream, const std::vector<Entry>& entries) {
  using R = Record<Entry>;
  using Word = typename R::Word;
  // Large blocks: a file stream hands big writes straight to the system.
  constexpr size_t kBlockEntries = (size_t{1} << 18) / widthOf<Entry>();
  constexpr unsigned kWidth = widthOf<Entry>();
  std::vector<unsigned char> storage(std::min(kBlockEntries, entries.size()) * kWidth);
  unsigned char* const block = storage.data();
  for (size_t first = 0; first < entries.size(); first += kBlockEntries) {
    const size_t count = std::min(kBlockEntries, entries.size() - first);
    unsigned char* out = block;
    for (size_t i = first; i < first + count; ++i) {
      for (unsigned f = 0; f < R::kFields; ++f, out += sizeof(Word)) {
        byte_order::store<Word>(out, R::field(entries[i], f));
      }
    }
    const unsigned bytes = static_cast<unsigned>(count * kWidth);
    const int put = stream->writeBytes(block, bytes);
    if (static_cast<unsigned>(put) != bytes) {
      logStreamFailure(stream, sizeof(Word) == 8 ? "writeBe64" : "writeBe32");
      return -1;
    }
  }
  return 0;
}

// The mirror of readTable: version, flags, the words of `leading`, the
// count (`keptCount` where given, else the number of records held) and the
// records.
template <class Entry>
int writeTable(IOStream* stream, uint8_t version, uint32_t flags,
               const std::vector<Entry>& entries, std::initializer_list<uint32_t> leading = {},
               const uint32_t* keptCount = nullptr) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("writeData");
    return -1;
  }
  if (entries.size() > UINT32_MAX) {
    QX_LOG_Printf("MP4", 3, "%zu entries do not fit a 32-bit count\n", entries.size());
    return -1;
  }
  if (writeVersionFlags(stream, version, flags) != 0) return -1;
  for (uint32_t word : leading) {
    if (writeField(stream, word) != 0) return -1;
  }
  const uint32_t count = keptCount != nullptr ? *keptCount : static_cast<uint32_t>(entries.size());
  if (writeField(stream, count) != 0) return -1;
  return writeEntries(stream, entries);
}

// What a dump shows of a table: version, flags, the count and the first
// records, each as its fields in file order.
template <class Entry>
void describeTable(FieldSink& sink, uint8_t version, uint32_t flags,
                   const std::vector<Entry>& entries) {
  using R = Record<Entry>;
  sink.field("version", version);
  sink.field("flags", flags);
  const size_t shown = std::min(entries.size(), sink.table(entries.size()));
  for (size_t i = 0; i < shown; ++i) {
    uint64_t values[R::kFields];
    for (unsigned f = 0; f < R::kFields; ++f) values[f] = R::field(entries[i], f);
    sink.row(values, R::kFields);
  }
}

// The 0-based index range [begin, end) that the 1-based inclusive range
// first..last covers in a table of `count` records; first 0 counts as 1.
struct IndexRange {
  size_t begin;
  size_t end;
  size_t size() const { return end - begin; }
};

IndexRange clampRange(uint32_t first, uint32_t last, size_t count) {
  const size_t begin = first == 0 ? 0 : first - 1;
  const size_t end = std::min<size_t>(last, count);
  return begin < end ? IndexRange{begin, end} : IndexRange{0, 0};
}

// Appends from[range] to `to` in one copy; `from` may be `to` itself.
template <class T>
void appendRange(std::vector<T>& to, const std::vector<T>& from, IndexRange range) {
  const auto first = from.begin() + static_cast<std::ptrdiff_t>(range.begin);
  const auto last = from.begin() + static_cast<std::ptrdiff_t>(range.end);
  if (&to == &from) {
    const std::vector<T> copy(first, last);
    to.insert(to.end(), copy.begin(), copy.end());
    return;
  }
  reserveMore(to, range.size());
  to.insert(to.end(), first, last);
}

// A source range read as the values it takes in the new table, so that
// `insert` writes each record once (`resize` would clear it first).
template <class In, class Out>
class Shifted {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = Out;
  using difference_type = std::ptrdiff_t;
  using pointer = const Out*;
  using reference = Out;

  Shifted(const In* at, uint64_t shift) : at_(at), shift_(shift) {}
  // Wraps on purpose, at the width of Out.
  Out operator*() const { return static_cast<Out>(shift_ + *at_); }
  Shifted& operator++() {
    ++at_;
    return *this;
  }
  Shifted operator++(int) {
    Shifted was = *this;
    ++at_;
    return was;
  }
  bool operator==(const Shifted& other) const { return at_ == other.at_; }
  bool operator!=(const Shifted& other) const { return at_ != other.at_; }

 private:
  const In* at_;
  uint64_t shift_;
};

// Appends from[range], each record plus `shift`; `from` may be `to` itself.
template <class T>
void appendShifted(std::vector<T>& to, const std::vector<T>& from, IndexRange range,
                   uint64_t shift) {
  reserveMore(to, range.size());  // first, so that `from` stays put while it is read
  const T* first = from.data() + range.begin;
  to.insert(to.end(), Shifted<T, T>(first, shift), Shifted<T, T>(first + range.size(), shift));
}

struct Bounds {
  uint32_t low;
  uint32_t high;
};

// The smallest and largest of `count` (at least 1) records, in one pass,
// kept in two plain variables: GCC packs a struct of two into one vector
// and leaves the loop scalar.
MP4STBL_WIDE_CLONES Bounds bounds32(const uint32_t* first, size_t count) {
  uint32_t low = first[0];
  uint32_t high = first[0];
  for (size_t i = 1; i < count; ++i) {
    low = std::min(low, first[i]);
    high = std::max(high, first[i]);
  }
  return {low, high};
}

// How many of `count` offsets are 0, in one pass (64-bit minima do not
// vectorise before AVX-512; this does).
MP4STBL_WIDE_CLONES size_t zeros64(const uint64_t* first, size_t count) {
  size_t found = 0;
  for (size_t i = 0; i < count; ++i) found += first[i] == 0;
  return found;
}

// How many numbers are smaller than the one before them: 0 for an
// ascending table. Branch-free, so that it vectorises.
MP4STBL_WIDE_CLONES size_t descents(const uint32_t* numbers, size_t count) {
  size_t found = 0;
  for (size_t i = 1; i < count; ++i) found += numbers[i] < numbers[i - 1];
  return found;
}

// Appends runs of a run-length table as addEntry would one by one: a record
// that `continues` the last run is folded into it by `fold`, any other is
// appended. Past the first, a record can only continue its predecessor in
// the source, so the stretches between such records are copied whole.
template <class Entry, class Continues, class Fold>
void appendRuns(Atom& box, std::vector<Entry>& entries, const std::vector<Entry>& source,
                IndexRange range, unsigned width, Continues continues, Fold fold) {
  for (size_t i = range.begin; i < range.end;) {
    if (!entries.empty() && continues(entries.back(), source[i])) {
      fold(entries.back(), source[i++]);
      continue;
    }
    size_t stretch = i + 1;
    while (stretch < range.end && !continues(source[stretch - 1], source[stretch])) ++stretch;
    appendRange(entries, source, IndexRange{i, stretch});
    growBy(box, width, stretch - i);
    i = stretch;
  }
}

// The folding rules of the two run tables, as function objects so that the
// bulk walk inlines them.
constexpr auto sameDelta = [](const SttsEntry& run, const SttsEntry& next) {
  return run.sampleDelta == next.sampleDelta;
};
constexpr auto addCount = [](SttsEntry& run, const SttsEntry& next) {
  run.sampleCount += next.sampleCount;  // wraps at 32 bits, as the field does
};
constexpr auto sameGrouping = [](const StscEntry& run, const StscEntry& next) {
  return run.samplesPerChunk == next.samplesPerChunk &&
         run.sampleDescriptionIndex == next.sampleDescriptionIndex;
};
constexpr auto keepRun = [](StscEntry&, const StscEntry&) {};

}  // namespace

// ---- stts ----

SttsAtom::SttsAtom(const AtomHeader& from) : Atom(from) {}

SttsAtom::~SttsAtom() = default;

int SttsAtom::readData(IOStream* stream) {
  return readTable(*this, stream, &version, &flags, entries, kStts);
}

int SttsAtom::writeData(IOStream* stream) { return writeTable(stream, version, flags, entries); }

void SttsAtom::describe(FieldSink& sink) const {
  describeTable(sink, version, flags, entries);
}

void SttsAtom::addEntry(uint32_t sampleCount, uint32_t sampleDelta) {
  const SttsEntry run{sampleCount, sampleDelta};
  if (!entries.empty() && sameDelta(entries.back(), run)) {
    addCount(entries.back(), run);
  } else {
    appendEntry(*this, entries, run, kStts.width);
  }
}

void SttsAtom::merge(const SttsAtom* source, uint32_t first, uint32_t last) {
  if (source == nullptr) {
    QX_LOG_NULL_PARAM("merge");
    return;
  }
  appendRuns(*this, entries, source->entries, clampRange(first, last, source->entries.size()),
             kStts.width, sameDelta, addCount);
}

uint64_t SttsAtom::totalDuration() const {
  uint64_t total = 0;
  for (const SttsEntry& run : entries) {
    // Deliberate: each run's product is kept to its low 32 bits before it is
    // summed, so a run of 2^32 units or more counts modulo 2^32.
    total += static_cast<uint32_t>(run.sampleCount * run.sampleDelta);
  }
  return total;
}

// ---- stsc ----

StscAtom::StscAtom(const AtomHeader& from) : Atom(from) {}

StscAtom::~StscAtom() = default;

int StscAtom::readData(IOStream* stream) {
  return readTable(*this, stream, &version, &flags, entries, kStsc);
}

int StscAtom::writeData(IOStream* stream) { return writeTable(stream, version, flags, entries); }

void StscAtom::describe(FieldSink& sink) const {
  describeTable(sink, version, flags, entries);
}

void StscAtom::addEntry(uint32_t firstChunk, uint32_t samplesPerChunk,
                        uint32_t sampleDescriptionIndex) {
  const StscEntry run{firstChunk, samplesPerChunk, sampleDescriptionIndex};
  // The same grouping simply continues the last run.
  if (entries.empty() || !sameGrouping(entries.back(), run)) {
    appendEntry(*this, entries, run, kStsc.width);
  }
}

void StscAtom::crop2new(const StscAtom*) { appendEntry(*this, entries, entry, kStsc.width); }

void StscAtom::merge(const StscAtom* source, uint32_t first, uint32_t last) {
  if (source == nullptr) {
    QX_LOG_NULL_PARAM("merge");
    return;
  }
  appendRuns(*this, entries, source->entries, clampRange(first, last, source->entries.size()),
             kStsc.width, sameGrouping, keepRun);
}

// ---- stsz ----

StszAtom::StszAtom(const AtomHeader& from) : Atom(from) {}

StszAtom::~StszAtom() = default;

int StszAtom::readData(IOStream* stream) {
  return readTable(*this, stream, &version, &flags, entries, kStsz, {&sample_size}, &sample_count);
}

int StszAtom::writeData(IOStream* stream) {
  return writeTable(stream, version, flags, entries, {sample_size}, &sample_count);
}

void StszAtom::describe(FieldSink& sink) const {
  sink.field("sample_size", sample_size);
  sink.field("sample_count", sample_count);
  describeTable(sink, version, flags, entries);
}

void StszAtom::addEntry(uint32_t size) {
  appendEntry(*this, entries, size, kStsz.width);
  ++sample_count;
}

namespace {

// Appends the sizes of source samples start..end to `table`.
void copySizes(StszAtom& table, const StszAtom* source, uint32_t start, uint32_t end,
               const char* operation, bool trace) {
  if (source == nullptr) {
    QX_LOG_NULL_PARAM(operation);
    return;
  }
  const IndexRange range = clampRange(start, end, source->entries.size());
  if (trace && logEnabled(0)) {
    for (size_t i = range.begin; i < range.end; ++i) {
      QX_LOG_Printf("MP4", 0, "stsz %u\n", source->entries[i]);
    }
  }
  appendRange(table.entries, source->entries, range);
  table.sample_count += static_cast<uint32_t>(range.size());  // wraps as one-by-one would
  growBy(table, kStsz.width, range.size());
}

}  // namespace

void StszAtom::crop2new(const StszAtom* source, uint32_t start, uint32_t end) {
  copySizes(*this, source, start, end, "crop2new", true);
}

void StszAtom::merge(const StszAtom* source, uint32_t start, uint32_t end) {
  copySizes(*this, source, start, end, "merge", false);
}

int32_t StszAtom::getCount() const { return static_cast<int32_t>(entries.size()); }

uint32_t StszAtom::getSizeByNO(uint32_t no) const {
  if (no == 0 || no > entries.size()) return 0;
  const uint32_t size = entries[no - 1];
  QX_LOG_Printf("MP4", 0, "frame no %u frame size %u\n", no, size);
  return size;
}

uint64_t StszAtom::TotalSampleSize() const {
  uint64_t total = 0;
  for (uint32_t size : entries) total += size;
  return total;
}

// ---- stss ----

StssAtom::StssAtom(const AtomHeader& from) : Atom(from) {}

StssAtom::~StssAtom() = default;

int StssAtom::readData(IOStream* stream) {
  return readTable(*this, stream, &version, &flags, entries, kStss);
}

int StssAtom::writeData(IOStream* stream) { return writeTable(stream, version, flags, entries); }

void StssAtom::describe(FieldSink& sink) const {
  describeTable(sink, version, flags, entries);
}

void StssAtom::addEntry(uint32_t sampleNo) { appendEntry(*this, entries, sampleNo, kStss.width); }

void StssAtom::getIFrameNumber(uint32_t* no) const {
  if (no == nullptr) {
    QX_LOG_NULL_PARAM("getIFrameNumber");
    return;
  }
  const uint32_t wanted = *no;
  auto found = std::find_if(entries.begin(), entries.end(),
                            [wanted](uint32_t sync) { return sync >= wanted; });
  if (found != entries.end()) *no = *found;
}

namespace {

// Appends the source's sync samples within start..end, each moved by
// `shift` (32-bit, wrapping). The walk relies on ascending numbers: it ends
// at the first one past `end`.
void renumberSyncSamples(StssAtom& table, const StssAtom* source, uint32_t start, uint32_t end,
                         uint32_t shift, const char* operation, bool trace) {
  if (source == nullptr) {
    QX_LOG_NULL_PARAM(operation);
    return;
  }
  const std::vector<uint32_t>& from = source->entries;
  const bool tracing = trace && logEnabled(0);
  if (!tracing && descents(from.data(), from.size()) == 0) {
    // Ascending, as the format wants: two searches find the kept stretch.
    const auto stop = std::upper_bound(from.begin(), from.end(), end);
    const auto first = std::lower_bound(from.begin(), stop, start);
    const IndexRange kept{static_cast<size_t>(first - from.begin()),
                          static_cast<size_t>(stop - from.begin())};
    appendShifted(table.entries, from, kept, shift);
    growBy(table, kStss.width, kept.size());
    return;
  }
  const size_t stop = static_cast<size_t>(
      std::find_if(from.begin(), from.end(), [end](uint32_t sync) { return sync > end; }) -
      from.begin());
  const auto kept =
      std::count_if(from.begin(), from.begin() + static_cast<std::ptrdiff_t>(stop),
                    [start](uint32_t sync) { return sync >= start; });
  const size_t before = table.entries.size();
  table.entries.resize(before + static_cast<size_t>(kept));  // `from` may be table.entries
  uint32_t* out = table.entries.data() + before;
  for (size_t i = 0; i < stop; ++i) {
    if (from[i] < start) continue;
    *out = from[i] + shift;
    if (tracing) QX_LOG_Printf("MP4", 0, "stss %u \n", *out);
    ++out;
  }
  growBy(table, kStss.width, static_cast<size_t>(kept));
}

}  // namespace

void StssAtom::crop2new(const StssAtom* source, uint32_t start, uint32_t end) {
  // Sample `start` becomes sample 1 of the trimmed track.
  renumberSyncSamples(*this, source, start, end, 1u - start, "crop2new", true);
}

void StssAtom::merge(const StssAtom* source, uint32_t start, uint32_t end, uint32_t offset) {
  // Sample `start` follows the `offset` samples already in the joined track.
  renumberSyncSamples(*this, source, start, end, offset - start + 1u, "merge", false);
}

// ---- chunk offsets: what stco and co64 share ----

namespace {

// The 1-based number of the first chunk, in stored order, that starts at or
// after `offset`, traced with `trace`; 0 when there is none. Tables are not
// assumed sorted, so the first match wins.
template <class Offset>
uint32_t findChunk(const std::vector<Offset>& entries, uint64_t offset, const char* trace) {
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [offset](Offset chunk) { return uint64_t{chunk} >= offset; });
  if (found == entries.end()) return 0;
  const uint32_t no = static_cast<uint32_t>(found - entries.begin() + 1);
  QX_LOG_Printf("MP4", 0, trace, static_cast<unsigned long long>(offset), no);
  return no;
}

// How a rebasing copy differs between the two tables.
struct RebaseRules {
  const char* operation;  // for the null-argument line
  bool stopsAt32Bits;     // stco cannot hold a position of 4 GiB or more
  unsigned growth;        // bytes added to the box per copied chunk
  const char* trace;      // per-chunk trace line, or null
};

// Whether stco chunks first..first+count, moved so that the first lands at
// outPos, all stay below 4 GiB without a 0 among them. Positions rise with
// the offsets, so the smallest and largest offsets decide.
bool movesWithin32Bits(const uint32_t* first, size_t count, uint64_t outPos) {
  constexpr uint64_t kLimit = uint64_t{1} << 32;
  const Bounds offsets = bounds32(first, count);
  const uint64_t below = *first - offsets.low;
  const uint64_t above = offsets.high - *first;
  return offsets.low != 0 && outPos >= below && outPos < kLimit && above < kLimit - outPos;
}

// Without a 0 among the offsets the walk below telescopes: every chunk
// lands at outPos + (its offset - the first offset), in 64-bit wrapping
// arithmetic, so one scan decides and one pass writes. Returns false,
// having written nothing, when the walk's own rules must decide (a 0, or
// for stco a position past 32 bits, where the copy stops early).
template <class Table>
bool rebaseInOnePass(Table& table, const Table& source, IndexRange range, uint64_t outPos) {
  if (range.size() == 0) return false;
  const auto* first = &source.entries[range.begin];
  const uint64_t firstOffset = *first;
  if constexpr (std::is_same_v<Table, StcoAtom>) {
    if (!movesWithin32Bits(first, range.size(), outPos)) return false;
  } else {
    if (zeros64(first, range.size()) != 0) return false;
  }
  appendShifted(table.entries, source.entries, range, outPos - firstOffset);
  return true;
}

// Appends source chunks start..end, moved so that the first lands at outPos
// and each later one keeps its distance from its predecessor (64-bit,
// wrapping). A source offset of 0 counts as "no chunk copied yet", so the
// chunk after it lands on the same position again: kept on purpose.
template <class Offset, class Table>
void rebaseChunks(Table& table, const Table* source, uint32_t start, uint32_t end,
                  uint64_t outPos, const RebaseRules& rules) {
  if (source == nullptr) {
    QX_LOG_NULL_PARAM(rules.operation);
    return;
  }
  const IndexRange range = clampRange(start, end, source->entries.size());
  const bool tracing = rules.trace != nullptr && logEnabled(0);
  if (!tracing && rebaseInOnePass(table, *source, range, outPos)) {
    growBy(table, rules.growth, range.size());
    return;
  }
  const size_t before = table.entries.size();
  table.entries.resize(before + range.size());  // source may be table itself
  Offset* out = table.entries.data() + before;
  uint64_t position = outPos;
  uint64_t previous = 0;
  for (size_t i = range.begin; i < range.end; ++i, ++out) {
    const uint64_t in = source->entries[i];
    if (previous != 0) position = position - previous + in;
    if (rules.stopsAt32Bits && (position >> 32) != 0) break;
    *out = static_cast<Offset>(position);
    if (tracing) {
      using TraceIn = std::conditional_t<sizeof(Offset) == 8, unsigned long long, unsigned>;
      QX_LOG_Printf("MP4", 0, rules.trace, static_cast<TraceIn>(in),
                    static_cast<unsigned long long>(position));
    }
    previous = in;
  }
  table.entries.resize(static_cast<size_t>(out - table.entries.data()));
  growBy(table, rules.growth, table.entries.size() - before);
}

template <class Offset>
bool chunkExists(const std::vector<Offset>& entries, uint32_t no) {
  return no != 0 && no <= entries.size();
}

}  // namespace

// ---- stco ----

StcoAtom::StcoAtom(const AtomHeader& from) : Atom(from) {}

StcoAtom::~StcoAtom() = default;

int StcoAtom::readData(IOStream* stream) {
  return readTable(*this, stream, &version, &flags, entries, kStco);
}

int StcoAtom::writeData(IOStream* stream) { return writeTable(stream, version, flags, entries); }

void StcoAtom::describe(FieldSink& sink) const {
  describeTable(sink, version, flags, entries);
}

uint64_t StcoAtom::getStartOffset() const { return entries.empty() ? 0 : entries.front(); }

void StcoAtom::addEntry(uint32_t offset) { appendEntry(*this, entries, offset, kStco.width); }

void StcoAtom::getPosByNO(uint32_t no, unsigned long long* pos) const {
  if (pos == nullptr) {
    QX_LOG_NULL_PARAM("getPosByNO");
    return;
  }
  // Deliberate: a missing chunk leaves *pos as it was, silently (co64 clears it).
  if (chunkExists(entries, no)) *pos = entries[no - 1];
}

void StcoAtom::getFramePos(uint32_t startNo, uint32_t endNo, unsigned long long* startPos,
                           uint32_t* dataLen) const {
  if (startPos == nullptr || dataLen == nullptr) {
    QX_LOG_NULL_PARAM("getFramePos");
    return;
  }
  // A walk from chunk 1 that stops at endNo meets startNo only when it
  // lies at or before endNo, or when endNo is never met at all.
  const bool endMet = chunkExists(entries, endNo);
  const bool startMet = chunkExists(entries, startNo) && (!endMet || startNo <= endNo);
  uint32_t base = 0;
  if (startMet && *startPos == 0) {
    base = entries[startNo - 1];
    *startPos = base;
    QX_LOG_Printf("MP4", 0, "start addr %llu startNo %u frameNumber %u \n",
                  static_cast<unsigned long long>(base), startNo, startNo);
  }
  if (endMet) {
    const uint32_t end = entries[endNo - 1];
    *dataLen = end - base;  // 32-bit, wraps when endNo lies before startNo
    QX_LOG_Printf("MP4", 0, "end  addr %u  datalen %u endno %u frameNumber %u\n", end, *dataLen,
                  endNo, endNo);
  }
}

uint32_t StcoAtom::getNextFrameNoByOffset(uint64_t offset) const {
  const uint32_t no = findChunk(entries, offset, "next frame offset %llu frame no %u \n");
  // Deliberate: no match gives the chunk count here (co64 gives 0).
  return no != 0 ? no : static_cast<uint32_t>(entries.size());
}

uint32_t StcoAtom::getLastFrameNoByOffset(uint64_t offset) const {
  const uint32_t no = findChunk(entries, offset, "last+1 frame offset %llu frame no %u \n");
  return no != 0 ? no - 1 : static_cast<uint32_t>(entries.size());
}

void StcoAtom::crop2new(const StcoAtom* source, uint32_t start, uint32_t end, uint64_t outPos) {
  rebaseChunks<uint32_t>(*this, source, start, end, outPos,
                         {"crop2new", true, kStco.width, "stco inpos %u out pos %llu \n"});
}

void StcoAtom::merge(const StcoAtom* source, uint32_t start, uint32_t end, uint64_t outPos) {
  rebaseChunks<uint32_t>(*this, source, start, end, outPos, {"merge", true, kStco.width, nullptr});
}

// ---- co64 ----

Co64Atom::Co64Atom(const AtomHeader& from) : Atom(from) {}

Co64Atom::~Co64Atom() = default;

int Co64Atom::readData(IOStream* stream) {
  return readTable(*this, stream, &version, &flags, entries, kCo64);
}

int Co64Atom::writeData(IOStream* stream) { return writeTable(stream, version, flags, entries); }

void Co64Atom::describe(FieldSink& sink) const {
  describeTable(sink, version, flags, entries);
}

uint64_t Co64Atom::getStartOffset() const { return entries.empty() ? 0 : entries.front(); }

void Co64Atom::addEntry(uint64_t offset) { appendEntry(*this, entries, offset, kCo64.width); }

void Co64Atom::getPosByNO(uint32_t no, unsigned long long* pos) const {
  if (pos == nullptr) {
    QX_LOG_NULL_PARAM("getPosByNO");
    return;
  }
  if (chunkExists(entries, no)) {
    *pos = entries[no - 1];
    return;
  }
  // Deliberate: a missing chunk clears *pos and is traced (stco leaves it).
  *pos = 0;
  QX_LOG_Printf("MP4", 0, "co64::getPosByNO fail\n");
}

uint32_t Co64Atom::getNextFrameNoByOffset(uint64_t offset) const {
  // Deliberate: no match gives 0 here (stco gives the chunk count).
  return findChunk(entries, offset, "next frame offset %llu frame no %u\n");
}

uint32_t Co64Atom::getLastFrameNoByOffset(uint64_t offset) const {
  // Deliberate: traced with the "next frame" text, not stco's "last+1".
  const uint32_t no = findChunk(entries, offset, "next frame offset %llu frame no %u\n");
  return no != 0 ? no - 1 : static_cast<uint32_t>(entries.size());
}

void Co64Atom::crop2new(const Co64Atom* source, uint32_t start, uint32_t end, uint64_t outPos) {
  // Deliberate: the box grows by 4 per 8-byte entry here, by 8 in addEntry and merge.
  rebaseChunks<uint64_t>(*this, source, start, end, outPos,
                         {"crop2new", false, 4, "stco inpos %llu out pos %llu\n"});
}

void Co64Atom::merge(const Co64Atom* source, uint32_t start, uint32_t end, uint64_t outPos) {
  rebaseChunks<uint64_t>(*this, source, start, end, outPos, {"merge", false, kCo64.width, nullptr});
}

// ---- sample entries ----

AlawAtom::AlawAtom(AtomHeader from) : G711Atom(from) {}

AlawAtom::~AlawAtom() = default;

UlawAtom::UlawAtom(AtomHeader from) : G711Atom(from) {}

UlawAtom::~UlawAtom() = default;

GpmdAtom::GpmdAtom(const AtomHeader& from) : Atom(from) {}

GpmdAtom::~GpmdAtom() = default;

int GpmdAtom::readData(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("readData");
    return -1;
  }
  uint32_t ignored = 0;
  for (int word = 0; word < 3; ++word) {
    if (readWord(stream, &ignored) != 0) return -1;
  }
  return 0;
}

int GpmdAtom::writeData(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("writeData");
    return -1;
  }
  // Six reserved zero bytes, data-reference index 1, a zero word.
  for (uint32_t word : {0u, 1u, 0u}) {
    if (writeField(stream, word) != 0) return -1;
  }
  return 0;
}

// ---- stsd ----

StsdAtom::StsdAtom(const AtomHeader& from) : Atom(from) {}

StsdAtom::~StsdAtom() = default;

int StsdAtom::readData(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("readData");
    return -1;
  }
  uint32_t droppedCount = 0;
  if (readVersionFlags(stream, &version, &flags) != 0) return -1;
  return readWord(stream, &droppedCount);
}

int StsdAtom::writeData(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("writeData");
    return -1;
  }
  if (writeVersionFlags(stream, version, flags) != 0) return -1;
  return writeField(stream, static_cast<uint32_t>(children.size()));
}

void StsdAtom::describe(FieldSink& sink) const {
  sink.field("version", version);
  sink.field("flags", flags);
  sink.field("count", children.size());
}

namespace {

template <const char* Variant>
Atom* makeProres(const AtomHeader& header) {
  AtomHeader copy(header);
  return new (std::nothrow) ProresAtom(copy, Variant);
}

constexpr char kApch[] = "apch";
constexpr char kApco[] = "apco";
constexpr char kApcn[] = "apcn";
constexpr char kApcs[] = "apcs";

// Looked up in this order; the first exact match decides.
constexpr AtomType kSampleEntries[] = {
    {"gpmd", &makeAtom<GpmdAtom>},       {"mp4a", &makeAtom<Mp4aAtom>},
    {"alaw", &makeAtom<AlawAtom>},       {"ulaw", &makeAtom<UlawAtom>},
    {"avc1", &makeAtom<Avc1Atom>},       {"hvc1", &makeAtom<Hvc1Atom>},
    {"apch", &makeProres<kApch>},        {"apco", &makeProres<kApco>},
    {"apcn", &makeProres<kApcn>},        {"apcs", &makeProres<kApcs>},
};

constexpr AtomType kTableBoxes[] = {
    {"stsd", &makeAtom<StsdAtom>}, {"stts", &makeAtom<SttsAtom>}, {"stsc", &makeAtom<StscAtom>},
    {"stsz", &makeAtom<StszAtom>}, {"stss", &makeAtom<StssAtom>}, {"stco", &makeAtom<StcoAtom>},
    {"co64", &makeAtom<Co64Atom>},
};

}  // namespace

Atom* StsdAtom::ReadChild(IOStream* stream) {
  return ReadTypedChild(stream, kSampleEntries, std::size(kSampleEntries));
}

// ---- stbl ----

StblAtom::StblAtom(const AtomHeader& from) : Atom(from) {}

StblAtom::~StblAtom() = default;

Atom* StblAtom::ReadChild(IOStream* stream) {
  return ReadTypedChild(stream, kTableBoxes, std::size(kTableBoxes));
}

}  // namespace mp4stbl
