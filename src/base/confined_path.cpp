#include "base/confined_path.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "base/service_settings.h"

namespace corvane {
namespace {

std::optional<std::string> RealPath(const std::string& path) {
  char resolved[PATH_MAX];
  if (::realpath(path.c_str(), resolved) == nullptr) return std::nullopt;
  return std::string(resolved);
}

}  // namespace

std::optional<std::string> PathWithin(const std::string& path, const std::string& root) {
  const auto realRoot = RealPath(root);
  if (!realRoot || path.empty()) return std::nullopt;
  std::string existing = path, missing;
  std::optional<std::string> resolved;
  while (!(resolved = RealPath(existing))) {
    // Only a missing component may be left for later, nothing unreadable.
    if (errno != ENOENT || existing == "." || existing == "/") return std::nullopt;
    while (existing.size() > 1 && existing.back() == '/') existing.pop_back();
    // A link to nowhere is not missing: writing through it makes its target.
    struct stat link;
    if (::lstat(existing.c_str(), &link) == 0) return std::nullopt;
    const size_t cut = existing.find_last_of('/');
    const std::string last = existing.substr(cut == std::string::npos ? 0 : cut + 1);
    if (last == "..") return std::nullopt;
    if (last != "." && !last.empty()) missing = "/" + last + missing;
    // What is left: the directory above, or the working directory.
    existing.resize(cut == std::string::npos ? 0 : cut == 0 ? 1 : cut);
    if (existing.empty()) existing.push_back('.');
  }
  std::string full = *resolved == "/" && !missing.empty() ? missing : *resolved + missing;
  const bool inside = full == *realRoot || *realRoot == "/" ||
                      full.compare(0, realRoot->size() + 1, *realRoot + "/") == 0;
  if (!inside) return std::nullopt;
  return full;
}

std::optional<std::string> ClientLocalPath(const std::string& path) {
  if (!g_settings.filesRoot) return path;
  return PathWithin(path, *g_settings.filesRoot);
}

}  // namespace corvane
