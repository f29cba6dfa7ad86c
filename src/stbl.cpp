#include "stbl.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "box/log.h"
#include "box/memory.h"

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
template <class Entry>
struct Record;

template <>
struct Record<uint32_t> {
  using Word = uint32_t;
  static constexpr unsigned kFields = 1;
  template <class E>
  static E& field(E& entry, unsigned) { return entry; }
};

template <>
struct Record<SttsEntry> {
  using Word = uint32_t;
  static constexpr uint32_t SttsEntry::*kMembers[] = {&SttsEntry::sampleCount,
                                                      &SttsEntry::sampleDelta};
  static constexpr unsigned kFields = 2;
  template <class E>
  static auto& field(E& entry, unsigned i) { return entry.*kMembers[i]; }
};

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
  if (needed > entries.capacity()) entries.reserve(std::max(needed, entries.size() * 2));
}

// The append rule: a record in place, then the box grows by `width`.
template <class T>
void appendEntry(Atom& box, std::vector<T>& entries, const T& entry, unsigned width) {
  entries.push_back(entry);
  box.IncreaseSize(width);
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
  for (uint32_t i = 0; i < count; ++i) {
    Entry entry{};
    for (unsigned f = 0; f < R::kFields; ++f) R::field(entry, f) = words[size_t{i} * R::kFields + f];
    entries.push_back(entry);
  }
  return 0;
}

// The body shared by every table but "stsz": version, flags, count, records.
template <class Entry>
int readTable(Atom& box, IOStream* stream, uint8_t* version, uint32_t* flags,
              std::vector<Entry>& entries, const TableKind& kind) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("readData");
    return -1;
  }
  if (readVersionFlags(stream, version, flags) != 0) return -1;
  uint32_t count = 0;
  const int found = readCount(box, stream, kind, &count);
  if (found <= 0) return found;
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

template <class Entry>
int writeEntries(IOStream* stream, const std::vector<Entry>& entries) {
  using R = Record<Entry>;
  for (const Entry& entry : entries) {
    for (unsigned f = 0; f < R::kFields; ++f) {
      if (writeField(stream, R::field(entry, f)) != 0) return -1;
    }
  }
  return 0;
}

// Writes version, flags, the number of records held and the records.
template <class Entry>
int writeTable(IOStream* stream, uint8_t version, uint32_t flags,
               const std::vector<Entry>& entries) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("writeData");
    return -1;
  }
  if (entries.size() > UINT32_MAX) {
    QX_LOG_Printf("MP4", 3, "%zu entries do not fit a 32-bit count\n", entries.size());
    return -1;
  }
  if (writeVersionFlags(stream, version, flags) != 0 ||
      writeField(stream, static_cast<uint32_t>(entries.size())) != 0) {
    return -1;
  }
  return writeEntries(stream, entries);
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

}  // namespace

// ---- stts ----

SttsAtom::SttsAtom(const AtomHeader& from) : Atom(from) {}

SttsAtom::~SttsAtom() = default;

int SttsAtom::readData(IOStream* stream) {
  return readTable(*this, stream, &version, &flags, entries, kStts);
}

int SttsAtom::writeData(IOStream* stream) { return writeTable(stream, version, flags, entries); }

void SttsAtom::addEntry(uint32_t sampleCount, uint32_t sampleDelta) {
  if (!entries.empty() && entries.back().sampleDelta == sampleDelta) {
    entries.back().sampleCount += sampleCount;  // wraps at 32 bits, as the field does
    return;
  }
  appendEntry(*this, entries, SttsEntry{sampleCount, sampleDelta}, kStts.width);
}

void SttsAtom::merge(const SttsAtom* source, uint32_t first, uint32_t last) {
  if (source == nullptr) {
    QX_LOG_NULL_PARAM("merge");
    return;
  }
  const IndexRange range = clampRange(first, last, source->entries.size());
  reserveMore(entries, range.size());
  for (size_t i = range.begin; i < range.end; ++i) {
    addEntry(source->entries[i].sampleCount, source->entries[i].sampleDelta);
  }
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
