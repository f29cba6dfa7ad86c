#include "support/log_capture.h"

#include <ostream>
#include <regex>

namespace {

std::vector<LogLine>& captured() {
  static std::vector<LogLine> lines;
  return lines;
}

void capture(const char* tag, int level, const char* text) {
  captured().push_back(LogLine{tag, level, text});
}

}  // namespace

LogCapture::LogCapture() : previous_(QX_LOG_SetHandler(&capture)) { captured().clear(); }

LogCapture::~LogCapture() {
  QX_LOG_SetHandler(previous_);
  captured().clear();
}

const std::vector<LogLine>& LogCapture::lines() const { return captured(); }

LogLine LogCapture::only() const {
  return captured().size() == 1 ? captured().front() : LogLine{"", -1, ""};
}

void LogCapture::clear() { captured().clear(); }

bool isNullParamLine(const LogLine& line, const std::string& function) {
  static const std::regex pattern("HvccAtom::(\\w+):\\d+ input parameter null \n");
  std::smatch match;
  return line.tag == "MP4" && line.level == 3 && std::regex_match(line.text, match, pattern) &&
         match[1] == function;
}

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << "{" << line.tag << ", " << line.level << ", \"" << line.text << "\"}";
}
