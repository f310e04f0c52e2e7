#pragma once

#include <string>

namespace corvane {

// The file "<cache directory><id>.txt" that keeps a retrieved message. An id
// is server or client text, escaped like every part of a cache path
// (EscapeFileNamePart), so no id can name a file outside the cache directory.
std::string CachedMessagePath(const std::string& cacheDirectory, const std::string& uid);

}  // namespace corvane
