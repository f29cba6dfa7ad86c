// Logging of the box library: printf-style lines handed to a replaceable handler.
#pragma once

#include <string>

// tag is "MP4" for box messages and "IO" for stream failures; level 3 marks
// failures, 1 notices, 0 tracing.
#if defined(__GNUC__)
__attribute__((format(printf, 3, 4)))
#endif
void QX_LOG_Printf(const char* tag, int level, const char* format, ...);

// The one wording every box uses for a null argument.
#define QX_LOG_NULL_PARAM(function) \
  QX_LOG_Printf("MP4", 3, "HvccAtom::%s:%d %s \n", function, __LINE__, "input parameter null")

namespace mp4stbl {

using LogHandler = void (*)(const char* tag, int level, const char* text);

// Where log lines go: `handler` receives the lines of `lowestLevel` and
// above; lines below it are dropped before they are formatted, so tracing
// that nobody reads costs nothing. A null handler is the default: the
// library prints nothing, and a failure reaches the caller through the
// result of the call (and a FailureNote).
struct LogSink {
  LogHandler handler = nullptr;
  int lowestLevel = 3;
};

// Installs `sink` and returns the one it replaces.
LogSink setLogSink(LogSink sink);

// False when a line of this level would be dropped unformatted, so that
// loops can skip their tracing altogether.
bool logEnabled(int level);

// While one lives, the first failure line (level 3) logged on its thread is
// kept, whatever the sink: the reason an operation failed, for its result.
class FailureNote {
 public:
  FailureNote();
  ~FailureNote();
  FailureNote(const FailureNote&) = delete;
  FailureNote& operator=(const FailureNote&) = delete;

  // The line without its trailing newline and spaces; empty when none came.
  const std::string& text() const { return text_; }

 private:
  friend void noteFailure(const char* text);
  FailureNote* outer_;
  std::string text_;
};

}  // namespace mp4stbl
