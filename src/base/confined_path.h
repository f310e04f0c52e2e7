#pragma once

#include <optional>
#include <string>

namespace corvane {

// `path` with its links followed, when that lies inside `root` (its links
// followed too); nothing when it lies outside or cannot be resolved. Trailing
// components that do not exist yet (a directory still to be made) are judged
// by name, and ".." among them is refused.
std::optional<std::string> PathWithin(const std::string& path, const std::string& root);

// A local path a client named: itself when [Application] files_root is not
// set, else PathWithin that root.
std::optional<std::string> ClientLocalPath(const std::string& path);

}  // namespace corvane
