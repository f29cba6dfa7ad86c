// Big-endian words to and from host order, a word at a time so that the
// compiler can turn loops over tables into wide byte shuffles.
#pragma once

#include <cstdint>
#include <cstring>

namespace mp4stbl::byte_order {

#if defined(__BYTE_ORDER__) && defined(__ORDER_BIG_ENDIAN__)
constexpr bool kHostIsBig = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
#else
constexpr bool kHostIsBig = false;
#endif

inline uint32_t swap(uint32_t v) {
#if defined(__GNUC__)
  return __builtin_bswap32(v);
#else
  return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
#endif
}

inline unsigned long long swap(unsigned long long v) {
#if defined(__GNUC__)
  return __builtin_bswap64(v);
#else
  return (unsigned long long)swap(uint32_t(v)) << 32 | swap(uint32_t(v >> 32));
#endif
}

// Word is uint32_t or unsigned long long.
template <class Word>
Word load(const unsigned char* bytes) {
  Word word;
  std::memcpy(&word, bytes, sizeof word);
  return kHostIsBig ? word : swap(word);
}

template <class Word>
void store(unsigned char* bytes, Word word) {
  if (!kHostIsBig) word = swap(word);
  std::memcpy(bytes, &word, sizeof word);
}

}  // namespace mp4stbl::byte_order
