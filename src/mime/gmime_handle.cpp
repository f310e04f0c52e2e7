#include "mime/gmime_handle.h"

#include <mutex>

namespace corvane {

void EnsureGMimeInitialised() {
  // Never shut down: parsers may run on any thread until the process exits.
  static std::once_flag once;
  std::call_once(once, [] { g_mime_init(); });
}

}  // namespace corvane
