// The listing against scripted POP3 servers: what is fetched, what is taken
// from the list cache, and how the known-id list and cached texts follow the
// server.
#include "mail/mail_lister.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/mail_request.h"
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
  static std::vector<Step> Session(int count, const std::string& uidl, std::vector<Step> rest) {
    std::vector<Step> steps = {Send("+OK ready\r\n"),
                               Expect("USER joe\r\n"),
                               Send("+OK\r\n"),
                               Expect("PASS pw\r\n"),
                               Send("+OK\r\n"),
                               Expect("STAT\r\n"),
                               Send("+OK " + std::to_string(count) + " 999\r\n")};
    if (count > 0) {
      steps.push_back(Expect("UIDL\r\n"));
      steps.push_back(Send("+OK\r\n" + uidl + ".\r\n"));
    }
    steps.insert(steps.end(), rest.begin(), rest.end());
    steps.push_back(Expect("QUIT\r\n"));
    steps.push_back(Send("+OK\r\n"));
    return steps;
  }

  // Runs one listing the way the dispatcher does; the answer's entries.
  std::string List(ScriptedPeer& peer, int subjectLength = 0,
                   const std::string& encode = "gb2312") {
    std::string bytes = test::MailRequest({{"Pop3", "127.0.0.1"},
                                           {"Port", std::to_string(peer.port())},
                                           {"Login", "joe"},
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
  std::string CachePath(const std::string& name) const {
    return dir_ / ("cache/joe@127.0.0.1/" + name);
  }
  void WriteCacheFile(const std::string& name, const std::string& text) {
    std::filesystem::create_directories(dir_ / "cache/joe@127.0.0.1");
    test::WriteFile(CachePath(name), text);
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
  WriteCacheFile("list.cache", "1\r\nold\r\n5\r\n" + Row("old", "", "", "", "0") + "\r\n");
  WriteCacheFile("mail.list", "a,old");
  WriteCacheFile("a.txt", "cached a");
  WriteCacheFile("old.txt", "cached old");
  ScriptedPeer peer(Session(1, "1 a\r\n", {Expect("TOP 1 0\r\n"), Send("-ERR busy\r\n")}));
  std::string answer = List(peer);
  EXPECT_EQ(answer, test::SuccessHead());
  // Nothing was gathered: the old cache file stays as it was.
  EXPECT_EQ(test::ReadFile(CachePath("list.cache")),
            "1\r\nold\r\n5\r\n" + Row("old", "", "", "", "0") + "\r\n");
  EXPECT_FALSE(std::filesystem::exists(CachePath("mail.list")));
  EXPECT_FALSE(std::filesystem::exists(CachePath("a.txt")));
  EXPECT_FALSE(std::filesystem::exists(CachePath("old.txt")));
}

TEST_F(MailListerTest, ACutShortCacheGivesHitsForTheTriplesBeforeTheCut) {
  std::string rowA = Row("a", "cached sender", "cached subject", "2010-01-05 08:30", "1");
  WriteCacheFile("list.cache", "3\r\na\r\n1262651400\r\n" + rowA + "\r\nb\r\n12");
  ScriptedPeer peer(
      Session(2, "1 a\r\n2 b\r\n",
              {Expect("TOP 2 0\r\n"),
               Send(Header("Subject: fresh\r\nDate: Tue, 5 Jan 2010 08:30:00 +0800\r\n"))}));
  std::string answer = List(peer);
  ASSERT_EQ(answer.find(test::SuccessHead() + Entry(2, "Row0", rowA)), 0u) << answer;
  EXPECT_NE(answer.find(CountedString::Encode("fresh")), std::string::npos);
  std::string rewritten = test::ReadFile(CachePath("list.cache"));
  std::string kept = "2\r\na\r\n1262651400\r\n" + rowA + "\r\n";
  EXPECT_EQ(rewritten.substr(0, kept.size()), kept);
  EXPECT_EQ(test::ReadFile(CachePath("mail.list")), "a,b");
}

TEST_F(MailListerTest, ARegisteredAccountKeepsItsListInMemoryAndOnDisk) {
  auto account = std::make_shared<Account>();
  account->login = "joe";
  account->pop3Host = "127.0.0.1";
  ASSERT_TRUE(registry_.Add(account));
  WriteCacheFile("mail.list", "gone,a");
  WriteCacheFile("gone.txt", "x");
  ScriptedPeer peer(Session(2, "1 a\r\n2 b\r\n",
                            {Expect("TOP 1 0\r\n"), Send(Header("Subject: one\r\n")),
                             Expect("TOP 2 0\r\n"), Send(Header("Subject: two\r\n"))}));
  List(peer);
  EXPECT_TRUE(account->knownUidsLoaded);
  EXPECT_EQ(account->knownUids, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(test::ReadFile(CachePath("mail.list")), "a,b");
  EXPECT_FALSE(std::filesystem::exists(CachePath("gone.txt")));
}

TEST_F(MailListerTest, AnEmptyMailboxDropsTheCacheAndEveryKnownId) {
  WriteCacheFile("list.cache", "1\r\na\r\n0\r\nrow\r\n");
  WriteCacheFile("mail.list", "a");
  WriteCacheFile("a.txt", "x");
  ScriptedPeer peer(Session(0, "", {}));
  EXPECT_EQ(List(peer), Entry(2, "Status", "success"));
  for (const char* name : {"list.cache", "mail.list", "a.txt"}) {
    EXPECT_FALSE(std::filesystem::exists(CachePath(name))) << name;
  }
}

}  // namespace
}  // namespace corvane
