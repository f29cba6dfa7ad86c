// A stream over memory that fails on demand, to drive every failure path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "box/iostream.h"

class FaultStream : public IOStream {
 public:
  explicit FaultStream(std::vector<unsigned char> bytes = {});

  // The n-th call of read() or write() (1-based) returns -1.
  void failCall(unsigned n) { failAt_ = n; }
  // After n bytes have moved in total, reads and writes come up short.
  void limitBytes(size_t n) { limit_ = n; }
  // Writes that would pass n bytes in total are refused whole with -1, as
  // a device that takes a write entirely or not at all.
  void refuseWritesPast(size_t n) {
    limit_ = n;
    wholeWrites_ = true;
  }
  // Pretends the length is unknown, as for a pipe.
  void hideLength() { lengthKnown_ = false; }

  int read(unsigned char* buffer, unsigned count) override;
  int write(const unsigned char* buffer, unsigned count) override;
  int seek(long long offset) override;
  long long getOffset() override;
  long long getLength() override;

  const std::vector<unsigned char>& data() const { return inner_.data(); }
  unsigned calls() const { return calls_; }

 private:
  bool failsNow();
  unsigned allowance(unsigned count) const;

  MemoryStream inner_;
  unsigned calls_ = 0;
  unsigned failAt_ = 0;
  size_t limit_ = SIZE_MAX;
  size_t moved_ = 0;
  bool lengthKnown_ = true;
  bool wholeWrites_ = false;
};
