#pragma once

#include <string>
#include <string_view>

namespace corvane {

// Where the gateway keeps its files: everything lives under the directory of
// the running executable.
struct ProgramPaths {
  std::string directory;  // no trailing separator
  std::string configFile;
  std::string accountFile;
  std::string tempDirectory;  // each directory ends with "/"
  std::string logDirectory;
  std::string cacheDirectory;

  static ProgramPaths ForDirectory(std::string directory);
};

// Cuts an executable path at its last "/" or "\" (either separator counts);
// a path without one gives the empty text.
std::string ProgramDirectoryFromPath(std::string executablePath);

// The full path of the running executable, or empty if it cannot be read.
std::string ExecutablePath();

// Makes `path` and every missing directory above it. Nothing is done when the
// path exists already; a directory that cannot be made is not reported (later
// file operations in it fail on their own).
void EnsureDirectory(const std::string& path);

// `text` (a login, a host, a message id: outside text) made safe as part of
// one file name: "/", "\", "%" and control bytes, and every byte of
// `alsoEscaped`, written as "%XX", and "." and ".." with their dots escaped.
// Different texts stay different.
std::string EscapeFileNamePart(std::string_view text, std::string_view alsoEscaped = {});

}  // namespace corvane
