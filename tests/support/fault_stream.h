// A stream over memory whose reads and writes come up short on demand, to
// drive every failure path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <mp4stbl/box/stream.h>

class FaultStream : public IOStream {
 public:
  explicit FaultStream(std::vector<unsigned char> bytes = {});

  // After n bytes have moved in total, reads and writes come up short.
  void limitBytes(size_t n) { limit_ = n; }
  // Writes that would pass n bytes in total are refused whole with -1, as
  // a device that takes a write entirely or not at all.
  void refuseWritesPast(size_t n) {
    limit_ = n;
    wholeWrites_ = true;
  }

  int read(unsigned char* buffer, unsigned count) override;
  int write(const unsigned char* buffer, unsigned count) override;
  int seek(long long offset) override { return inner_.seek(offset); }
  long long getOffset() override { return inner_.getOffset(); }
  long long getLength() override { return inner_.getLength(); }

  const std::vector<unsigned char>& data() const { return inner_.data(); }

 private:
  unsigned allowance(unsigned count) const;

  mp4stbl::MemoryStream inner_;
  size_t limit_ = SIZE_MAX;
  size_t moved_ = 0;
  bool wholeWrites_ = false;
};
