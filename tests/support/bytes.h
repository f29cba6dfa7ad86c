// Builds big-endian byte strings for golden-byte tests.
#pragma once

#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

// The whole content of a file; empty when it cannot be read.
inline Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The parts one after another.
inline Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

struct ByteWriter {
  Bytes bytes;
  ByteWriter& u8(unsigned v) {
    bytes.push_back(static_cast<unsigned char>(v));
    return *this;
  }
  ByteWriter& be(uint64_t v, unsigned width) {
    for (unsigned i = width; i-- > 0;) u8(static_cast<unsigned char>(v >> (8 * i)));
    return *this;
  }
  ByteWriter& u24(uint32_t v) { return be(v, 3); }
  ByteWriter& u32(uint32_t v) { return be(v, 4); }
  ByteWriter& u64(uint64_t v) { return be(v, 8); }
  ByteWriter& text(const std::string& s) {
    bytes.insert(bytes.end(), s.begin(), s.end());
    return *this;
  }
  ByteWriter& append(const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return *this;
  }
  // A box around `body` with an 8-byte header.
  static Bytes box(const std::string& type, const Bytes& body) {
    return ByteWriter().u32(static_cast<uint32_t>(8 + body.size())).text(type).append(body).bytes;
  }
  // A full box: version and 24-bit flags, then `body`.
  static Bytes fullBox(const std::string& type, unsigned version, uint32_t flags, const Bytes& body) {
    return box(type, ByteWriter().u8(version).u24(flags).append(body).bytes);
  }
  // The same box with a 16-byte header: size field 1, then the 64-bit size.
  static Bytes largeBox(const std::string& type, const Bytes& body) {
    return ByteWriter().u32(1).text(type).u64(16 + body.size()).append(body).bytes;
  }
};
