#include "mail/cached_message.h"

namespace corvane {

std::string CachedMessagePath(const std::string& cacheDirectory, const std::string& uid) {
  std::string path = cacheDirectory;
  for (char c : uid) {
    if (c == '/') {
      path += "%2F";
    } else if (c == '%') {
      path += "%25";
    } else {
      path += c;
    }
  }
  path += ".txt";
  return path;
}

}  // namespace corvane
