#include "mail/scratch_directory.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "base/process_log.h"

namespace corvane {

ScratchDirectory::ScratchDirectory(const std::string& parent) {
  std::string pattern = parent + "attachments.XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  made_ = mkdtemp(name.data()) != nullptr;
  if (!made_) {
    WriteLog(kLogError, "Create directory %s error: %s\n", pattern.c_str(), std::strerror(errno));
  }
  path_ = std::string(name.data()) + "/";
}

ScratchDirectory::~ScratchDirectory() {
  if (!made_) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace corvane
