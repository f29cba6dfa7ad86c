// The least work that summarising a file's sample tables can take: find the
// table boxes by walking box headers, read each with one read and byte-swap
// it into a std::vector. Prints the tables' bytes and a checksum. Of the
// library it takes only the huge-page hint and the AVX2 build of hot loops.
//
//   lower_bound [--steps] FILE
//
// --steps reads each table as the library's table reader must: into its own
// buffer (malloc, cleared, one read, swapped in place), appended to a vector,
// the buffer freed; huge pages asked for from 2 MiB on, as the library does.
// Nothing else of the command is done, so this is the floor for the reader.

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include <mp4stbl/box/memory_hints.h>
#include <mp4stbl/box/wide_clones.h>

namespace {

bool steps = false;

struct Totals {
  // Every table stays loaded to the end, as a program that uses them would keep them.
  std::vector<std::vector<uint32_t>> tables32;
  std::vector<std::vector<uint64_t>> tables64;
  uint64_t tableBytes = 0;
  uint64_t largest = 0;  // the largest table box
  uint64_t words = 0;
  uint64_t checksum = 0;
};

bool readAt(int fd, void* into, uint64_t length, uint64_t offset) {
  auto* to = static_cast<char*>(into);
  while (length > 0) {
    const ssize_t got = pread(fd, to, length, static_cast<off_t>(offset));
    if (got <= 0) return false;
    to += got;
    length -= static_cast<uint64_t>(got);
    offset += static_cast<uint64_t>(got);
  }
  return true;
}

template <class Word>
uint64_t swapAndSum(Word* words, uint64_t count) {
  uint64_t sum = 0;
  for (uint64_t i = 0; i < count; ++i) {
    if constexpr (sizeof(Word) == 8) {
      words[i] = __builtin_bswap64(words[i]);
    } else {
      words[i] = __builtin_bswap32(words[i]);
    }
    sum += words[i];
  }
  return sum;
}
// Built for AVX2 beside the baseline, as the library's own swap is: the
// bound must not lose to the command on the loop they share.
MP4STBL_WIDE_CLONES uint64_t swapAndSum32(uint32_t* words, uint64_t count) {
  return swapAndSum(words, count);
}
MP4STBL_WIDE_CLONES uint64_t swapAndSum64(uint64_t* words, uint64_t count) {
  return swapAndSum(words, count);
}
uint64_t swapAndSumWords(uint32_t* words, uint64_t count) { return swapAndSum32(words, count); }
uint64_t swapAndSumWords(uint64_t* words, uint64_t count) { return swapAndSum64(words, count); }

// The table reader's steps: its own cleared buffer, then a copy into the vector.
template <class Word>
bool readThroughBuffer(int fd, uint64_t offset, uint64_t length, std::vector<Word>* words,
                       uint64_t* sum) {
  auto* buffer = static_cast<Word*>(std::malloc(length));
  if (buffer == nullptr) return false;
  mp4stbl::adviseHugePages(buffer, length);
  std::memset(buffer, 0, length);
  const uint64_t count = length / sizeof(Word);
  const bool read = readAt(fd, buffer, length, offset);
  if (read) {
    *sum = swapAndSumWords(buffer, count);
    words->reserve(count);
    mp4stbl::adviseHugePages(words->data(), count * sizeof(Word));
    words->insert(words->end(), buffer, buffer + count);
  }
  std::free(buffer);
  return read;
}

bool is(const char* type, const char* a) { return std::memcmp(type, a, 4) == 0; }

// One read of the body into the vector's storage and one swap pass, or the
// reader's steps; the table is kept either way.
template <class Word>
bool loadTable(int fd, uint64_t offset, uint64_t length, Totals* totals) {
  std::vector<Word> words;
  uint64_t sum = 0;
  if (steps) {
    if (!readThroughBuffer(fd, offset, length, &words, &sum)) return false;
  } else {
    words.resize((length + sizeof(Word) - 1) / sizeof(Word));
    if (!readAt(fd, words.data(), length, offset)) return false;
    sum = swapAndSumWords(words.data(), words.size());
  }
  totals->words += words.size();
  totals->checksum = totals->checksum * 31 + sum;
  if constexpr (sizeof(Word) == 8) {
    totals->tables64.push_back(std::move(words));
  } else {
    totals->tables32.push_back(std::move(words));
  }
  return true;
}

// Walks the boxes in [start, end), descending into the containers that lead
// to the sample tables.
bool walk(int fd, uint64_t start, uint64_t end, Totals* totals) {
  for (uint64_t at = start; at + 8 <= end;) {
    unsigned char header[16];
    if (!readAt(fd, header, 8, at)) return false;
    uint64_t size = uint64_t{header[0]} << 24 | header[1] << 16 | header[2] << 8 | header[3];
    const char* type = reinterpret_cast<const char*>(header + 4);
    unsigned headerLength = 8;
    if (size == 1) {
      if (!readAt(fd, header + 8, 8, at + 8)) return false;
      size = 0;
      for (int i = 8; i < 16; ++i) size = size << 8 | header[i];
      headerLength = 16;
    } else if (size == 0) {
      size = end - at;
    }
    if (size < headerLength || size > end - at) return false;
    const uint64_t body = at + headerLength;
    const uint64_t length = size - headerLength;
    if (is(type, "moov") || is(type, "trak") || is(type, "mdia") || is(type, "minf") ||
        is(type, "stbl")) {
      if (!walk(fd, body, at + size, totals)) return false;
    } else if (is(type, "co64")) {
      if (!loadTable<uint64_t>(fd, body, length, totals)) return false;
      totals->tableBytes += size;
      totals->largest = std::max(totals->largest, size);
    } else if (is(type, "stts") || is(type, "stsc") || is(type, "stsz") || is(type, "stss") ||
               is(type, "stco")) {
      if (!loadTable<uint32_t>(fd, body, length, totals)) return false;
      totals->tableBytes += size;
      totals->largest = std::max(totals->largest, size);
    }
    at += size;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  steps = argc == 3 && std::strcmp(argv[1], "--steps") == 0;
  if (argc != 2 && !steps) {
    std::fprintf(stderr, "usage: lower_bound [--steps] FILE\n");
    return 2;
  }
  const char* path = argv[argc - 1];
  const int fd = open(path, O_RDONLY);
  if (fd < 0) {
    std::perror(path);
    return 1;
  }
  const off_t end = lseek(fd, 0, SEEK_END);
  Totals totals;
  if (end < 0 || !walk(fd, 0, static_cast<uint64_t>(end), &totals)) {
    std::fprintf(stderr, "lower_bound: %s: cannot walk the boxes\n", path);
    return 1;
  }
  close(fd);
  std::printf("%s: tables %llu bytes, largest %llu, %llu words, checksum %016llx\n", path,
              static_cast<unsigned long long>(totals.tableBytes),
              static_cast<unsigned long long>(totals.largest),
              static_cast<unsigned long long>(totals.words),
              static_cast<unsigned long long>(totals.checksum));
  return 0;
}
