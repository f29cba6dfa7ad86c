#include "box/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace {

void defaultHandler(const char* tag, int level, const char* text) {
  if (level >= 3) std::fprintf(stderr, "[%s] %s", tag, text);
}

std::atomic<QxLogHandler> currentHandler{&defaultHandler};

}  // namespace

QxLogHandler QX_LOG_SetHandler(QxLogHandler handler) {
  QxLogHandler previous = currentHandler.exchange(handler ? handler : &defaultHandler);
  return previous == &defaultHandler ? nullptr : previous;
}

bool QX_LOG_Enabled(int level) {
  return level >= 3 || currentHandler.load(std::memory_order_relaxed) != &defaultHandler;
}

void QX_LOG_Printf(const char* tag, int level, const char* format, ...) {
  // Tracing lines sit on per-entry paths; the default handler drops them, so
  // they are not even formatted.
  if (!QX_LOG_Enabled(level)) return;
  QxLogHandler handler = currentHandler.load(std::memory_order_relaxed);

  char small[256];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (length < 0) {
    va_end(again);
    return;
  }
  if (static_cast<size_t>(length) < sizeof small) {
    va_end(again);
    handler(tag, level, small);
    return;
  }
  std::vector<char> large(static_cast<size_t>(length) + 1);
  std::vsnprintf(large.data(), large.size(), format, again);
  va_end(again);
  handler(tag, level, large.data());
}
