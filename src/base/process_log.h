#pragma once

#include <memory>

#include "base/log_writer.h"

namespace corvane {

// The process-wide log writer; absent before start-up has made it and after
// teardown, when log calls are skipped.
extern std::unique_ptr<LogWriter> g_logWriter;

// Writes one line through the process-wide log writer, if there is one.
void WriteLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace corvane
