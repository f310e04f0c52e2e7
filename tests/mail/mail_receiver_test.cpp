// Retrieval against scripted POP3 servers: time-outs scaled by size, no
// cut-short cache file after a failure, the default body.
#include "mail/mail_receiver.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/mail_request.h"
#include "support/pop3_script.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::Close;
using test::Expect;
using test::Pause;
using test::ScriptedPeer;
using test::Send;
using test::Step;

constexpr char kMessage[] =
    "Subject: sized\r\nContent-Type: text/plain; charset=us-ascii\r\n\r\nbody text\r\n";

class MailReceiverTest : public ::testing::Test {
 protected:
  // Login, count, id list and LIST of the one message "m1" of `size` bytes,
  // then `retr` (the steps from "RETR 1" on).
  static std::vector<Step> Session(long size, std::vector<Step> retr) {
    return test::Join({test::Pop3Login(),
                       test::Pop3Listing(1, "1 m1\r\n"),
                       {Expect("LIST 1\r\n"), Send("+OK 1 " + std::to_string(size) + "\r\n"),
                        Expect("RETR 1\r\n")},
                       std::move(retr)});
  }

  // Fetches "m1" with a POP3 time-out of 1 s and renders it as the dispatcher
  // does; the fetch result.
  int Receive(ScriptedPeer& peer, std::string& answerBytes,
              const std::optional<std::string>& defaultBody = std::nullopt,
              test::Fields parameters = {}) {
    parameters.emplace_back("ID", "m1");
    std::string bytes = test::MailRequest({{"Pop3", "127.0.0.1"},
                                           {"Port", std::to_string(peer.port())},
                                           {"Login", "joe"},
                                           {"Pwd", "pw"}},
                                          parameters);
    RequestFields request(bytes.data(), bytes.size());
    wxEntryLog answer;
    answer.SetRecording(true);
    MailReceiver receiver(request, registry_);
    receiver.SetMaxMessageBytes(maxMessageBytes_);
    int result = receiver.Fetch(answer, 1);
    if (result == 0) {
      receiver.Render();
      receiver.ConvertHtmlBody();
      receiver.SaveAttachments();
      receiver.ApplyDefaultBody(defaultBody);
      receiver.WriteAnswer(answer);
    }
    peer.Finish();
    answerBytes = answer.Serialize();
    return result;
  }
  // Every file of the mailbox's cache directory.
  std::string CacheDirectory(const ScriptedPeer& peer) const {
    return dir_ / ("cache/joe@127.0.0.1:" + std::to_string(peer.port()));
  }
  std::vector<std::string> CacheFiles(const ScriptedPeer& peer) const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(CacheDirectory(peer))) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  test::TempDir dir_;
  AccountRegistry registry_{dir_ / "account.dat", dir_.path()};
  int64_t maxMessageBytes_ = 0;
};

std::string Retrieved(const std::string& message) {
  return "+OK\r\n" + message + ".\r\n";
}

TEST_F(MailReceiverTest, LargeMessagesGetLongerTimeOuts) {
  std::string answer;
  // 1.5 s of silence: too long for the 1 s time-out, within twice it.
  ScriptedPeer doubled(Session(
      2048001, {Pause(1500), Send(Retrieved(kMessage)), Expect("QUIT\r\n"), Send("+OK\r\n")}));
  EXPECT_EQ(Receive(doubled, answer), 0);
  EXPECT_NE(answer.find(test::Entry(2, "Body", "body text\r\n")), std::string::npos) << answer;
  EXPECT_EQ(CacheFiles(doubled), std::vector<std::string>{"m1.txt"});

  ScriptedPeer tripled(Session(
      3072001, {Pause(2500), Send(Retrieved(kMessage)), Expect("QUIT\r\n"), Send("+OK\r\n")}));
  EXPECT_EQ(Receive(tripled, answer), 0);

  ScriptedPeer plain(Session(2048000, {Pause(1500), Send(Retrieved(kMessage))}));
  EXPECT_NE(Receive(plain, answer), 0);
  EXPECT_EQ(answer,
            test::Entry(2, "Status", "fail") + test::Entry(2, "Log", "Load pop3 message error"));
  EXPECT_TRUE(CacheFiles(plain).empty());
}

TEST_F(MailReceiverTest, AMessageOverTheSizeLimitIsNeitherFetchedNorCached) {
  maxMessageBytes_ = 4096;
  const std::string failed =
      test::Entry(2, "Status", "fail") + test::Entry(2, "Log", "Load pop3 message error");
  std::string answer;
  // Too large by its LIST size: no RETR is sent.
  std::vector<Step> listed = Session(5000, {});
  listed.back() = Expect("QUIT\r\n");
  ScriptedPeer large(listed);
  EXPECT_EQ(Receive(large, answer), 79);
  EXPECT_EQ(answer, failed);
  // A server whose LIST understates it is stopped once the limit is passed.
  ScriptedPeer lying(Session(100, {Send("+OK\r\n" + std::string(8000, 'x') + "\r\n.\r\n")}));
  EXPECT_EQ(Receive(lying, answer), 79);
  EXPECT_EQ(answer, failed);
  EXPECT_TRUE(CacheFiles(lying).empty());
}

TEST_F(MailReceiverTest, AConnectionLostMidTransferLeavesNoCacheFile) {
  std::string answer;
  ScriptedPeer peer(Session(500, {Send("+OK\r\nSubject: cut\r\n\r\nthe first half"), Close()}));
  EXPECT_NE(Receive(peer, answer), 0);
  EXPECT_EQ(answer,
            test::Entry(2, "Status", "fail") + test::Entry(2, "Log", "Load pop3 message error"));
  EXPECT_TRUE(CacheFiles(peer).empty());
}

TEST_F(MailReceiverTest, AMessageWithoutBodyGetsTheDefaultBody) {
  std::string attachmentOnly =
      "Subject: scan\r\nContent-Type: multipart/mixed; boundary=\"x\"\r\n\r\n--x\r\n"
      "Content-Type: application/octet-stream; name=\"scan.bin\"\r\n"
      "Content-Transfer-Encoding: base64\r\n\r\nAAEC\r\n--x--\r\n";
  std::string answer;
  ScriptedPeer peer(
      Session(200, {Send(Retrieved(attachmentOnly)), Expect("QUIT\r\n"), Send("+OK\r\n")}));
  ASSERT_EQ(Receive(peer, answer, "(no text)"), 0);
  EXPECT_EQ(answer, test::SuccessHead() + test::Entry(2, "Subject", "scan") +
                        test::Entry(2, "Body", "(no text)"));
}

TEST_F(MailReceiverTest, AttachmentNamesBecomeOneSafeFileNameEach) {
  struct Case {
    std::string nameParameter;  // as the message gives it
    std::string fileName;
  };
  const std::vector<Case> cases = {
      {"name=\"../../escape.bin\"", ".._.._escape.bin"},
      {"name=\"..\\\\..\\\\escape.bin\"", ".._.._escape.bin"},
      {"name=\"..\"", "_"},
      {"name=\".\"", "_"},
      {"name=\"=?utf-8?Q?a=0D=0ASTOR_x?=\"", "a  STOR x"},
      {"name*=utf-8''b%0D%0ADELE%20y", "b  DELE y"},
      {"name*=utf-8''c%00.txt", "c"},
      {"name*=utf-8''%2E%2E", "_"},
  };
  std::string message = "Subject: x\r\nContent-Type: multipart/mixed; boundary=\"x\"\r\n\r\n";
  for (const Case& c : cases) {
    message += "--x\r\nContent-Type: application/octet-stream; " + c.nameParameter +
               "\r\nContent-Transfer-Encoding: base64\r\n\r\nAAEC\r\n";
  }
  message += "--x--\r\n";
  test::TempDir target;
  std::filesystem::create_directories(target / "inner");
  std::string answer;
  ScriptedPeer peer(Session(300, {Send(Retrieved(message)), Expect("QUIT\r\n"), Send("+OK\r\n")}));
  ASSERT_EQ(Receive(peer, answer, std::nullopt, {{"Attachment", target / "inner"}}), 0);
  for (size_t k = 0; k < cases.size(); ++k) {
    EXPECT_NE(
        answer.find(test::Entry(3, "Attachment" + std::to_string(k), cases[k].fileName + ",3")),
        std::string::npos)
        << cases[k].nameParameter << "\n"
        << answer;
    EXPECT_TRUE(std::filesystem::exists(target / ("inner/" + cases[k].fileName)))
        << cases[k].fileName;
  }
  // Nothing lands anywhere but in the target directory itself.
  for (const auto& entry : std::filesystem::recursive_directory_iterator(target.path())) {
    if (entry.is_regular_file()) {
      EXPECT_EQ(entry.path().parent_path(), target / "inner");
    }
  }
}

}  // namespace
}  // namespace corvane
