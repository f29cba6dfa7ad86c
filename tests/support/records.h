// Table boxes filled for a test, and equality and printing of their
// records for its expectations.
#pragma once

#include <cstdint>
#include <ostream>
#include <type_traits>
#include <vector>

#include <mp4stbl/stbl.h>

inline bool operator==(const SttsEntry& a, const SttsEntry& b) {
  return a.sampleCount == b.sampleCount && a.sampleDelta == b.sampleDelta;
}

inline std::ostream& operator<<(std::ostream& out, const SttsEntry& e) {
  return out << "{" << e.sampleCount << ", " << e.sampleDelta << "}";
}

inline bool operator==(const StscEntry& a, const StscEntry& b) {
  return a.firstChunk == b.firstChunk && a.samplesPerChunk == b.samplesPerChunk &&
         a.sampleDescriptionIndex == b.sampleDescriptionIndex;
}

inline std::ostream& operator<<(std::ostream& out, const StscEntry& e) {
  return out << "{" << e.firstChunk << ", " << e.samplesPerChunk << ", "
             << e.sampleDescriptionIndex << "}";
}

// A table box holding `entries` (stsz: with a matching count), 16 bytes long.
template <class Box>
struct Held : Box {
  using Entry = typename decltype(Box::entries)::value_type;
  explicit Held(const std::vector<Entry>& entries) : Box(AtomHeader()) {
    this->header.size = 16;
    this->entries = entries;
    if constexpr (std::is_same_v<Box, StszAtom>) this->sample_count = uint32_t(entries.size());
  }
};
