// Logging of the box library: printf-style lines handed to a replaceable handler.
#pragma once

// tag is "MP4" for box messages and "IO" for stream failures; level 3 marks
// failures, 1 notices, 0 tracing.
using QxLogHandler = void (*)(const char* tag, int level, const char* text);

// Installs handler and returns the previous one; null restores the default,
// which prints level-3 lines to stderr and drops the rest.
QxLogHandler QX_LOG_SetHandler(QxLogHandler handler);

// False when a line of this level would be dropped unformatted (the default
// handler keeps only failures), so that loops can skip tracing altogether.
bool QX_LOG_Enabled(int level);

#if defined(__GNUC__)
__attribute__((format(printf, 3, 4)))
#endif
void QX_LOG_Printf(const char* tag, int level, const char* format, ...);

// The one wording every box uses for a null argument.
#define QX_LOG_NULL_PARAM(function) \
  QX_LOG_Printf("MP4", 3, "HvccAtom::%s:%d %s \n", function, __LINE__, "input parameter null")
