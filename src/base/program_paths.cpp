#include "base/program_paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace corvane {

#ifndef CORVANE_CONFIG_DIR
#define CORVANE_CONFIG_DIR ""
#define CORVANE_STATE_DIR ""
#define CORVANE_LOG_DIR ""
#endif

namespace {

std::string DirectoryFromEnvironment(const char* name, const char* builtIn) {
  const char* value = std::getenv(name);
  std::string directory = value != nullptr && *value != '\0' ? value : builtIn;
  // systemd lists several directories with ":"; this unit asks for one.
  directory.resize(std::min(directory.find(':'), directory.size()));
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  return directory;
}

}  // namespace

FileLayout FileLayout::FromEnvironment() {
  return {DirectoryFromEnvironment("CONFIGURATION_DIRECTORY", CORVANE_CONFIG_DIR),
          DirectoryFromEnvironment("STATE_DIRECTORY", CORVANE_STATE_DIR),
          DirectoryFromEnvironment("LOGS_DIRECTORY", CORVANE_LOG_DIR)};
}

ProgramPaths ProgramPaths::ForDirectory(std::string programDirectory, const FileLayout& layout) {
  auto orProgram = [&programDirectory](const std::string& chosen) {
    return chosen.empty() ? programDirectory : chosen;
  };
  ProgramPaths paths;
  paths.directory = orProgram(layout.stateDirectory);
  paths.configFile = orProgram(layout.configDirectory) + "/config.ini";
  paths.accountFile = paths.directory + "/account.dat";
  paths.tempDirectory = paths.directory + "/temp/";
  paths.logDirectory =
      layout.logDirectory.empty() ? programDirectory + "/log/" : layout.logDirectory + "/";
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
