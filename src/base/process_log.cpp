#include "base/process_log.h"

namespace corvane {

std::unique_ptr<LogWriter> g_logWriter;

void WriteLog(int level, const char* format, ...) {
  if (!g_logWriter) return;
  va_list args;
  va_start(args, format);
  g_logWriter->WriteV(level, format, args);
  va_end(args);
}

}  // namespace corvane
