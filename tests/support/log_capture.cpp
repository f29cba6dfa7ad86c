#include "support/log_capture.h"

#include <regex>

bool isNullParamLine(const LogLine& line, const std::string& function) {
  static const std::regex pattern("HvccAtom::(\\w+):\\d+ input parameter null \n");
  std::smatch match;
  return line.tag == "MP4" && line.level == 3 && std::regex_match(line.text, match, pattern) &&
         match[1] == function;
}
