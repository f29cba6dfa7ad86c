// Equality and printing of table records, for test expectations.
#pragma once

#include <ostream>

#include "stbl.h"

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
