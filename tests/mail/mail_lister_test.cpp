// The listing against scripted POP3 servers: what is fetched, what is taken
// from the list cache, and how the known-id list and cached texts follow the
// server.
#include "mail/mail_lister.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/mail_request.h"
#include "support/pop3_script.h"
#include "support/scoped_env.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::Close;
using test::Entry;
using test::Expect;
using test::ScriptedPeer;
using test::Send;
using test::Step;

class MailListerTest : public ::testing::Test {
 protected:
  // Dates are rendered in local time: make that UTC.
  void SetUp() override { tzset(); }
  void TearDown() override { tzset(); }
  // A login, the count and the id list, then `rest`, then QUIT.
  static std::vector<Step> Session(int count, const std::string& uidl, std::vector<Step> rest,
                                   const std::string& login = "joe") {
    return test::Join({test::Pop3Login(login),
                       test::Pop3Listing(count, uidl),
                       std::move(rest),
                       {Expect("QUIT\r\n"), Send("+OK\r\n")}});
  }

  // Runs one listing the way the dispatcher does; the answer's entries.
  std::string List(ScriptedPeer& peer, int subjectLength = 0, const std::string& encode = "gb2312",
                   const std::string& login = "joe") {
    std::string bytes = test::MailRequest({{"Pop3", "127.0.0.1"},
                                           {"Port", std::to_string(peer.port())},
                                           {"Login", login},
                                           {"Pwd", "pw"}},
                                          {{"Encode", encode}});
    RequestFields request(bytes.data(), bytes.size());
    wxEntryLog answer;
    answer.SetRecording(true);
    {
      MailLister lister(request, registry_);
      if (lister.Open(answer) == 0) {
        lister.GatherItems(subjectLength);
        lister.WriteRows(answer);
        lister.UpdateKnownUids();
      }
    }
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    return answer.Serialize();
  }
  // Files of joe's cache on the peer's server.
  std::string CachePath(const ScriptedPeer& peer, const std::string& name) const {
    return dir_ / ("cache/joe@127.0.0.1:" + std::to_string(peer.port()) + "/" + name);
  }
  void WriteCacheFile(const ScriptedPeer& peer, const std::string& name, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(CachePath(peer, name)).parent_path());
    test::WriteFile(CachePath(peer, name), text);
  }

  test::ScopedEnv utc_{"TZ", "UTC"};
  test::TempDir dir_;
  AccountRegistry registry_{dir_ / "account.dat", dir_.path()};
};

std::string Header(const std::string& lines) {
  return "+OK\r\n" + lines + "\r\n.\r\n";
}

std::string Row(const std::string& uid, const std::string& from, const std::string& subject,
                const std::string& date, const std::string& flag) {
  return CountedString::Encode(uid) + CountedString::Encode(from) + CountedString::Encode(subject) +
         CountedString::Encode(date) + CountedString::Encode(flag);
}

TEST_F(MailListerTest, SubjectsAreShortenedWholeCharactersAndOnlyMixedWithParametersIsFlagged) {
  ScriptedPeer peer(Session(
      3, "1 a\r\n2 b\r\n3 c\r\n",
      {Expect("TOP 1 0\r\n"),
       Send(Header("From: Zhang \xd5\xc5 <z@example.com>\r\nSubject: 0123456789\r\n"
                   "Content-Type: multipart/mixed\r\n")),
       Expect("TOP 2 0\r\n"),
       // The 5th byte starts a two-byte character: the cut moves before it.
       Send(Header("Subject: abcd\xd6\xd0\xce\xc4xyz\r\nContent-Type: multipart/mixed; "
                   "boundary=\"b\"\r\n")),
       Expect("TOP 3 0\r\n"), Send(Header("Subject: 0123456\r\nContent-Type: text/plain\r\n"))}));
  std::string answer = List(peer, 5, "utf-8");
  std::string date = "1970-01-01 00:00";
  // A plain 8-bit sender is passed on without conversion.
  EXPECT_EQ(answer, test::SuccessHead() +
                        Entry(2, "Row0",
                              Row("a", "Zhang \xd5\xc5 <z@example.com>", "01234...", date, "0")) +
                        Entry(2, "Row1", Row("b", "", "abcd...", date, "1")) +
                        // 7 bytes with limit 5: 5 >= 7 - 3, unchanged.
                        Entry(2, "Row2", Row("c", "", "0123456", date, "0")));
}

TEST_F(MailListerTest, AHeaderThatCannotBeFetchedIsLeftOutAndCountsAsGone) {
  ScriptedPeer peer(Session(1, "1 a\r\n", {Expect("TOP 1 0\r\n"), Send("-ERR busy\r\n")}));
  WriteCacheFile(peer, "list.cache", "1\r\nold\r\n5\r\n" + Row("old", "", "", "", "0") + "\r\n");
  WriteCacheFile(peer, "mail.list", "a,old");
  WriteCacheFile(peer, "a.txt", "cached a");
  WriteCacheFile(peer, "old.txt", "cached old");
  std::string answer = List(peer);
  EXPECT_EQ(answer, test::SuccessHead());
  // Nothing was gathered: the old cache file stays as it was.
  EXPECT_EQ(test::ReadFile(CachePath(peer, "list.cache")),
            "1\r\nold\r\n5\r\n" + Row("old", "", "", "", "0") + "\r\n");
  EXPECT_FALSE(std::filesystem::exists(CachePath(peer, "mail.list")));
  EXPECT_FALSE(std::filesystem::exists(CachePath(peer, "a.txt")));
  EXPECT_FALSE(std::filesystem::exists(CachePath(peer, "old.txt")));
}

TEST_F(MailListerTest, ACutShortCacheGivesHitsForTheTriplesBeforeTheCut) {
  std::string rowA = Row("a", "cached sender", "cached subject", "2010-01-05 08:30", "1");
  ScriptedPeer peer(
      Session(2, "1 a\r\n2 b\r\n",
              {Expect("TOP 2 0\r\n"),
               Send(Header("Subject: fresh\r\nDate: Tue, 5 Jan 2010 08:30:00 +0800\r\n"))}));
  WriteCacheFile(peer, "list.cache", "3\r\na\r\n1262651400\r\n" + rowA + "\r\nb\r\n12");
  std::string answer = List(peer);
  ASSERT_EQ(answer.find(test::SuccessHead() + Entry(2, "Row0", rowA)), 0u) << answer;
  EXPECT_NE(answer.find(CountedString::Encode("fresh")), std::string::npos);
  std::string rewritten = test::ReadFile(CachePath(peer, "list.cache"));
  std::string kept = "2\r\na\r\n1262651400\r\n" + rowA + "\r\n";
  EXPECT_EQ(rewritten.substr(0, kept.size()), kept);
  EXPECT_EQ(test::ReadFile(CachePath(peer, "mail.list")), "a,b");
}

TEST_F(MailListerTest, ARegisteredAccountKeepsItsListInMemoryAndOnDisk) {
  ScriptedPeer peer(Session(2, "1 a\r\n2 b\r\n",
                            {Expect("TOP 1 0\r\n"), Send(Header("Subject: one\r\n")),
                             Expect("TOP 2 0\r\n"), Send(Header("Subject: two\r\n"))}));
  auto account = std::make_shared<Account>();
  account->login = "joe";
  account->pop3Host = "127.0.0.1";
  account->port = peer.port();
  ASSERT_TRUE(registry_.Add(account));
  WriteCacheFile(peer, "mail.list", "gone,a");
  WriteCacheFile(peer, "gone.txt", "x");
  List(peer);
  EXPECT_TRUE(account->knownUidsLoaded);
  EXPECT_EQ(account->knownUids, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(test::ReadFile(CachePath(peer, "mail.list")), "a,b");
  EXPECT_FALSE(std::filesystem::exists(CachePath(peer, "gone.txt")));
}

TEST_F(MailListerTest, AnEmptyMailboxDropsTheCacheAndEveryKnownId) {
  ScriptedPeer peer(Session(0, "", {}));
  WriteCacheFile(peer, "list.cache", "1\r\na\r\n0\r\nrow\r\n");
  WriteCacheFile(peer, "mail.list", "a");
  WriteCacheFile(peer, "a.txt", "x");
  EXPECT_EQ(List(peer), Entry(2, "Status", "success"));
  for (const char* name : {"list.cache", "mail.list", "a.txt"}) {
    EXPECT_FALSE(std::filesystem::exists(CachePath(peer, name))) << name;
  }
}

TEST_F(MailListerTest, HeaderTextFromASenderGivesOneRowAndOneCacheEntryPerMessage) {
  const std::string longSubject(3000, 'A');
  struct Case {
    std::string header;
    std::string from;
    std::string subject;
  };
  const std::vector<Case> cases = {
      {"Subject: =?utf-8?Q?Hi=0D=0A3=0D=0Abank=0D=0A?=", "", "Hi  3  bank  "},
      {"From: =?utf-8?Q?evil=0Dx?=\r\nSubject: =?utf-8?Q?cut=00forged?=", "evil x", "cut"},
      {"Subject: =?utf-8?Q?lone=0Aline=09tab?=", "", "lone line tab"},
      {"Subject: =?utf-8?Q?..=2F..=2F%2e%2e?=", "", "../../%2e%2e"},
      {"Subject: " + longSubject, "", longSubject},
  };
  std::string uidl;
  std::vector<Step> tops;
  std::string rows;
  for (size_t i = 0; i < cases.size(); ++i) {
    std::string number = std::to_string(i + 1);
    uidl += number + " u" + number + "\r\n";
    tops.push_back(Expect("TOP " + number + " 0\r\n"));
    tops.push_back(Send(Header(cases[i].header + "\r\n")));
    rows += Entry(2, "Row" + std::to_string(i),
                  Row("u" + number, cases[i].from, cases[i].subject, "1970-01-01 00:00", "0"));
  }
  ScriptedPeer fresh(Session(static_cast<int>(cases.size()), uidl, tops));
  EXPECT_EQ(List(fresh, 0, "utf-8"), test::SuccessHead() + rows);
  std::string cache = test::ReadFile(CachePath(fresh, "list.cache"));
  EXPECT_EQ(std::count(cache.begin(), cache.end(), '\n'), 1 + 3 * 5) << cache;

  // The next listing takes every row from the cache, and they are the same.
  std::filesystem::rename(std::filesystem::path(CachePath(fresh, "")).parent_path(),
                          dir_ / "moved");
  ScriptedPeer cached(Session(static_cast<int>(cases.size()), uidl, {}));
  std::filesystem::rename(dir_ / "moved",
                          std::filesystem::path(CachePath(cached, "")).parent_path());
  EXPECT_EQ(List(cached, 0, "utf-8"), test::SuccessHead() + rows);
}

TEST_F(MailListerTest, ARegisteredLoginOnAnotherServerNeitherSeesNorPrunesItsCache) {
  ScriptedPeer other(Session(0, "", {}, "ann@example.com"));
  auto account = std::make_shared<Account>();
  account->login = "ann@example.com";
  account->pop3Host = "127.0.0.1";
  account->port = other.port() + 1;  // the registered mailbox is elsewhere
  ASSERT_TRUE(registry_.Add(account));
  std::filesystem::create_directories(account->cacheDirectory);
  test::WriteFile(account->mailListPath, "m1,m2");
  test::WriteFile(account->cacheDirectory + "m1.txt", "ann's mail");
  test::WriteFile(account->cacheDirectory + "list.cache", "1\r\nm1\r\n0\r\nrow\r\n");

  EXPECT_EQ(List(other, 0, "gb2312", "ann@example.com"), Entry(2, "Status", "success"));
  EXPECT_FALSE(account->knownUidsLoaded);
  EXPECT_EQ(test::ReadFile(account->mailListPath), "m1,m2");
  EXPECT_EQ(test::ReadFile(account->cacheDirectory + "m1.txt"), "ann's mail");
  EXPECT_TRUE(std::filesystem::exists(account->cacheDirectory + "list.cache"));
}

TEST_F(MailListerTest, ALoginCannotLeadOutOfItsCacheDirectory) {
  // Refused at login: not even a directory is made.
  ScriptedPeer refusing({Send("+OK ready\r\n"), Expect("USER x@/../..\r\n"), Send("-ERR no\r\n")});
  List(refusing, 0, "gb2312", "x@/../..");
  EXPECT_FALSE(std::filesystem::exists(dir_ / "cache"));

  for (const char* login : {"x@/..", "x@/../..", "..", "a\\..\\..", "%2e%2e"}) {
    SCOPED_TRACE(login);
    ScriptedPeer peer(
        Session(1, "1 a\r\n", {Expect("TOP 1 0\r\n"), Send(Header("Subject: s"))}, login));
    List(peer, 0, "gb2312", login);
  }
  // Every file is inside one mailbox directory of cache/.
  int files = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_.path())) {
    if (!entry.is_regular_file()) continue;
    ++files;
    EXPECT_EQ(entry.path().parent_path().parent_path(), dir_ / "cache") << entry.path();
  }
  EXPECT_EQ(files, 10);  // list.cache and mail.list of each
}

}  // namespace
}  // namespace corvane
