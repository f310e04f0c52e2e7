#include "transport/console.h"

#include <cstdarg>
#include <cstdio>

namespace corvane {

void Console(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(stdout, format, args);
  va_end(args);
  std::fflush(stdout);
}

}  // namespace corvane
