#pragma once

#include <string>
#include <string_view>

namespace corvane {

// Where the configuration, the state (account.dat, cache/, temp/) and the
// logs live when not beside the executable; an empty one is the program
// directory.
struct FileLayout {
  std::string configDirectory, stateDirectory, logDirectory;

  // systemd's CONFIGURATION_DIRECTORY, STATE_DIRECTORY and LOGS_DIRECTORY
  // (set for a unit that asks for them), each else the build's packaged
  // layout (empty in a plain build).
  static FileLayout FromEnvironment();
};

// Where the gateway keeps its files: under the directory of the running
// executable, except where the layout puts them elsewhere.
struct ProgramPaths {
  std::string directory;  // the state's home; no trailing separator
  std::string configFile;
  std::string accountFile;
  std::string tempDirectory;  // each directory ends with "/"
  std::string logDirectory;
  std::string cacheDirectory;

  static ProgramPaths ForDirectory(std::string programDirectory, const FileLayout& layout = {});
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
