#include "base/program_paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

namespace corvane {

ProgramPaths ProgramPaths::ForDirectory(std::string directory) {
  ProgramPaths paths;
  paths.directory = std::move(directory);
  paths.configFile = paths.directory + "/config.ini";
  paths.accountFile = paths.directory + "/account.dat";
  paths.tempDirectory = paths.directory + "/temp/";
  paths.logDirectory = paths.directory + "/log/";
  paths.cacheDirectory = paths.directory + "/cache/";
  return paths;
}

std::string ProgramDirectoryFromPath(std::string executablePath) {
  size_t cut = executablePath.find_last_of("/\\");
  if (cut == std::string::npos) return {};
  executablePath.resize(cut);
  return executablePath;
}

std::string ExecutablePath() {
  char path[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return {};
  return std::string(path, static_cast<size_t>(length));
}

void EnsureDirectory(const std::string& path) {
  struct stat info;
  if (path.empty() || stat(path.c_str(), &info) == 0) return;
  // Walk the components from the top, making each one that is missing. The
  // process's working directory is left alone: threads share it.
  size_t position = path.find_first_not_of("/\\");
  std::string prefix = path.substr(0, position == std::string::npos ? path.size() : position);
  while (position != std::string::npos && position < path.size()) {
    size_t end = path.find_first_of("/\\", position);
    if (end == std::string::npos) end = path.size();
    prefix += path.substr(position, end - position);
    if (stat(prefix.c_str(), &info) != 0) mkdir(prefix.c_str(), 0755);
    prefix += '/';
    position = path.find_first_not_of("/\\", end);
  }
}

std::string EscapeFileNamePart(std::string_view text, std::string_view alsoEscaped) {
  if (text == ".") return "%2E";
  if (text == "..") return "%2E%2E";
  std::string escaped;
  escaped.reserve(text.size());
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7F || c == '/' || c == '\\' || c == '%' ||
        alsoEscaped.find(static_cast<char>(c)) != std::string_view::npos) {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02X", c);
      escaped += code;
    } else {
      escaped += static_cast<char>(c);
    }
  }
  return escaped;
}

}  // namespace corvane
