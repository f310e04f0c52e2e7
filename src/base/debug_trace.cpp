#include "base/debug_trace.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace corvane {
namespace {

int FormatV(char (&line)[1024], const char* serviceName, unsigned long threadId, const char* format,
            va_list args) {
  int used = std::snprintf(line, sizeof line, "[%s](%lu): ", serviceName, threadId);
  if (used < 0 || static_cast<size_t>(used) >= sizeof line - 1) return used;
  int more = std::vsnprintf(line + used, sizeof line - used, format, args);
  if (more > 0) used += more;
  if (static_cast<size_t>(used) < sizeof line - 1) {
    line[used++] = '\n';
    line[used] = '\0';
  }
  return used;
}

}  // namespace

int FormatDebugTrace(char (&line)[1024], const char* serviceName, unsigned long threadId,
                     const char* format, ...) {
  va_list args;
  va_start(args, format);
  int used = FormatV(line, serviceName, threadId, format, args);
  va_end(args);
  return used;
}

void DebugTraceV(const char* serviceName, const char* format, va_list args) {
  char line[1024];
  FormatV(line, serviceName, static_cast<unsigned long>(gettid()), format, args);
  syslog(LOG_DAEMON | LOG_DEBUG, "%s", line);
  // Where no syslog daemon listens (a container), a foreground run can
  // have its trace on standard error instead.
  if (const char* copy = std::getenv("CORVANE_TRACE"); copy && std::strcmp(copy, "stderr") == 0) {
    std::fputs(line, stderr);
  }
}

void DebugTrace(const char* serviceName, const char* format, ...) {
  va_list args;
  va_start(args, format);
  DebugTraceV(serviceName, format, args);
  va_end(args);
}

}  // namespace corvane
