#include "support/fault_stream.h"

#include <algorithm>

FaultStream::FaultStream(std::vector<unsigned char> bytes) : inner_(std::move(bytes)) {}

unsigned FaultStream::allowance(unsigned count) const {
  return static_cast<unsigned>(std::min<size_t>(count, limit_ - std::min(limit_, moved_)));
}

int FaultStream::read(unsigned char* buffer, unsigned count) {
  int got = inner_.read(buffer, allowance(count));
  if (got > 0) moved_ += static_cast<size_t>(got);
  return got;
}

int FaultStream::write(const unsigned char* buffer, unsigned count) {
  if (wholeWrites_ && allowance(count) < count) return -1;
  int put = inner_.write(buffer, allowance(count));
  if (put > 0) moved_ += static_cast<size_t>(put);
  return put;
}
