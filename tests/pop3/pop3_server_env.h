#pragma once

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

namespace corvane::test {

// The "KEY=value" lines a test server's start script wrote (pop3.env: ports,
// CA files, the log, and per mailbox role such as SMALL or BULK its user,
// password and maildir), from the file $`override` names, else `defaultPath`.
class Pop3ServerEnv {
 public:
  struct Account {
    std::string user, password, maildir;
  };
  explicit Pop3ServerEnv(const std::string& defaultPath, const char* override = "CORVANE_POP3_ENV")
      : path_(std::getenv(override) && *std::getenv(override) ? std::getenv(override)
                                                              : defaultPath) {
    std::ifstream in(path_);
    for (std::string line; std::getline(in, line);) {
      if (size_t at = line.find('='); at != std::string::npos)
        values_[line.substr(0, at)] = line.substr(at + 1);
    }
  }
  // True when the file was there with the keys every user of it needs.
  bool ok() const {
    return !(Get("POP3_HOST").empty() || Get("POP3_PORT").empty() || Get("POP3S_PORT").empty() ||
             Get("CA_FILE").empty() || Get("LOG_FILE").empty());
  }
  const std::string& path() const { return path_; }
  std::string Get(const std::string& key) const {
    return values_.contains(key) ? values_.at(key) : std::string();
  }
  unsigned Port(const std::string& key) const {
    return std::strtoul(Get(key).c_str(), nullptr, 10);
  }
  Account Mailbox(const std::string& role) const {
    return {Get(role + "_USER"), Get(role + "_PASS"), Get(role + "_MAILDIR")};
  }

 private:
  std::string path_;
  std::map<std::string, std::string> values_;
};

}  // namespace corvane::test
