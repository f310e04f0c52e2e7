#pragma once

#include <cstddef>
#include <string>

namespace corvane {

// The headers of one listing or check that could not be read: the first is
// logged with its error and, at the end, how many more there were. A server
// that lists 100,000 ids and then fails every header must not write a log
// line for each, on every pass.
class HeaderReadFailures {
 public:
  explicit HeaderReadFailures(std::string login) : login_(std::move(login)) {}
  ~HeaderReadFailures();
  HeaderReadFailures(const HeaderReadFailures&) = delete;
  HeaderReadFailures& operator=(const HeaderReadFailures&) = delete;

  void Add(int result);

 private:
  const std::string login_;
  size_t count_ = 0;
};

}  // namespace corvane
