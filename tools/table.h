// Aligned text tables for the command's human output.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace mp4stbl::cli {

class TextTable {
 public:
  explicit TextTable(std::vector<std::string> headers);
  void add(std::vector<std::string> row);
  void print(std::FILE* out) const;

 private:
  std::vector<std::string> headers_;
  std::vector<std::vector<std::string>> rows_;
};

std::string format(const char* pattern, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

}  // namespace mp4stbl::cli
