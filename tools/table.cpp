#include "table.h"

#include <algorithm>
#include <cstdarg>

namespace mp4stbl::cli {

TextTable::TextTable(std::vector<std::string> headers) : headers_(std::move(headers)) {}

void TextTable::add(std::vector<std::string> row) {
  row.resize(headers_.size());
  rows_.push_back(std::move(row));
}

void TextTable::print(std::FILE* out) const {
  std::vector<size_t> widths;
  for (const std::string& header : headers_) widths.push_back(header.size());
  for (const auto& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (size_t i = 0; i < cells.size(); ++i) {
      text += cells[i];
      if (i + 1 < cells.size()) text += std::string(widths[i] - cells[i].size() + 2, ' ');
    }
    std::fprintf(out, "%s\n", text.c_str());
  };
  line(headers_);
  for (const auto& row : rows_) line(row);
}

std::string format(const char* pattern, ...) {
  char buffer[256];
  va_list args;
  va_start(args, pattern);
  std::vsnprintf(buffer, sizeof buffer, pattern, args);
  va_end(args);
  return buffer;
}

}  // namespace mp4stbl::cli
