// Captures the library's log lines for the lifetime of the object.
#pragma once

#include <string>
#include <vector>

#include "box/log.h"

struct LogLine {
  std::string tag;
  int level;
  std::string text;
  bool operator==(const LogLine& other) const {
    return tag == other.tag && level == other.level && text == other.text;
  }
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& lines() const;
  // The single line logged, or an empty line when there were none or many.
  LogLine only() const;
  void clear();

 private:
  QxLogHandler previous_;
};

// The null-argument line of a function, less its source line number.
bool isNullParamLine(const LogLine& line, const std::string& function);

std::ostream& operator<<(std::ostream& out, const LogLine& line);
