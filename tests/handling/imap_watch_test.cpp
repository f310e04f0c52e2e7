// The IMAP watch against scripted servers: an account is checked at once and
// again whenever IDLE reports a change, a dropped connection is opened again,
// and a server without IDLE, or past the watch's capacity, is given back to
// the pass.
#include "handling/imap_watch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/scripted_peer.h"

namespace corvane {
namespace {

using namespace test;

std::shared_ptr<Account> AccountOn(uint16_t port) {
  auto account = std::make_shared<Account>();
  account->login = "joe";
  account->password = "pw";
  account->pop3Host = "127.0.0.1";
  account->port = port;
  account->polling = 1;
  return account;
}

bool WaitUntil(const std::function<bool()>& condition) {
  for (int i = 0; i < 2000 && !condition(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return condition();
}

// Greeting, login and EXAMINE of an INBOX of `exists` messages.
std::vector<Step> Opened(const std::string& capabilities, int exists) {
  return Dialogue(
      "S: * OK ready\nC: A1 CAPABILITY\nS: * CAPABILITY IMAP4rev1\nS: A1 OK\n"
      "C: A2 LOGIN \"joe\" \"pw\"\nS: A2 OK [CAPABILITY IMAP4rev1" +
      capabilities + "] in\nC: A3 EXAMINE INBOX\nS: * " + std::to_string(exists) +
      " EXISTS\nS: * OK [UIDVALIDITY 7] v\nS: A3 OK [READ-ONLY] done");
}

TEST(ImapWatchTest, ChecksAtOnceAndOnEachChangeAndOpensADroppedConnectionAgain) {
  ScriptedPeer server(Join({Opened(" IDLE", 1),
                            Dialogue("C: A4 IDLE\nS: + idling"),
                            {Close()},
                            {Accept(4000)},
                            Opened(" IDLE", 1),
                            Dialogue("C: A4 IDLE\nS: + idling\nS: * 2 EXISTS\nC: DONE\nS: A4 OK "
                                     "done\nC: A5 IDLE\nS: + idling"),
                            {Drain()}}));
  std::atomic<int> checks{0};
  ImapWatch watch([&checks](Account&, MailboxSession&) { ++checks; });
  auto account = AccountOn(server.port());
  watch.WatchOnly({account});
  EXPECT_TRUE(watch.Owns(account->Key()));
  // At the start of each connection, and once for the change.
  EXPECT_TRUE(WaitUntil([&] { return checks == 3; })) << checks << server.Errors();
  watch.StopAll();  // ends the IDLE at once
  EXPECT_FALSE(watch.Owns(account->Key()));
  EXPECT_TRUE(server.Finish()) << server.Errors();
  EXPECT_EQ(server.Connections(), 2);
}

TEST(ImapWatchTest, AServerWithoutIdleIsLeftToThePass) {
  ScriptedPeer server(
      Join({Opened("", 0), Dialogue("C: A4 LOGOUT\nS: * BYE\nS: A4 OK bye"), {ExpectClose()}}));
  std::atomic<int> checks{0};
  ImapWatch watch([&checks](Account&, MailboxSession&) { ++checks; });
  auto account = AccountOn(server.port());
  watch.WatchOnly({account});
  EXPECT_TRUE(WaitUntil([&] { return !watch.Owns(account->Key()); }));
  EXPECT_TRUE(server.Finish()) << server.Errors();
  EXPECT_EQ(checks, 0);
  // Listed again, it stays the pass's; not listed, it is no one's.
  watch.WatchOnly({account});
  EXPECT_FALSE(watch.Owns(account->Key()));
  // Past the watch's capacity an account is the pass's too.
  ImapWatch one([](Account&, MailboxSession&) {}, 1);
  auto first = AccountOn(ClosedPort()), second = AccountOn(ClosedPort());
  second->login = "ann";
  one.WatchOnly({first, second});
  EXPECT_TRUE(one.Owns(first->Key()));
  EXPECT_FALSE(one.Owns(second->Key()));
}

}  // namespace
}  // namespace corvane
