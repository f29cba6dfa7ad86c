#include "box/table_reason.h"

#include <cstdint>
#include <vector>

#include "box/byte_order.h"

namespace mp4stbl {

namespace {

struct TableShape {
  const char* type;
  unsigned fields;  // bytes before the entries, the entry count included
  unsigned width;   // bytes per entry
};

constexpr TableShape kTables[] = {
    {"stts", 8, 8}, {"stsc", 8, 12}, {"stsz", 12, 4},
    {"stss", 8, 4}, {"stco", 8, 4},  {"co64", 8, 8},
};

std::string n(uint64_t value) { return std::to_string(value); }

uint32_t be32At(const std::vector<unsigned char>& body, size_t at) {
  return byte_order::load<uint32_t>(body.data() + at);
}

std::string tableReason(const TableShape& shape, const std::vector<unsigned char>& body) {
  const std::string type = shape.type;
  if (body.size() < shape.fields) {
    return type + " is " + n(body.size()) + " bytes after its header, too short for its " +
           n(shape.fields) + " bytes of fields";
  }
  const uint32_t count = be32At(body, shape.fields - 4);
  const uint64_t needed = uint64_t{count} * shape.width;
  const uint64_t held = body.size() - shape.fields;
  if (needed > held) {
    return type + " lists " + n(count) + " entries of " + n(shape.width) + " bytes (" +
           n(needed) + " bytes) but its box holds " + n(held) + " bytes of entries";
  }
  return type + " with " + n(count) + " entries cannot be read";
}

std::string stsdReason(const std::vector<unsigned char>& body) {
  if (body.size() < 8) return "stsd is too short for its entry count";
  const uint32_t count = be32At(body, 4);
  size_t at = 8;
  for (uint32_t i = 1; i <= count; ++i) {
    const size_t left = body.size() - at;
    if (left < 8) {
      return "stsd announces " + n(count) + " sample entries but holds " + n(i - 1);
    }
    const uint32_t size = be32At(body, at);
    const std::string type =
        printable(std::string(reinterpret_cast<const char*>(&body[at + 4]), 4));
    if (size < 8 || size > left) {
      return "stsd sample entry " + n(i) + " (" + type + ") claims " + n(size) + " bytes, " +
             n(left) + " remain in stsd";
    }
    at += size;
  }
  if (at < body.size()) {
    return "stsd has " + n(body.size() - at) + " bytes after its " + n(count) + " sample entries";
  }
  return "a sample entry of stsd is too short for the fields of its type";
}

}  // namespace

std::string printable(const std::string& bytes) {
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char c : bytes) {
    if (c >= 0x20 && c < 0x7F) {
      text += static_cast<char>(c);
    } else {
      text += std::string("\\x") + kHex[c >> 4] + kHex[c & 15];
    }
  }
  return text;
}

std::string explainUnreadable(const UserDefAtom& kept, const std::string& detail) {
  const std::string& type = kept.header.type;
  std::string reason = printable(type) + " cannot be read";
  if (type == "stsd") reason = stsdReason(kept.body);
  for (const TableShape& shape : kTables) {
    if (type == shape.type) reason = tableReason(shape, kept.body);
  }
  return detail.empty() ? reason : reason + " (detail: " + detail + ")";
}

}  // namespace mp4stbl
