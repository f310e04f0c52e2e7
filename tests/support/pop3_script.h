#pragma once

// Script pieces of a scripted POP3 server.
#include <string>
#include <vector>

#include "support/scripted_peer.h"

namespace corvane::test {

// The greeting and an accepted USER/PASS login of `user` with `password`.
inline std::vector<Step> Pop3Login(const std::string& user = "joe",
                                   const std::string& password = "pw") {
  return {Send("+OK ready\r\n"), Expect("USER " + user + "\r\n"), Send("+OK\r\n"),
          Expect("PASS " + password + "\r\n"), Send("+OK\r\n")};
}

// STAT answered with `count` messages and, when there are any, UIDL with
// `uidl` (its "number id\r\n" lines).
inline std::vector<Step> Pop3Listing(int count, const std::string& uidl) {
  std::vector<Step> steps = {Expect("STAT\r\n"), Send("+OK " + std::to_string(count) + " 999\r\n")};
  if (count > 0) {
    steps.push_back(Expect("UIDL\r\n"));
    steps.push_back(Send("+OK\r\n" + uidl + ".\r\n"));
  }
  return steps;
}

}  // namespace corvane::test
