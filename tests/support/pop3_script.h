#pragma once

// Script pieces of a scripted POP3 server.
#include <string>
#include <utility>
#include <vector>

#include "support/scripted_peer.h"

namespace corvane::test {

// The greeting and an accepted USER/PASS login of `user` with `password`.
inline std::vector<Step> Pop3Login(const std::string& user = "joe",
                                   const std::string& password = "pw") {
  return {Send("+OK ready\r\n"), Expect("USER " + user + "\r\n"), Send("+OK\r\n"),
          Expect("PASS " + password + "\r\n"), Send("+OK\r\n")};
}

// Each command (without its CRLF) with the bytes the server answers it with.
inline std::vector<Step> Pop3Exchange(
    const std::vector<std::pair<std::string, std::string>>& commandsAndReplies) {
  std::vector<Step> steps;
  for (const auto& [command, reply] : commandsAndReplies) {
    steps.insert(steps.end(), {Expect(command + "\r\n"), Send(reply)});
  }
  return steps;
}

// STAT answered with `count` messages and, when there are any, UIDL with
// `uidl` (its "number id\r\n" lines).
inline std::vector<Step> Pop3Listing(int count, const std::string& uidl) {
  if (count == 0) return Pop3Exchange({{"STAT", "+OK 0 999\r\n"}});
  return Pop3Exchange({{"STAT", "+OK " + std::to_string(count) + " 999\r\n"},
                       {"UIDL", "+OK\r\n" + uidl + ".\r\n"}});
}

}  // namespace corvane::test
