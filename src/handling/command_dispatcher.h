#pragma once

#include <string>
#include <string_view>

namespace corvane {

// Turns one decoded request into one serialized answer: parses the container,
// runs the operation its "Command" names and writes "Command", "Status" and
// "Log" (on failure) under "sysRESPONSE". Holds no state; safe for concurrent
// calls from every connection's work thread.
class CommandDispatcher {
 public:
  std::string Dispatch(std::string_view request) const;
};

}  // namespace corvane
