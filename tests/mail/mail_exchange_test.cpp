// The mail exchanges against scripted POP3, SMTP and FTP servers: listing,
// retrieval and caches, sending, reply and forward.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <tuple>

#include "base/service_settings.h"
#include "mail/attachment_upload.h"
#include "mail/cached_message.h"
#include "mail/known_uids.h"
#include "mail/mail_forwarder.h"
#include "mail/mail_lister.h"
#include "mail/mail_receiver.h"
#include "mail/mail_replier.h"
#include "mail/mail_sender.h"
#include "mail/message_submission.h"
#include "mail/quoted_original.h"
#include "mime/charset_converter.h"
#include "mime/mime_codes.h"
#include "support/mail_request.h"
#include "support/pop3_script.h"
#include "support/scoped_env.h"
#include "support/scripted_peer.h"
#include "support/smtp_script.h"
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

// The FTP greeting and login every upload starts with.
const std::string kFtpLogin =
    "S: 220 ready\nC: USER up\nS: 230 in\nC: TYPE I\nS: 200 ok\nC: MODE S\nS: 200 ok\n"
    "C: STRU F\nS: 200 ok\n";

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

class MailboxTest : public ::testing::Test {
 protected:
  MailboxTest() { tzset(); }  // dates are rendered in local time: UTC here
  static std::string Request(const ScriptedPeer& peer, const test::Fields& parameters,
                             const test::Fields& multi = {}) {
    const std::string port = std::to_string(peer.port());
    return test::MailRequest(
        {{"Pop3", "127.0.0.1"}, {"Port", port}, {"Login", "joe"}, {"Pwd", "pw"}}, parameters,
        multi);
  }
  // A login, the count and the id list, then `rest`, then QUIT.
  static std::vector<Step> Listing(int count, const std::string& uidl, std::vector<Step> rest) {
    return test::Join({test::Pop3Login(), test::Pop3Listing(count, uidl), rest, kQuit});
  }
  // Runs one listing as the dispatcher does; the answer's entries.
  std::string List(ScriptedPeer& peer, int subjectLength = 0, const test::Fields& multi = {}) {
    std::string bytes = Request(peer, {{"Encode", "utf-8"}}, multi);
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
  static std::vector<Step> Retrieval(long size, std::vector<Step> retr = {}) {
    return test::Join({test::Pop3Login(),
                       test::Pop3Exchange({{"STAT", "+OK 1 999\r\n"},
                                           {"UIDL", "+OK\r\n1 m1\r\n.\r\n"},
                                           {"LIST 1", "+OK 1 " + std::to_string(size) + "\r\n"}}),
                       retr.empty() ? kQuit : test::Join({{Expect("RETR 1\r\n")}, retr})});
  }
  // Fetches "m1" with a POP3 time-out of 1 s and answers as the dispatcher
  // does; `then` sees the receiver before it goes. The result and answer.
  std::pair<int, std::string> Receive(ScriptedPeer& peer, test::Fields parameters = {},
                                      const std::function<void(MailReceiver&)>& then = {}) {
    if (id_) parameters.emplace_back("ID", *id_);
    std::string bytes = Request(peer, parameters);
    RequestFields request(bytes.data(), bytes.size());
    wxEntryLog answer;
    answer.SetRecording(true);
    MailReceiver receiver(request, registry_);
    receiver.SetMaxMessageBytes(4096 * 1024);
    const int result = receiver.Fetch(answer, 1);
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
    return {result, answer.Serialize()};
  }
  std::string CachePath(const ScriptedPeer& peer, const std::string& name = "") const {
    return dir_ / ("cache/joe@127.0.0.1:" + std::to_string(peer.port()) + "/" + name);
  }
  void WriteCacheFiles(const ScriptedPeer& peer,
                       const std::vector<std::pair<const char*, std::string>>& files) {
    fs::create_directories(CachePath(peer));
    for (const auto& [name, text] : files) test::WriteFile(CachePath(peer, name), text);
  }
  std::set<std::string> CacheFiles(const ScriptedPeer& peer) const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(CachePath(peer)))
      names.insert(entry.path().filename());
    return names;
  }
  test::ScopedEnv utc_{"TZ", "UTC"};
  test::TempDir dir_;
  AccountRegistry registry_{dir_ / "account.dat", dir_.path()};
  std::optional<std::string> id_ = "m1";
};

TEST_F(MailboxTest, ListingShortensSubjectsFlagsMixedMailAndKeepsTheCacheOfAnOpenMailboxOnly) {
  // Only an open mailbox has a cache, and what the server lacks leaves it.
  ScriptedPeer refusing({Send("+OK ready\r\n"), Expect("USER joe\r\n"), Send("-ERR no\r\n")});
  EXPECT_EQ(List(refusing), Failure("Connect pop3 server error"));
  EXPECT_FALSE(fs::exists(dir_ / "cache"));
  // A header that cannot be fetched is left out and counts as gone.
  ScriptedPeer busy(Listing(1, "1 a\r\n", {Expect("TOP 1 0\r\n"), Send("-ERR busy\r\n")}));
  const std::string cache = "1\r\nold\r\n5\r\n" + Row("old", "", "", "0") + "\r\n";
  WriteCacheFiles(
      busy, {{"list.cache", cache}, {"mail.list", "a,old"}, {"a.txt", "a"}, {"old.txt", "o"}});
  EXPECT_EQ(List(busy), test::SuccessHead());
  EXPECT_EQ(CacheFiles(busy), std::set<std::string>{"list.cache"});
  EXPECT_EQ(test::ReadFile(CachePath(busy, "list.cache")), cache) << "nothing gathered";
  // Three headers to fetch: CAPA is asked, and a server that takes pipelined
  // commands gets the TOPs ahead of their replies.
  const std::string replies[] = {
      Multiline("From: Zhang \xd5\xc5 <z@x.com>\r\nSubject: 0123456789\r\n"
                "Content-Type: multipart/mixed"),
      Multiline("Subject: abcd\xd6\xd0\xce\xc4xyz\r\nContent-Type: multipart/mixed; b=x"),
      Multiline("Subject: 0123456\r\nContent-Type: text/plain")};
  for (bool pipelining : {false, true}) {
    std::vector<Step> tops = {Expect("CAPA\r\n"),
                              Send(pipelining ? "+OK\r\nPIPELINING\r\n.\r\n" : "-ERR\r\n")};
    if (pipelining) {
      tops.insert(tops.end(), {Expect("TOP 1 0\r\nTOP 2 0\r\nTOP 3 0\r\n"),
                               Send(replies[0] + replies[1] + replies[2])});
    }
    for (int n = 0; n < 3 && !pipelining; ++n) {
      tops.insert(tops.end(),
                  {Expect("TOP " + std::to_string(n + 1) + " 0\r\n"), Send(replies[n])});
    }
    ScriptedPeer peer(Listing(3, "1 a\r\n2 b\r\n3 c\r\n", tops));
    // A plain 8-bit sender is passed on without conversion.
    const std::string t0 = "1970-01-01 00:00";
    EXPECT_EQ(List(peer, 5),
              test::SuccessHead() +
                  Entry(2, "Row0", Row("a", "01234...", t0, "0", "Zhang \xd5\xc5 <z@x.com>")) +
                  Entry(2, "Row1", Row("b", "abcd...", t0, "1")) +
                  Entry(2, "Row2", Row("c", "0123456", t0, "0")));
    fs::remove_all(CachePath(peer));
  }
  // Without subject_length a row's sender and subject are still cut: a
  // hostile server's 4 KB fields, 100,000 times over, would take gigabytes.
  const std::string f(4000, 'f'), s(4000, 's');
  ScriptedPeer huge(Listing(
      1, "1 a\r\n", {Expect("TOP 1 0\r\n"), Send(Multiline("From: " + f + "\r\nSubject: " + s))}));
  EXPECT_EQ(List(huge),
            test::SuccessHead() + Entry(2, "Row0",
                                        Row("a", s.substr(0, 512) + "...", "1970-01-01 00:00", "0",
                                            f.substr(0, 512) + "...")));
}

TEST_F(MailboxTest, ACutShortCacheGivesHitsBeforeTheCutAndKnownIdsStayBoundedAndInTheCache) {
  const std::string rowA = Row("a", "cached subject", "2010-01-05 00:30", "1");
  ScriptedPeer peer(
      Listing(2, "1 a\r\n2 b\r\n",
              {Expect("TOP 2 0\r\n"),
               Send(Multiline("Subject: fresh\r\nDate: Tue, 5 Jan 2010 08:30 +0800"))}));
  WriteCacheFiles(peer, {{"list.cache", "3\r\na\r\n1262651400\r\n" + rowA + "\r\nb\r\n12"},
                         {"mail.list", "gone"},
                         {"gone.txt", "x"}});
  const std::string rowB = Row("b", "fresh", "2010-01-05 08:30", "0");
  EXPECT_EQ(List(peer, 0, {{"Order", "Asc,Desc"}}),  // only the second value counts
            test::SuccessHead() + Entry(2, "Row0", rowB) + Entry(2, "Row1", rowA));
  EXPECT_EQ(test::ReadFile(CachePath(peer, "list.cache")),
            "2\r\na\r\n1262651400\r\n" + rowA + "\r\nb\r\n1262680200\r\n" + rowB + "\r\n");
  EXPECT_EQ(test::ReadFile(CachePath(peer, "mail.list")), "a,b");
  EXPECT_FALSE(fs::exists(CachePath(peer, "gone.txt")));
  // The known-id file is read as far as 100,000 ids of the longest kind go,
  // ids are appended one by one, and pruning deletes nothing outside the cache.
  test::TempDir dir;
  const std::string path = dir / "mail.list";
  std::string text;
  for (int i = 0; i < 100000; ++i) text += std::string(63, 'i') + std::to_string(100000 + i) + ",";
  test::WriteFile(path, text + "beyond");
  const Ids ids = ReadKnownUids(path);
  EXPECT_EQ(std::pair(ids.size(), ids.back()),
            std::pair(100000ul, std::string(63, 'i') + "199999"));
  test::WriteFile(path, std::string(",a,,b,\0c", 8));
  EXPECT_EQ(ReadKnownUids(path), (Ids{"a", "b"}));
  fs::remove(path);
  for (const char* id : {"x", "y"}) AppendKnownUid(path, id);
  EXPECT_EQ(test::ReadFile(path), "x,y");
  for (const char* name : {"gone.txt", "kept.txt", "outside.txt"}) test::WriteFile(dir / name, "x");
  KnownIds known({"gone", "kept", "also-gone"}), hostile({"../outside"});
  EXPECT_EQ(PruneKnownUids(known, {"new", "kept"}, dir.path() + "/") +
                PruneKnownUids(hostile, {}, dir / "cache/"),
            3);
  EXPECT_TRUE(!fs::exists(dir / "gone.txt") && fs::exists(dir / "kept.txt") &&
              fs::exists(dir / "outside.txt"));
  EXPECT_EQ(AddKnownUids(known, {"new", "kept", "later", "new"}), 2);
  EXPECT_EQ(known.Ids(), (Ids{"kept", "new", "later"}));
  EXPECT_EQ(CachedMessagePath("/c/", "../..\\x\r\n"), "/c/..%2F..%5Cx%0D%0A.txt");
}

TEST_F(MailboxTest, RetrievalAnswersEveryFieldServesTheCachePlacesAttachmentsAndStaysBounded) {
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
  EXPECT_EQ(Receive(peer), std::pair(0, expected));
  EXPECT_EQ(test::ReadFile(CachePath(peer, "m1.txt")), message);
  EXPECT_EQ(test::ReadFile(CachePath(peer, "mail.list")), "m1");
  // The next retrieval only logs in (the login is the authorisation).
  ScriptedPeer cached(test::Join({test::Pop3Login(), kQuit}));
  fs::rename(CachePath(peer), CachePath(cached));
  EXPECT_EQ(Receive(cached), std::pair(0, expected));
  EXPECT_TRUE(cached.Finish()) << cached.Errors();
  // Attachments go where asked or to FTP, via a scratch copy that goes with the receiver; a
  // message without text gets the default body.
  test::TempDir target;
  fs::create_directories(target / "in");
  std::string scratch;
  auto keep = [&scratch](MailReceiver& receiver) { scratch = receiver.AttachmentDirectory(); };
  const auto retrieval = test::Join({Retrieval(300, {Send("+OK\r\n" + kScan + ".\r\n")}), kQuit});
  ScriptedPeer scanned(retrieval);
  EXPECT_EQ(
      Receive(scanned, {{"Attachment", target / "in"}},
              [&](MailReceiver& receiver) {
                receiver.SaveAttachmentCopies();  // for a forward
                keep(receiver);
                EXPECT_EQ(test::ReadFile(scratch + "_.._x.bin"), std::string("\0\1\2", 3));
              }),
      std::pair(0, test::SuccessHead() + Entry(2, "Subject", "x") + Entry(2, "Body", "(no text)") +
                       Entry(3, "Attachment0", "_.._x.bin,3")));
  EXPECT_EQ(test::ReadFile(target / "in/_.._x.bin"), std::string("\0\1\2", 3));
  EXPECT_EQ(scratch.rfind(CachePath(scanned, "attachments."), 0), 0u) << scratch;
  // A directory that cannot be made stops the upload. The message was read:
  // the client still learns its files did not arrive.
  ScriptedPeer ftp(
      test::Dialogue(kFtpLogin + "C: CWD /box\nS: 550 no\nC: MKD /box\nS: 550 no\nC: Quit"));
  const ServiceSettings saved = g_settings;
  g_settings.ftpHost = "127.0.0.1";
  g_settings.ftpLogin = "up";
  g_settings.ftpPassword = "pw";
  g_settings.ftpPort = ftp.port();
  ScriptedPeer upload(retrieval);
  EXPECT_EQ(Receive(upload, {{"Attachment", "ftp://files.example/box"}}, keep),
            std::pair(0, Entry(2, "Status", "success") +
                             Entry(2, "Log", "Upload attachment to ftp server error") +
                             Entry(5, "0", "") + Entry(1, "sysPARAMETER", "aParam") +
                             Entry(2, "Subject", "x") + Entry(2, "Body", "(no text)") +
                             Entry(3, "Attachment0", "_.._x.bin,-1")));
  g_settings = saved;
  EXPECT_TRUE(ftp.Finish()) << ftp.Errors();
  EXPECT_EQ(scratch.rfind(CachePath(upload, "attachments."), 0), 0u) << scratch;
  EXPECT_FALSE(fs::exists(scratch)) << "uploaded or not, the copy goes";
  EXPECT_EQ(CacheFiles(upload), (std::set<std::string>{"m1.txt", "mail.list"}));
  test::WriteFile(target / "a.txt", "attachment\r\n");
  // Nothing is asked of the server for a name or directory with a line end or NUL.
  const std::pair<std::string, std::optional<std::string>> refused[] = {
      {std::string("a.txt\0\r\nDELE x", 14), std::nullopt},
      {"a.txt\r\nDELE x", std::nullopt},
      {"a.txt", std::string("/box\0/..", 8)},
      {"a.txt", "/box\nRMD /"}};
  for (const auto& [name, directory] : refused) {
    ScriptedPeer idle(test::Dialogue(kFtpLogin), 200);
    EXPECT_EQ(
        UploadToFtp({"127.0.0.1", "up", "pw", idle.port()}, target / "a.txt", name, directory), -1);
    idle.Finish();
    EXPECT_EQ(idle.Connections(), 0) << testing::PrintToString(name);
  }
  // Time-outs grow with the listed size, and a failure (-1: any) leaves no cache file.
  const std::string late = "+OK\r\nSubject: late\r\n\r\n.\r\n";
  const std::pair<std::vector<Step>, int> cases[] = {
      // 1.5 s of silence: too long for the 1 s time-out, within twice it.
      {test::Join({Retrieval(2048001, {test::Pause(1500), Send(late)}), kQuit}), 0},
      {Retrieval(2048000, {test::Pause(1500), Send(late)}), -1},
      // At the size limit it is fetched; one byte past it, no RETR is sent.
      {test::Join({Retrieval(4194304, {Send(late)}), kQuit}), 0},
      {Retrieval(4194305), 79},
      // A server whose LIST understates it is stopped once the limit is passed.
      {Retrieval(100, {Send("+OK\r\n" + std::string(4194400, 'x') + "\r\n.\r\n")}), 79},
      {Retrieval(500, {Send("+OK\r\nSubject: cut\r\n\r\nthe first half"), test::Close()}), -1},
      {test::Join({test::Pop3Login(), test::Pop3Listing(1, "1 other\r\n"), kQuit}), -1}};
  for (const auto& [script, code] : cases) {
    ScriptedPeer server(script);
    const auto [result, answer] = Receive(server);
    EXPECT_TRUE(code < 0 ? result != 0 : result == code) << result;
    EXPECT_TRUE(result == 0 || answer == Failure("Load pop3 message error")) << answer;
    EXPECT_EQ(CacheFiles(server).size(), result != 0 ? 0u : 2u);
  }
  id_.reset();  // a missing field: nothing is asked of the server
  ScriptedPeer idle({}, 100);
  EXPECT_EQ(Receive(idle), std::pair(100, Failure("The parameter of request is not enough")));
  EXPECT_EQ(idle.Connections(), 0);
}

// Greeting, one accepted transaction per recipient (data into `data`), `rest`.
std::vector<Step> Smtp(const std::string& from,
                       std::vector<std::pair<std::string, std::string*>> to,
                       std::vector<Step> rest = {Expect("QUIT\r\n")}) {
  std::vector<Step> script = test::SmtpGreeting("250-mail.test\r\n250 AUTH LOGIN\r\n");
  for (auto& [recipient, data] : to)
    script = test::Join({script, test::SmtpTransaction(from, recipient, *data)});
  return test::Join({script, rest});
}

// SendMail's answer; joe's account on `port` unless the request gives one.
std::string SendMail(unsigned port, test::Fields parameters, test::Fields account = {},
                     const test::Fields& multiValued = {}) {
  if (account.empty()) {
    account = {{"Smtp", "127.0.0.1"},
               {"SmtpPort", std::to_string(port)},
               {"Port", "1"},
               {"Login", "joe@example.org"},
               {"Pwd", "secret"}};
  }
  std::string bytes = test::MailRequest(account, parameters, multiValued);
  RequestFields fields(bytes.data(), bytes.size());
  wxEntryLog answer;
  answer.SetRecording(true);
  MailSender(fields).Send(answer);
  return answer.Serialize();
}

// A copy with the values of its Date and Message-ID lines (new each time) as "*".
std::string Stable(std::string copy) {
  for (const std::string name : {"\r\nDate: ", "\r\nMessage-ID: "}) {
    if (size_t at = copy.find(name); at != std::string::npos) {
      at += name.size();
      copy.replace(at, copy.find("\r\n", at) - at, "*");
    }
  }
  return copy;
}

TEST(SendMailTest, EveryRecipientGetsATransactionOfTheSameCopyWithEncodedTextAndWholeAttachments) {
  std::string a, b, c;
  ScriptedPeer peer(Smtp("joe@example.org", {{"a@x.com", &a}, {"b@x.com", &b}, {"c@x.com", &c}}));
  // The escaped line breaks of the subject survive only as folds: no text of
  // it can start a field of its own. No "From": the login sends, behind the
  // display name without a blank.
  EXPECT_EQ(SendMail(peer.port(), {{"Name", "Joe Q~\x7F"},
                                   {"To", "Ann <a@x.com>,b@x.com"},
                                   {"Cc", "c@x.com"},
                                   {"Priority", "1"},
                                   {"Receipt", "true"},
                                   {"Body", "hello--#13--world"},
                                   {"Subject", "Hi--#13--.--#13--MAIL FROM:<x@x.org>"}}),
            Entry(2, "Status", "success"));
  ASSERT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(Stable(a),
            "From: Joe Q~\x7F<joe@example.org>\r\nTo: Ann <a@x.com>,b@x.com\r\nSubject: Hi\r\n"
            " .\r\n MAIL FROM:<x@x.org>\r\nDate: *\r\nCc: c@x.com\r\nX-Priority: 1\r\n"
            "Disposition-Notification-To: joe@example.org\r\nMessage-ID: *\r\n"
            "MIME-Version: 1.0\r\nContent-Type: text/plain; charset=\"gb2312\"\r\n"
            "Content-Transfer-Encoding: 7bit\r\n\r\nhello\r\nworld\r\n\r\n.\r\n");
  EXPECT_EQ(Stable(b) + Stable(c), Stable(a) + Stable(a));
  // Fallbacks, eight-bit text, and whole attachments in order in every copy.
  test::TempDir dir;
  std::string big(200 * 1024, '\0'), first, second;
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 251);
  test::WriteFile(dir / "first.txt", "first");
  test::WriteFile(dir / "second.bin", big);
  // "Port" stands in for "SmtpPort"; only "true" turns AUTH on.
  ScriptedPeer eightBit(Smtp("me@example.org", {{"a@x.com", &first}, {"b@x.com", &second}}));
  EXPECT_EQ(
      SendMail(0,
               {{"From", "me@example.org"},
                {"To", "a@x.com,b@x.com"},
                {"Name", "\xD5\xC5\xC8\xFD"},
                {"Subject", "\xC4\xE3\xBA\xC3"}},
               {{"Smtp", "127.0.0.1"}, {"Port", std::to_string(eightBit.port())}, {"Auth", "TRUE"}},
               {{"Attachments", dir / "first.txt" + "," + dir / "second.bin"}}),
      Entry(2, "Status", "success"));
  ASSERT_TRUE(eightBit.Finish()) << eightBit.Errors();
  EXPECT_EQ(eightBit.Received().find("AUTH"), std::string::npos);
  const std::string copy = Stable(first);
  EXPECT_EQ(copy.substr(0, copy.find("; boundary=")),
            "From: =?gb2312?B?1cXI/Q==?=<me@example.org>\r\nTo: a@x.com,b@x.com\r\n"
            "Subject: =?gb2312?B?xOO6ww==?=\r\nDate: *\r\nMessage-ID: *\r\nMIME-Version: 1.0\r\n"
            "Content-Type: multipart/mixed");
  // Written as it is composed, each copy reads the files anew, whole and in order.
  EXPECT_TRUE(copy == Stable(second));
  EXPECT_GT(second.size(), big.size() * 4 / 3);  // base64 with its line ends
  EXPECT_LT(second.find("filename=first.txt"), second.find("filename=second.bin"));
}

TEST(SendMailTest, LongRecipientListsFoldJustBeforeAnEntryWouldPass250Characters) {
  // Entries of 24 bytes and a comma, the tenth one longer: lines of 9, 9 and 10 entries.
  std::string to, data;
  for (int i = 0; i < 30; ++i)
    to += (i ? "," : "") + std::string(i == 9 ? "x" : "") + "recipient" + std::to_string(100 + i) +
          "@example.com";
  ScriptedPeer peer(
      Smtp("joe@example.org", {{"recipient100@example.com", &data}}, {test::Close()}));
  SendMail(peer.port(), {{"To", to}});  // the first copy is read whole, then the client is cut off
  ASSERT_TRUE(peer.Finish()) << peer.Errors();
  std::string header = test::HeaderOf(data, "To") + ",", unfolded;
  std::vector<size_t> lines;
  for (size_t start = 0, end; (end = header.find("\r\n\t", start)) != std::string::npos;
       start = end + 3) {
    const std::string line = header.substr(start, end - start), next = header.substr(end + 3);
    EXPECT_TRUE(line.ends_with(",") && line.size() <= 250) << line;
    EXPECT_GT(line.size() + next.find(',') + 1, 250u) << line;  // the next entry did not fit
    lines.push_back(line.size());
    unfolded += line;
  }
  EXPECT_EQ(lines, (std::vector<size_t>{225, 226, 250}));
  EXPECT_EQ(unfolded + header.substr(header.rfind('\t') + 1), to + ",");
}

TEST(SendMailTest, EveryFailureHasItsAnswerARefusalStopsTheRestAndBccStaysHidden) {
  const std::string missing = "The parameter of request is not enough";
  EXPECT_EQ(SendMail(0, {{"Subject", "no recipient"}}, {{"Smtp", "127.0.0.1"}}), Failure(missing));
  EXPECT_EQ(SendMail(0, {{"To", "a@x.com"}}, {{"Login", "joe"}}), Failure(missing));
  ScriptedPeer closing({Send("421 closing\r\n")});
  EXPECT_EQ(SendMail(closing.port(), {{"To", "a@x.com"}}), Failure("Connect to smtp server error"));
  std::string first;
  ScriptedPeer refusing(Smtp("joe@example.org", {{"a@x.com", &first}},
                             test::Dialogue("C: MAIL FROM:<joe@example.org>\nS: 250 OK\n"
                                            "C: RCPT TO:<no@x.com>\nS: 550 no\nC: QUIT")));
  EXPECT_EQ(SendMail(refusing.port(), {{"To", "a@x.com,no@x.com"}, {"Cc", "c@x.com"}}),
            Failure("Send mail error"));
  EXPECT_TRUE(refusing.Finish()) << refusing.Errors();
  // What may not be attached fails the send before it connects: no file, no
  // regular file (/dev/zero would be read without end), one file or all of
  // them together past max_attachment_size.
  test::TempDir files;
  test::WriteFile(files / "big", std::string(1024 * 1024 + 1, 'x'));
  test::WriteFile(files / "mb", std::string(1024 * 1024, 'x'));
  test::WriteFile(files / "half", std::string(600 * 1024, 'x'));
  const ServiceSettings saved = g_settings;
  g_settings.maxAttachmentMb = 1;
  const std::pair<std::string, bool> attachments[] = {
      {"/nonexistent/f", true}, {"/", true},           {"/dev/zero", true},
      {files / "big", true},    {files / "mb", false}, {files / "half," + files / "half", true},
      {files / "half", false}};
  for (const auto& [paths, refused] : attachments) {
    std::string bytes = test::MailRequest({}, {}, {{"Attachments", paths}});
    RequestFields request(bytes.data(), bytes.size());
    EXPECT_EQ(MailSender(request).Mail().refusedAttachment.has_value(), refused) << paths;
    if (!refused) continue;
    ScriptedPeer unread({}, 100);
    EXPECT_EQ(SendMail(unread.port(), {{"To", "a@x.com"}}, {}, {{"Attachments", paths}}),
              Failure("Send mail error"));
    unread.Finish();
    EXPECT_EQ(unread.Connections(), 0) << paths;
  }
  g_settings = saved;
  // A Bcc recipient gets a copy without a header; a refused sender stops the rest.
  std::string a, hidden;
  ScriptedPeer peer(Smtp("s@x.org", {{"a@x.com", &a}, {"hidden@x.net", &hidden}},
                         test::Dialogue("C: MAIL FROM:<s@x.org>\nS: 550 no\nC: QUIT")));
  MailMessage message;
  message.AppendHeader("a@x.com", kFieldTo);
  message.AppendHeader("hidden@x.net", kFieldBcc);
  message.AppendHeader("S<s@x.org>", kFieldFrom);
  message.AppendHeader("Hi", kFieldSubject);
  message.SetTextBody("line\r\n");
  SmtpClient client, idle;
  client.SetPort(peer.port());
  ASSERT_EQ(client.SMTPConnect("127.0.0.1", "localhost"), 0);
  EXPECT_EQ(SubmitMessage(client, message), 0);
  EXPECT_EQ(Stable(a), Stable(hidden));
  EXPECT_EQ(a.find("hidden@"), std::string::npos) << a;
  // The sender refused, or no connection at all.
  EXPECT_EQ(std::pair(SubmitMessage(client, message), SubmitMessage(idle, message)),
            std::pair(12, 6));
  client.SMTPClose();
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

// With files_root set, every local path a request names must resolve inside
// it, links followed; a refused one fails the request before any server is
// asked, and the forward's own copies are not the request's.
TEST_F(MailboxTest, FilesRootConfinesEveryLocalPathARequestNames) {
  test::TempDir root, outside;
  fs::create_directories(root / "in");
  fs::create_directory_symlink(outside.path(), root / "out");
  fs::create_symlink(outside / "x.bin", root / "in/_.._x.bin");  // where the attachment goes
  const ServiceSettings saved = g_settings;
  g_settings.filesRoot = root.path();
  const std::pair<std::string, bool> directories[] = {
      {root / "in", true},        {root / "in/new/", true}, {root / "out", false},
      {root / "in/../..", false}, {outside.path(), false},  {"ftp://files.example/box", true}};
  for (const auto& [directory, allowed] : directories) {
    ScriptedPeer idle({}, 100);
    std::string bytes = Request(idle, {{"ID", "m1"}, {"Attachment", directory}});
    RequestFields request(bytes.data(), bytes.size());
    wxEntryLog answer;
    answer.SetRecording(true);
    EXPECT_EQ(MailReceiver(request, registry_).DestinationAllowed(answer), allowed) << directory;
    EXPECT_EQ(answer.Serialize(), allowed ? "" : Failure("Load pop3 message error"));
  }
  // A link in the attachment's place leads out: that file is not written.
  ScriptedPeer scanned(test::Join({Retrieval(300, {Send("+OK\r\n" + kScan + ".\r\n")}), kQuit}));
  EXPECT_NE(Receive(scanned, {{"Attachment", root / "in"}})
                .second.find(Entry(3, "Attachment0", "_.._x.bin,-1")),
            std::string::npos);
  EXPECT_FALSE(fs::exists(outside / "x.bin"));
  test::WriteFile(root / "in/a.txt", "a");
  for (auto [path, refused] :
       {std::pair{root / "in/a.txt", false}, {root / "out/f", true}, {root / "in/../../f", true}}) {
    std::string bytes = test::MailRequest({}, {}, {{"Attachments", root / "in/a.txt," + path}});
    RequestFields request(bytes.data(), bytes.size());
    EXPECT_EQ(MailSender(request).Mail().refusedAttachment.has_value(), refused) << path;
  }
  ScriptedPeer idle({}, 100);
  EXPECT_EQ(SendMail(idle.port(), {{"To", "a@x.com"}}, {}, {{"Attachments", root / "out/f"}}),
            Failure("Send mail error"));
  idle.Finish();
  EXPECT_EQ(idle.Connections(), 0);
  std::string bytes = test::MailRequest({}, {}, {{"Attachments", "/etc/passwd"}});
  RequestFields request(bytes.data(), bytes.size());
  MailForwarder forwarder(request);
  forwarder.Merge({}, outside.path() + "/");
  EXPECT_FALSE(forwarder.Mail().refusedAttachment);
  g_settings = saved;
}

// from, to, cc, subject, date, body, priority and attachments.
RenderedMail Original() {
  return {"Ann <ann@example.com>", "me@example.org",     {}, "Plans",
          "2026-11-20 09:30",      "Shall we meet?\r\n", {}, {}};
}

// A request as the client sends it, kept alive with the parsed fields.
struct Request {
  explicit Request(const test::Fields& parameters, const test::Fields& multiValued = {})
      : bytes(test::MailRequest({{"Smtp", "127.0.0.1"}, {"Login", "me@example.org"}, {"Pwd", "pw"}},
                                parameters, multiValued)),
        fields(bytes.data(), bytes.size()) {}
  std::string bytes;
  RequestFields fields;
};

OutgoingMail Reply(const RenderedMail& original, const test::Fields& parameters) {
  Request request(parameters);
  MailReplier replier(request.fields);
  replier.Merge(original);
  return replier.Mail();
}

TEST(ReplyTest, GoesToTheSenderOrAllButTheLoginQuotesUnderTheGb2312HeaderAndForwardsLikewise) {
  using Text = std::optional<std::string>;
  const Text ann = "Ann <ann@example.com>", none;
  const test::Fields all = {{"Replies", "all"}}, allCc = {{"Replies", "all"}, {"Cc", "d@x"}};
  const struct {
    Text to, cc;
    test::Fields parameters;
    Text replyTo, replyCc;
  } cases[] = {{"me@example.org,b@x.com", "c@x.com", {{"Cc", "d@x"}}, ann, "d@x"},
               {"me@example.org", none, all, ann, none},
               {"b@x.com, me@example.org, c@x.com", "C <c@x.com>", all, "b@x.com,c@x.com," + *ann,
                "C <c@x.com>"},
               // The login last leaves a comma behind, and the join adds another.
               {"b@x.com, c@x.com, me@example.org", "c@x.com,me@example.org", all,
                "b@x.com,c@x.com,,Ann <ann@example.com>", "c@x.com,"},
               {"B <b@x.com>", none, allCc, "B <b@x.com>," + *ann, "d@x"}};
  for (const auto& c : cases) {
    RenderedMail original = Original();
    std::tie(original.to, original.cc) = std::tie(c.to, c.cc);
    const OutgoingMail mail = Reply(original, c.parameters);
    EXPECT_EQ(std::tuple(mail.to, mail.cc, mail.from),
              std::tuple(c.replyTo, c.replyCc, Text("me@example.org")))
        << c.to.value_or("(none)") << " / " << c.cc.value_or("(none)");
  }
  // The subject prefix, and quoting under the gb2312 header; a forward likewise.
  std::optional<std::string> header =
      ConvertCharset("utf-8", "gb2312",
                     "------------原邮件内容-------------\r\n发件人: Ann <ann@example.com>\r\n"
                     "发送时间: 2026-11-20 09:30\r\n收件人: me@example.org\r\n主题: Plans\r\n");
  ASSERT_TRUE(header.has_value());
  EXPECT_EQ(QuotationHeader(Original()), *header);
  const std::string quoted = "\r\n\r\n" + *header + "\r\nShall we meet?\r\n";
  RenderedMail again = Original();
  again.subject = "Reply: Plans";
  EXPECT_EQ(
      Reply(again, {}).subject.value() + "|" + Reply(again, {{"Subject", "Own"}}).subject.value(),
      "Reply: Reply: Plans|Own");
  std::vector<std::optional<std::string>> bodies;
  for (const test::Fields& parameters : {test::Fields{{"Body", "Yes."}, {"Quote", "True"}},
                                         {{"Body", "Yes.--#13--Ann"}, {"Quote", "true"}},
                                         {{"Quote", "true"}}})
    bodies.push_back(Reply(Original(), parameters).body);
  EXPECT_EQ(bodies, (decltype(bodies){"Yes.", "Yes.\r\nAnn" + quoted, quoted}));
  // A forward quotes alike, and takes only the original's saved attachments.
  RenderedMail original = Original();
  original.attachments = {{"plan.pdf", 1200}, {"unwritable.bin", -1}, {"photo.jpg", 0}};
  Request request({{"To", "zed@example.net"}, {"From", "alias@example.org"}},
                  {{"Attachments", "/etc/passwd"}});
  MailForwarder forwarder(request.fields);
  forwarder.Merge(original, "/cache/me/");
  const OutgoingMail& mail = forwarder.Mail();
  EXPECT_EQ(std::tuple(mail.subject, mail.from, mail.body),
            std::tuple("Fw: Plans", "alias@example.org", quoted));
  EXPECT_EQ(forwarder.AttachedFiles(),
            (std::vector<std::string>{"/cache/me/plan.pdf", "/cache/me/photo.jpg"}));
  // Not sent short of the attachment that could not be saved.
  wxEntryLog answer;
  answer.SetRecording(true);
  forwarder.Send(answer);
  EXPECT_EQ(answer.Serialize(), Failure("Send mail error"));
}

}  // namespace
}  // namespace corvane
