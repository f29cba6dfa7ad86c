// Captures the library's log lines for the lifetime of the object.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <mp4stbl/box/log.h>

struct LogLine {
  std::string tag;
  int level;
  std::string text;
  bool operator==(const LogLine& other) const {
    return tag == other.tag && level == other.level && text == other.text;
  }
};

inline std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << "{" << line.tag << ", " << line.level << ", \"" << line.text << "\"}";
}

class LogCapture {
 public:
  // Takes the lines of lowestLevel and above (all of them by default).
  explicit LogCapture(int lowestLevel = 0)
      : previous_(mp4stbl::setLogSink({&capture, lowestLevel})) {
    captured().clear();
  }
  ~LogCapture() {
    mp4stbl::setLogSink(previous_);
    captured().clear();
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& lines() const { return captured(); }
  // The single line logged, or an empty line when there were none or many.
  LogLine only() const { return captured().size() == 1 ? captured().front() : LogLine{"", -1, ""}; }
  void clear() { captured().clear(); }

 private:
  static std::vector<LogLine>& captured() {
    static std::vector<LogLine> lines;
    return lines;
  }
  static void capture(const char* tag, int level, const char* text) {
    captured().push_back(LogLine{tag, level, text});
  }
  mp4stbl::LogSink previous_;
};

// The null-argument line of a function, less its source line number.
bool isNullParamLine(const LogLine& line, const std::string& function);
