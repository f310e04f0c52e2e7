#include "mail/cached_message.h"

#include "base/program_paths.h"

namespace corvane {

std::string CachedMessagePath(const std::string& cacheDirectory, const std::string& uid) {
  return cacheDirectory + EscapeFileNamePart(uid) + ".txt";
}

}  // namespace corvane
