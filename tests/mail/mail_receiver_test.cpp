// Retrieval against scripted POP3 servers: time-outs scaled by size, no
// cut-short cache file after a failure, the default body.
#include "mail/mail_receiver.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/mail_request.h"
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
    std::vector<Step> steps = {Send("+OK ready\r\n"),
                               Expect("USER joe\r\n"),
                               Send("+OK\r\n"),
                               Expect("PASS pw\r\n"),
                               Send("+OK\r\n"),
                               Expect("STAT\r\n"),
                               Send("+OK 1 1\r\n"),
                               Expect("UIDL\r\n"),
                               Send("+OK\r\n1 m1\r\n.\r\n"),
                               Expect("LIST 1\r\n"),
                               Send("+OK 1 " + std::to_string(size) + "\r\n"),
                               Expect("RETR 1\r\n")};
    steps.insert(steps.end(), retr.begin(), retr.end());
    return steps;
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
  std::vector<std::string> CacheFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_ / "cache/joe@127.0.0.1")) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  test::TempDir dir_;
  AccountRegistry registry_{dir_ / "account.dat", dir_.path()};
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
  EXPECT_EQ(CacheFiles(), std::vector<std::string>{"m1.txt"});
  std::filesystem::remove(dir_ / "cache/joe@127.0.0.1/m1.txt");

  ScriptedPeer tripled(Session(
      3072001, {Pause(2500), Send(Retrieved(kMessage)), Expect("QUIT\r\n"), Send("+OK\r\n")}));
  EXPECT_EQ(Receive(tripled, answer), 0);
  std::filesystem::remove(dir_ / "cache/joe@127.0.0.1/m1.txt");

  ScriptedPeer plain(Session(2048000, {Pause(1500), Send(Retrieved(kMessage))}));
  EXPECT_NE(Receive(plain, answer), 0);
  EXPECT_EQ(answer,
            test::Entry(2, "Status", "fail") + test::Entry(2, "Log", "Load pop3 message error"));
  EXPECT_TRUE(CacheFiles().empty());
}

TEST_F(MailReceiverTest, AConnectionLostMidTransferLeavesNoCacheFile) {
  std::string answer;
  ScriptedPeer peer(Session(500, {Send("+OK\r\nSubject: cut\r\n\r\nthe first half"), Close()}));
  EXPECT_NE(Receive(peer, answer), 0);
  EXPECT_EQ(answer,
            test::Entry(2, "Status", "fail") + test::Entry(2, "Log", "Load pop3 message error"));
  EXPECT_TRUE(CacheFiles().empty());
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

TEST_F(MailReceiverTest, AnAttachmentNameCannotLeadOutOfTheTargetDirectory) {
  std::string hostile =
      "Subject: x\r\nContent-Type: multipart/mixed; boundary=\"x\"\r\n\r\n--x\r\n"
      "Content-Type: text/plain\r\n\r\nhi\r\n--x\r\n"
      "Content-Type: application/octet-stream; name=\"../../escape.bin\"\r\n"
      "Content-Transfer-Encoding: base64\r\n\r\nAAEC\r\n--x--\r\n";
  test::TempDir target;
  std::filesystem::create_directories(target / "inner");
  std::string answer;
  ScriptedPeer peer(Session(300, {Send(Retrieved(hostile)), Expect("QUIT\r\n"), Send("+OK\r\n")}));
  ASSERT_EQ(Receive(peer, answer, std::nullopt, {{"Attachment", target / "inner"}}), 0);
  EXPECT_EQ(test::ReadFile(target / "inner/.._.._escape.bin"), std::string("\0\1\2", 3));
  EXPECT_FALSE(
      std::filesystem::exists(std::filesystem::path(target.path()).parent_path() / "escape.bin"));
  EXPECT_NE(answer.find(test::Entry(3, "Attachment0", ".._.._escape.bin,3")), std::string::npos);
}

}  // namespace
}  // namespace corvane
