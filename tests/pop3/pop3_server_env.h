#pragma once

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

namespace corvane::test {

// What tests/servers/pop3-server start wrote into pop3.env about the private
// dovecot: ports, the CA files, the log, and per mailbox role (SMALL, BULK,
// BIG, EMPTY, SCRATCH, CORPUS, DROP, NOTIFY) its user, password and maildir.
class Pop3ServerEnv {
 public:
  struct Account {
    std::string user;
    std::string password;
    std::string maildir;
  };

  // Reads the file named by the variable `override` ($CORVANE_POP3_ENV), else
  // `defaultPath`. The other test servers write env files of the same form.
  explicit Pop3ServerEnv(const std::string& defaultPath,
                         const char* override = "CORVANE_POP3_ENV") {
    const char* named = std::getenv(override);
    path_ = named && *named ? named : defaultPath;
    std::ifstream in(path_);
    std::string line;
    while (std::getline(in, line)) {
      size_t equals = line.find('=');
      if (equals != std::string::npos) values_[line.substr(0, equals)] = line.substr(equals + 1);
    }
  }

  // True when the file was there with the keys every user of it needs.
  bool ok() const {
    for (const char* key : {"POP3_HOST", "POP3_PORT", "POP3S_PORT", "CA_FILE", "LOG_FILE"}) {
      if (Get(key).empty()) return false;
    }
    return true;
  }
  const std::string& path() const { return path_; }

  // The value of `key`, empty when the file does not have it.
  std::string Get(const std::string& key) const {
    auto found = values_.find(key);
    return found == values_.end() ? std::string() : found->second;
  }
  unsigned Port(const std::string& key) const {
    return static_cast<unsigned>(std::strtoul(Get(key).c_str(), nullptr, 10));
  }
  Account Mailbox(const std::string& role) const {
    return {Get(role + "_USER"), Get(role + "_PASS"), Get(role + "_MAILDIR")};
  }

 private:
  std::string path_;
  std::map<std::string, std::string> values_;
};

}  // namespace corvane::test
