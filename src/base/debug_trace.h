#pragma once

#include <cstdarg>

namespace corvane {

// Trace line of the service wrapper: "[<service>](<thread id>): <message>",
// at most 1024 bytes, sent to syslog at debug severity whatever the log level,
// and also to standard error when CORVANE_TRACE is "stderr".
void DebugTrace(const char* serviceName, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

void DebugTraceV(const char* serviceName, const char* format, va_list args);

// Formats the trace line without sending it.
int FormatDebugTrace(char (&line)[1024], const char* serviceName, unsigned long threadId,
                     const char* format, ...) __attribute__((format(printf, 4, 5)));

}  // namespace corvane
