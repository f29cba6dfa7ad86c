// How mp4stbl record reads a regular file: mapped a window at a time, each
// window's bytes those of the file, and a file cut shorter while it is
// read (even under a window being visited) a failure with its reason, not
// a crash.
#include <unistd.h>

#include <fstream>

#include "record_input.h"
#include "support/test.h"

namespace {

using mp4stbl::cli::Inputs;

const ScratchDir kScratch("mp4stbl_record_input_");

std::string fileOf(const std::string& name, size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(1 + i * 7 % 251);
  const std::string path = kScratch / name;
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                             static_cast<std::streamsize>(bytes.size()));
  return path;
}

struct Visits {
  std::vector<size_t> sizes;
  Bytes bytes;
  std::string reason;
  size_t failed = SIZE_MAX;
};

// Reads input 0 until it ends or fails, or for `rounds`; `during` runs
// inside each visit, before its bytes are read.
Visits readAll(Inputs& inputs, const std::function<void()>& during = {}, int rounds = 100) {
  Visits seen;
  auto visit = [&](size_t, const uint8_t* bytes, size_t size) {
    if (during) during();
    seen.sizes.push_back(size);
    seen.bytes.insert(seen.bytes.end(), bytes, bytes + size);
  };
  for (int round = 0; round < rounds && !inputs.ended(0) && seen.reason.empty(); ++round) {
    seen.reason = inputs.read(0, [](size_t) { return true; }, visit, &seen.failed);
  }
  return seen;
}

// Windows of any size, starting inside a page, give the file's bytes.
TEST(RecordInput, FileWindowsHoldItsBytes) {
  const std::string path = fileOf("windows.bin", 200000);
  Inputs inputs;
  ASSERT_EQ(inputs.add(path), "");
  inputs.pace(0, 70001);
  const Visits seen = readAll(inputs);
  EXPECT_EQ(seen.reason, "");
  EXPECT_EQ(seen.sizes, (std::vector<size_t>{70001, 70001, 59998, 0}));
  EXPECT_TRUE(seen.bytes == readFile(path));
}

// Cut between two windows, or under the window being visited, whose pages
// past the new end then read as zeros: the read fails and says why.
TEST(RecordInput, AFileCutShorterFailsWithItsReason) {
  const std::string between = fileOf("between.bin", 200000);
  Inputs first;
  ASSERT_EQ(first.add(between), "");
  EXPECT_EQ(readAll(first, {}, 1).sizes, std::vector<size_t>{65536});
  ASSERT_EQ(truncate(between.c_str(), 10), 0);
  const Visits cutAfter = readAll(first);
  EXPECT_EQ(cutAfter.reason, "the file became shorter while it was read (10 bytes, 65536 read)");
  EXPECT_EQ(cutAfter.failed, 0u);

  const std::string under = fileOf("under.bin", 3 * 65536);
  Inputs second;
  ASSERT_EQ(second.add(under), "");
  second.pace(0, 3 * 65536);
  const Visits cutUnder = readAll(second, [&] { ASSERT_EQ(truncate(under.c_str(), 100), 0); });
  EXPECT_EQ(cutUnder.reason, "the file became shorter while it was read");
  EXPECT_EQ(cutUnder.failed, 0u);
  ASSERT_EQ(cutUnder.bytes.size(), 3u * 65536);
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  EXPECT_EQ(std::count(cutUnder.bytes.begin() + static_cast<long>(page), cutUnder.bytes.end(), 0),
            static_cast<long>(cutUnder.bytes.size() - page));
}

}  // namespace
