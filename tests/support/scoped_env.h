#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace corvane::test {

// Sets (or, given null, removes) an environment variable for one test and
// puts the old value back.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  ScopedEnv(const char* name, const std::string& value) : ScopedEnv(name, value.c_str()) {}
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

}  // namespace corvane::test
