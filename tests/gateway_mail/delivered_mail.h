#pragma once

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "support/temp_dir.h"

namespace corvane::test {

// The path of the message in `maildir` whose text holds `marker`, waiting
// up to 15 s for the MTA to deliver it; empty when it did not come.
inline std::string DeliveredFile(const std::string& maildir, const std::string& marker) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (std::chrono::steady_clock::now() < deadline) {
    for (const char* sub : {"/new", "/cur"}) {
      std::error_code error;
      for (const auto& entry : std::filesystem::directory_iterator(maildir + sub, error)) {
        if (ReadFile(entry.path()).find(marker) != std::string::npos) return entry.path();
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return {};
}

// The POP3 unique id of a delivered message: its file name up to the flags.
inline std::string MaildirId(const std::string& path) {
  std::string name = std::filesystem::path(path).filename();
  return name.substr(0, name.find(':'));
}

// A text no other test (or earlier run) uses.
inline std::string UniqueMarker(const std::string& what) {
  return what + " " + std::to_string(::getpid()) + "-" +
         std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

}  // namespace corvane::test
