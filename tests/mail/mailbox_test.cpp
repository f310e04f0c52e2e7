// Listing and retrieval against scripted POP3 servers: what is fetched, what
// comes from the caches, how the known-id list follows the server, and where
// attachments go.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "base/service_settings.h"
#include "mail/cached_message.h"
#include "mail/known_uids.h"
#include "mail/mail_lister.h"
#include "mail/mail_receiver.h"
#include "support/mail_request.h"
#include "support/pop3_script.h"
#include "support/scoped_env.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using test::Entry;
using test::Expect;
using test::ScriptedPeer;
using test::Send;
using test::Step;
using Ids = std::vector<std::string>;

const std::vector<Step> kQuit = {Expect("QUIT\r\n"), Send("+OK\r\n")};
// A message of one attachment only, named to lead out of its directory.
const std::string kScan =
    "Subject: x\r\nContent-Type: multipart/mixed; boundary=\"x\"\r\n\r\n--x\r\n"
    "Content-Type: application/octet-stream; name=\"/../x.bin\"\r\n"
    "Content-Transfer-Encoding: base64\r\n\r\nAAEC\r\n--x--\r\n";

std::string Multiline(const std::string& lines) {
  return "+OK\r\n" + lines + "\r\n.\r\n";
}

std::string Row(const std::string& uid, const std::string& subject, const std::string& date,
                const std::string& flag, const std::string& from = "") {
  return CountedString::Encode(uid) + CountedString::Encode(from) + CountedString::Encode(subject) +
         CountedString::Encode(date) + CountedString::Encode(flag);
}

std::string Failure(const std::string& text) {
  return Entry(2, "Status", "fail") + Entry(2, "Log", text);
}

TEST(KnownUidsTest, FileIsOneCommaListOfAtMost65534BytesAndPruningDeletesCachedTexts) {
  test::TempDir dir;
  const std::string path = dir / "mail.list";
  EXPECT_TRUE(ReadKnownUids(path).empty());
  test::WriteFile(path, std::string(",a,,b,\0c", 8));
  EXPECT_EQ(ReadKnownUids(path), (Ids{"a", "b"}));
  SaveKnownUids(path, {"x", "y"});
  EXPECT_EQ(test::ReadFile(path), "x,y");
  SaveKnownUids(path, {});
  EXPECT_FALSE(fs::exists(path));
  // 6553 ids of nine bytes and a comma fill 65530 bytes; the next is cut after four.
  std::string text;
  for (int i = 0; i < 6554; ++i) text += "id" + std::to_string(1000000 + i) + ",";
  test::WriteFile(path, text);
  const Ids ids = ReadKnownUids(path);
  EXPECT_EQ(ids.size(), 6554u);
  EXPECT_EQ(ids.back(), "id10");

  for (const char* name : {"gone.txt", "kept.txt", "outside.txt"}) test::WriteFile(dir / name, "x");
  Ids known = {"gone", "kept", "also-gone"}, hostile = {"../outside"};
  EXPECT_EQ(PruneKnownUids(known, {"new", "kept"}, dir.path() + "/"), 2);
  EXPECT_EQ(PruneKnownUids(hostile, {}, dir / "cache/"), 1);
  EXPECT_FALSE(fs::exists(dir / "gone.txt"));
  EXPECT_TRUE(fs::exists(dir / "kept.txt") && fs::exists(dir / "outside.txt"));
  EXPECT_EQ(AddKnownUids(known, {"new", "kept", "later", "new"}), 2);
  EXPECT_EQ(known, (Ids{"kept", "new", "later"}));
  EXPECT_EQ(CachedMessagePath("/c/", "../..\\x\r\n"), "/c/..%2F..%5Cx%0D%0A.txt");
}

class MailboxTest : public ::testing::Test {
 protected:
  MailboxTest() { tzset(); }  // dates are rendered in local time: UTC here

  std::string Request(const ScriptedPeer& peer, const std::string& login, test::Fields parameters,
                      const test::Fields& multi = {}) {
    const std::string port = std::to_string(peer.port());
    return test::MailRequest(
        {{"Pop3", "127.0.0.1"}, {"Port", port}, {"Login", login}, {"Pwd", "pw"}}, parameters,
        multi);
  }
  // A login, the count and the id list, then `rest`, then QUIT.
  static std::vector<Step> Listing(int count, const std::string& uidl, std::vector<Step> rest,
                                   const std::string& login = "joe") {
    return test::Join({test::Pop3Login(login), test::Pop3Listing(count, uidl), rest, kQuit});
  }
  // Runs one listing as the dispatcher does; the answer's entries.
  std::string List(ScriptedPeer& peer, int subjectLength = 0, const std::string& login = "joe",
                   const test::Fields& multiValued = {}) {
    std::string bytes = Request(peer, login, {{"Encode", "utf-8"}}, multiValued);
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
  // Login, count, the id "m1", LIST of `size` bytes and RETR, then `retr`.
  static std::vector<Step> Retrieval(long size, std::vector<Step> retr) {
    return test::Join({test::Pop3Login(),
                       test::Pop3Listing(1, "1 m1\r\n"),
                       {Expect("LIST 1\r\n"), Send("+OK 1 " + std::to_string(size) + "\r\n"),
                        Expect("RETR 1\r\n")},
                       std::move(retr)});
  }
  // Fetches "m1" with a POP3 time-out of 1 s and answers as the dispatcher
  // does; `then` sees the receiver before it goes. The fetch result.
  int Receive(ScriptedPeer& peer, std::string& answerBytes, test::Fields parameters = {},
              const std::function<void(MailReceiver&)>& then = {}) {
    if (id_) parameters.emplace_back("ID", *id_);
    std::string bytes = Request(peer, "joe", parameters);
    RequestFields request(bytes.data(), bytes.size());
    wxEntryLog answer;
    answer.SetRecording(true);
    MailReceiver receiver(request, registry_);
    receiver.SetMaxMessageBytes(4096 * 1024);
    int result = receiver.Fetch(answer, 1);
    if (result == 0) {
      receiver.Render();
      receiver.ConvertHtmlBody();
      receiver.SaveAttachments();
      receiver.ApplyDefaultBody("(no text)");
      receiver.WriteAnswer(answer);
      receiver.RecordKnownUid();
      if (then) then(receiver);
    }
    peer.Finish();
    answerBytes = answer.Serialize();
    return result;
  }
  std::string CachePath(const ScriptedPeer& peer, const std::string& name = "") const {
    return dir_ / ("cache/joe@127.0.0.1:" + std::to_string(peer.port()) + "/" + name);
  }
  void WriteCacheFiles(const ScriptedPeer& peer,
                       const std::vector<std::pair<const char*, std::string>>& files) {
    fs::create_directories(CachePath(peer));
    for (const auto& [name, text] : files) test::WriteFile(CachePath(peer, name), text);
  }
  Ids CacheFiles(const ScriptedPeer& peer) const {
    Ids names;
    for (const auto& entry : fs::directory_iterator(CachePath(peer))) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  std::shared_ptr<Account> Register(const std::string& login, unsigned port) {
    auto account = std::make_shared<Account>();
    Account::ParseLine(login + ",127.0.0.1,pw," + std::to_string(port) + ",1,1", *account);
    EXPECT_TRUE(registry_.Add(account));
    return account;
  }

  test::ScopedEnv utc_{"TZ", "UTC"};
  test::TempDir dir_;
  AccountRegistry registry_{dir_ / "account.dat", dir_.path()};
  std::optional<std::string> id_ = "m1";
};

TEST_F(MailboxTest, ListingShortensSubjectsWholeCharactersAndFlagsOnlyMixedWithParameters) {
  ScriptedPeer peer(Listing(
      3, "1 a\r\n2 b\r\n3 c\r\n",
      {Expect("TOP 1 0\r\n"),
       Send(Multiline("From: Zhang \xd5\xc5 <z@x.com>\r\nSubject: 0123456789\r\n"
                      "Content-Type: multipart/mixed")),
       Expect("TOP 2 0\r\n"),
       Send(Multiline("Subject: abcd\xd6\xd0\xce\xc4xyz\r\nContent-Type: multipart/mixed; b=x")),
       Expect("TOP 3 0\r\n"), Send(Multiline("Subject: 0123456\r\nContent-Type: text/plain"))}));
  // A plain 8-bit sender is passed on without conversion.
  const std::string t0 = "1970-01-01 00:00";
  EXPECT_EQ(List(peer, 5),
            test::SuccessHead() +
                Entry(2, "Row0", Row("a", "01234...", t0, "0", "Zhang \xd5\xc5 <z@x.com>")) +
                Entry(2, "Row1", Row("b", "abcd...", t0, "1")) +
                Entry(2, "Row2", Row("c", "0123456", t0, "0")));
}

TEST_F(MailboxTest, OnlyAnOpenMailboxHasACacheAndWhatTheServerLacksLeavesIt) {
  ScriptedPeer refusing({Send("+OK ready\r\n"), Expect("USER joe\r\n"), Send("-ERR no\r\n")});
  EXPECT_EQ(List(refusing), Failure("Connect pop3 server error"));
  EXPECT_FALSE(fs::exists(dir_ / "cache"));
  // A header that cannot be fetched is left out and counts as gone.
  ScriptedPeer peer(Listing(1, "1 a\r\n", {Expect("TOP 1 0\r\n"), Send("-ERR busy\r\n")}));
  const std::string cache = "1\r\nold\r\n5\r\n" + Row("old", "", "", "0") + "\r\n";
  WriteCacheFiles(
      peer, {{"list.cache", cache}, {"mail.list", "a,old"}, {"a.txt", "a"}, {"old.txt", "o"}});
  EXPECT_EQ(List(peer), test::SuccessHead());
  EXPECT_EQ(CacheFiles(peer), Ids{"list.cache"});
  EXPECT_EQ(test::ReadFile(CachePath(peer, "list.cache")), cache) << "nothing gathered";
  ScriptedPeer empty(Listing(0, "", {}));
  WriteCacheFiles(empty, {{"list.cache", cache}, {"mail.list", "a"}, {"a.txt", "x"}});
  EXPECT_EQ(List(empty), Entry(2, "Status", "success"));
  EXPECT_EQ(CacheFiles(empty), Ids{});
}

TEST_F(MailboxTest, ACutShortCacheGivesHitsBeforeTheCutAndDescSortsByDate) {
  const std::string rowA = Row("a", "cached subject", "2010-01-05 00:30", "1");
  ScriptedPeer peer(
      Listing(2, "1 a\r\n2 b\r\n",
              {Expect("TOP 2 0\r\n"),
               Send(Multiline("Subject: fresh\r\nDate: Tue, 5 Jan 2010 08:30 +0800"))}));
  WriteCacheFiles(peer, {{"list.cache", "3\r\na\r\n1262651400\r\n" + rowA + "\r\nb\r\n12"}});
  const std::string rowB = Row("b", "fresh", "2010-01-05 08:30", "0");
  // Only the second value of "Order" counts.
  EXPECT_EQ(List(peer, 0, "joe", {{"Order", "Asc,Desc"}}),
            test::SuccessHead() + Entry(2, "Row0", rowB) + Entry(2, "Row1", rowA));
  EXPECT_EQ(test::ReadFile(CachePath(peer, "list.cache")),
            "2\r\na\r\n1262651400\r\n" + rowA + "\r\nb\r\n1262680200\r\n" + rowB + "\r\n");
  EXPECT_EQ(test::ReadFile(CachePath(peer, "mail.list")), "a,b");
}

TEST_F(MailboxTest, KnownIdsFollowTheRegisteredAccountOfThisMailboxOnly) {
  ScriptedPeer peer(
      Listing(1, "1 a\r\n", {Expect("TOP 1 0\r\n"), Send(Multiline("Subject: one"))}));
  auto joe = Register("joe", peer.port());
  WriteCacheFiles(peer, {{"mail.list", "gone"}, {"gone.txt", "x"}});
  List(peer);
  EXPECT_EQ(joe->knownUids, Ids{"a"});
  EXPECT_EQ(test::ReadFile(CachePath(peer, "mail.list")), "a");
  EXPECT_FALSE(fs::exists(CachePath(peer, "gone.txt")));
  // A registered login on another port neither sees nor prunes its cache.
  ScriptedPeer other(Listing(0, "", {}, "ann@example.com"));
  auto ann = Register("ann@example.com", other.port() + 1);
  fs::create_directories(ann->cacheDirectory);
  test::WriteFile(ann->mailListPath, "m1");
  test::WriteFile(ann->cacheDirectory + "m1.txt", "ann's mail");
  EXPECT_EQ(List(other, 0, "ann@example.com"), Entry(2, "Status", "success"));
  EXPECT_FALSE(ann->knownUidsLoaded);
  EXPECT_EQ(test::ReadFile(ann->mailListPath) + test::ReadFile(ann->cacheDirectory + "m1.txt"),
            "m1ann's mail");
}

TEST_F(MailboxTest, RetrievalAnswersEveryFieldAndServesTheCacheWithoutRetr) {
  const std::string message =
      "From: Ann <ann@example.com>\r\nTo: joe@example.org\r\nCc: cc@example.org\r\n"
      "Subject: Plans\r\nDate: Tue, 5 Jan 2010 08:30:00 +0800\r\nX-Priority: 1\r\n"
      "Content-Type: text/plain; charset=us-ascii\r\n\r\nbody text\r\n";
  ScriptedPeer peer(test::Join({Retrieval(200, {Send("+OK\r\n" + message + ".\r\n")}), kQuit}));
  const std::string expected = test::SuccessHead() + Entry(2, "From", "Ann <ann@example.com>") +
                               Entry(2, "To", "joe@example.org") +
                               Entry(2, "Cc", "cc@example.org") + Entry(2, "Subject", "Plans") +
                               Entry(2, "Date", "2010-01-05 08:30") +
                               Entry(2, "Body", "body text\r\n") + Entry(2, "Priority", "1");
  std::string answer;
  ASSERT_EQ(Receive(peer, answer), 0);
  EXPECT_EQ(answer, expected);
  EXPECT_EQ(test::ReadFile(CachePath(peer, "m1.txt")), message);
  EXPECT_EQ(test::ReadFile(CachePath(peer, "mail.list")), "m1");
  // The next retrieval only logs in (the login is the authorisation).
  ScriptedPeer cached(test::Join({test::Pop3Login(), kQuit}));
  fs::rename(CachePath(peer), CachePath(cached));
  ASSERT_EQ(Receive(cached, answer), 0);
  EXPECT_TRUE(cached.Finish()) << cached.Errors();
  EXPECT_EQ(answer, expected);
}

TEST_F(MailboxTest, TimeOutsGrowWithTheListedSizeAndAFailureLeavesNoCacheFile) {
  const std::string late = "+OK\r\nSubject: late\r\n\r\n.\r\n";
  const struct {
    std::vector<Step> script;
    int result;  // -1: any failure
  } cases[] = {
      // 1.5 s of silence: too long for the 1 s time-out, within twice it.
      {test::Join({Retrieval(2048001, {test::Pause(1500), Send(late)}), kQuit}), 0},
      {test::Join({Retrieval(3072001, {test::Pause(2500), Send(late)}), kQuit}), 0},
      {Retrieval(2048000, {test::Pause(1500), Send(late)}), -1},
      // At the size limit it is fetched; one byte past it, no RETR is sent.
      {test::Join({Retrieval(4194304, {Send(late)}), kQuit}), 0},
      {test::Join({test::Pop3Login(),
                   test::Pop3Listing(1, "1 m1\r\n"),
                   {Expect("LIST 1\r\n"), Send("+OK 1 4194305\r\n")},
                   kQuit}),
       79},
      // A server whose LIST understates it is stopped once the limit is passed.
      {Retrieval(100, {Send("+OK\r\n" + std::string(4194400, 'x') + "\r\n.\r\n")}), 79},
      {Retrieval(500, {Send("+OK\r\nSubject: cut\r\n\r\nthe first half"), test::Close()}), -1},
      {test::Join({test::Pop3Login(), test::Pop3Listing(1, "1 other\r\n"), kQuit}), -1},
  };
  for (const auto& c : cases) {
    ScriptedPeer peer(c.script);
    std::string answer;
    const int result = Receive(peer, answer);
    EXPECT_TRUE(c.result < 0 ? result != 0 : result == c.result) << result;
    EXPECT_TRUE(result == 0 || answer == Failure("Load pop3 message error")) << answer;
    EXPECT_EQ(CacheFiles(peer), result != 0 ? Ids{} : (Ids{"m1.txt", "mail.list"}));
  }
  id_.reset();  // a missing field: nothing is asked of the server
  ScriptedPeer idle({}, 100);
  std::string answer;
  EXPECT_EQ(Receive(idle, answer), 100);
  EXPECT_EQ(answer, Failure("The parameter of request is not enough"));
  EXPECT_EQ(idle.Connections(), 0);
}

TEST_F(MailboxTest, AttachmentsGoWhereAskedOrThroughScratchToFtpAndScratchGoesWithTheReceiver) {
  test::TempDir target;
  fs::create_directories(target / "in");
  std::string answer, scratch, ftpScratch;
  ScriptedPeer peer(test::Join({Retrieval(300, {Send("+OK\r\n" + kScan + ".\r\n")}), kQuit}));
  ASSERT_EQ(Receive(peer, answer, {{"Attachment", target / "in"}},
                    [&](MailReceiver& receiver) {
                      receiver.SaveAttachmentCopies();  // for a forward
                      scratch = receiver.AttachmentDirectory();
                      EXPECT_EQ(test::ReadFile(scratch + "_.._x.bin"), std::string("\0\1\2", 3));
                    }),
            0);
  // A message without text gets the default body.
  EXPECT_EQ(answer, test::SuccessHead() + Entry(2, "Subject", "x") + Entry(2, "Body", "(no text)") +
                        Entry(3, "Attachment0", "_.._x.bin,3"));
  EXPECT_EQ(test::ReadFile(target / "in/_.._x.bin"), std::string("\0\1\2", 3));
  EXPECT_EQ(scratch.rfind(CachePath(peer, "attachments."), 0), 0u) << scratch;
  EXPECT_FALSE(fs::exists(scratch));
  EXPECT_EQ(CacheFiles(peer), (Ids{"m1.txt", "mail.list"}));

  ScriptedPeer ftp({Send("220 ready\r\n"), Expect("USER up\r\n"), Send("230 in\r\n"),
                    Expect("TYPE I\r\n"), Send("200 ok\r\n"), Expect("MODE S\r\n"),
                    Send("200 ok\r\n"), Expect("STRU F\r\n"), Send("200 ok\r\n"),
                    // A missing directory is made; the store is refused at PORT.
                    Expect("CWD /box\r\n"), Send("550 no\r\n"), Expect("MKD /box\r\n"),
                    Send("257 made\r\n"), Expect("CWD /box\r\n"), Send("250 ok\r\n"),
                    test::Do([](test::PeerSession& session, std::string& error) {
                      std::string line;
                      if (session.ReadLine(line, 5000) && line.starts_with("PORT ")) {
                        return session.Write("500 no data port today\r\n");
                      }
                      error = "no PORT: " + line;
                      return false;
                    }),
                    Expect("Quit\r\n")});
  const ServiceSettings saved = g_settings;
  g_settings.ftpHost = "127.0.0.1";
  g_settings.ftpLogin = "up";
  g_settings.ftpPassword = "pw";
  g_settings.ftpPort = ftp.port();
  ScriptedPeer upload(test::Join({Retrieval(300, {Send("+OK\r\n" + kScan + ".\r\n")}), kQuit}));
  EXPECT_EQ(Receive(upload, answer, {{"Attachment", "ftp://files.example/box"}},
                    [&](MailReceiver& receiver) {
                      scratch = receiver.AttachmentDirectory();
                      EXPECT_TRUE(fs::is_empty(scratch)) << "uploaded or not, the copy goes";
                    }),
            0);
  g_settings = saved;
  EXPECT_TRUE(ftp.Finish()) << ftp.Errors();
  // The message was read: the client still learns its files did not arrive.
  EXPECT_EQ(answer, Entry(2, "Status", "success") +
                        Entry(2, "Log", "Upload attachment to ftp server error") +
                        Entry(5, "0", "") + Entry(1, "sysPARAMETER", "aParam") +
                        Entry(2, "Subject", "x") + Entry(2, "Body", "(no text)") +
                        Entry(3, "Attachment0", "_.._x.bin,-1"));
  EXPECT_EQ(scratch.rfind(CachePath(upload, "attachments."), 0), 0u) << scratch;
  EXPECT_FALSE(fs::exists(scratch));
  EXPECT_EQ(CacheFiles(upload), (Ids{"m1.txt", "mail.list"}));
}

}  // namespace
}  // namespace corvane
