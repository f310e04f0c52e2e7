#pragma once

// Script pieces of a scripted SMTP server, and reading the message it took.
#include <string>
#include <vector>

#include "support/scripted_peer.h"

namespace corvane::test {

// The greeting, the client's EHLO as "localhost" and `ehloReply`.
inline std::vector<Step> SmtpGreeting(const std::string& ehloReply) {
  return {Send("220 mail.test ESMTP\r\n"), Expect("EHLO localhost\r\n"), Send(ehloReply)};
}

// One accepted transaction for `recipient` from `sender`, its data section
// up to its final "." line into `data`.
inline std::vector<Step> SmtpTransaction(const std::string& sender, const std::string& recipient,
                                         std::string& data) {
  Step takeData = Do([&data](PeerSession& session, std::string& error) {
    for (std::string line; session.ReadLine(line, kPeerWaitMs);) {
      data += line;
      if (line == ".\r\n") return true;
    }
    error = "the message ended without its \".\" line: " + Printable(data);
    return false;
  });
  return {Expect("MAIL FROM:<" + sender + ">\r\n"),
          Send("250 OK\r\n"),
          Expect("RCPT TO:<" + recipient + ">\r\n"),
          Send("250 Accepted\r\n"),
          Expect("DATA\r\n"),
          Send("354 Enter message\r\n"),
          takeData,
          Send("250 OK id=1\r\n")};
}

// The value of header `name` of a message (folds kept), empty when missing.
inline std::string HeaderOf(const std::string& message, const std::string& name) {
  bool first = message.starts_with(name + ": ");
  size_t at = first ? 0 : message.find("\r\n" + name + ": ");
  if (at == std::string::npos || (!first && at >= message.find("\r\n\r\n"))) return {};
  size_t start = at + (first ? 0 : 2) + name.size() + 2, end = message.find("\r\n", start);
  while (end != std::string::npos && end + 2 < message.size() &&
         (message[end + 2] == '\t' || message[end + 2] == ' ')) {
    end = message.find("\r\n", end + 2);
  }
  return message.substr(start, end - start);
}

}  // namespace corvane::test
