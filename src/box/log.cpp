#include "box/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace mp4stbl {

namespace {

// A library embedded in another program keeps quiet unless asked: its
// failures reach the caller through results.
void dropLine(const char*, int, const char*) {}

// Above every level, so that nothing is formatted for nobody.
constexpr int kSilent = 4;

std::atomic<LogHandler> currentHandler{&dropLine};
std::atomic<int> currentLowest{kSilent};
thread_local FailureNote* innermostNote = nullptr;

}  // namespace

LogSink setLogSink(LogSink sink) {
  LogHandler handler = sink.handler != nullptr ? sink.handler : &dropLine;
  const int lowest = sink.handler != nullptr ? sink.lowestLevel : kSilent;
  LogSink previous{currentHandler.exchange(handler), currentLowest.exchange(lowest)};
  if (previous.handler == &dropLine) previous.handler = nullptr;
  return previous;
}

bool logEnabled(int level) {
  return level >= currentLowest.load(std::memory_order_relaxed) ||
         (level >= 3 && innermostNote != nullptr);
}

FailureNote::FailureNote() : outer_(innermostNote) { innermostNote = this; }

FailureNote::~FailureNote() { innermostNote = outer_; }

void noteFailure(const char* text) {
  FailureNote* note = innermostNote;
  if (note == nullptr || !note->text_.empty()) return;
  note->text_ = text;
  while (!note->text_.empty() && (note->text_.back() == '\n' || note->text_.back() == ' ')) {
    note->text_.pop_back();
  }
}

}  // namespace mp4stbl

namespace {

void deliver(const char* tag, int level, const char* text) {
  if (level >= 3) mp4stbl::noteFailure(text);
  if (level >= mp4stbl::currentLowest.load(std::memory_order_relaxed)) {
    mp4stbl::currentHandler.load(std::memory_order_relaxed)(tag, level, text);
  }
}

}  // namespace

void QX_LOG_Printf(const char* tag, int level, const char* format, ...) {
  if (!mp4stbl::logEnabled(level)) return;
  char small[256];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (length >= 0 && static_cast<size_t>(length) < sizeof small) {
    deliver(tag, level, small);
  } else if (length >= 0) {
    std::vector<char> large(static_cast<size_t>(length) + 1);
    std::vsnprintf(large.data(), large.size(), format, again);
    deliver(tag, level, large.data());
  }
  va_end(again);
}
