#include "handling/command_dispatcher.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "accounts/process_registry.h"
#include "base/process_log.h"
#include "support/mail_request.h"
#include "support/temp_dir.h"
#include "transport/wx_entry_log.h"
#include "transport/wx_node_ref.h"
#include "transport/wx_query.h"
#include "transport/wx_record_file.h"

namespace corvane {
namespace {

using test::Fields;

std::string Request(const Fields& request, const Fields& parameters = {}) {
  return test::MailRequest(request, parameters);
}

// The answer's "sysRESPONSE" fields.
std::map<std::string, std::string> AnswerFields(const std::string& answer) {
  wxQuery query;
  query.AddRecordSet();
  EXPECT_TRUE(query.Parse(answer.data(), answer.size()));
  wxNodeRef response(query, query.FindNode("sysRESPONSE"));
  EXPECT_TRUE(response);
  std::map<std::string, std::string> fields;
  for (const char* name : {"Command", "Status", "Log"}) {
    if (auto value = response ? response.GetValue(name) : std::nullopt) fields[name] = *value;
  }
  return fields;
}

class CommandDispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(dir_ / "log");
    g_logWriter = std::make_unique<LogWriter>(dir_ / "log/", kLogDebug);
    g_accountRegistry.store(std::make_shared<AccountRegistry>(accountFile(), dir_.path()));
  }
  void TearDown() override {
    g_accountRegistry.store(nullptr);
    g_logWriter.reset();
  }

  std::map<std::string, std::string> Send(const std::string& request) {
    return AnswerFields(dispatcher_.Dispatch(request));
  }
  std::map<std::string, std::string> Config(const std::string& action, const Fields& account,
                                            const std::string& polling = "start") {
    Fields request = {{"Command", "ConfigMail"}};
    request.insert(request.end(), account.begin(), account.end());
    return Send(Request(request, {{"Config", action}, {"Polling", polling}}));
  }
  std::string LogText() {
    std::string text;
    for (const auto& entry : std::filesystem::directory_iterator(dir_ / "log")) {
      text += test::ReadFile(entry.path());
    }
    return text;
  }
  std::string accountFile() const { return dir_ / "account.dat"; }
  AccountRegistry& registry() { return *g_accountRegistry.load(); }

  test::TempDir dir_;
  CommandDispatcher dispatcher_;
  const Fields joe_ = {{"Pop3", "pop.local"},
                       {"Port", "995"},
                       {"Login", "joe"},
                       {"Pwd", "secret"},
                       {"Mobile", "139"}};
};

TEST_F(CommandDispatcherTest, MissingCommandIsWrongRequest) {
  auto answer = Send(Request({{"Login", "joe"}}));
  EXPECT_EQ(answer.count("Command"), 0u);
  EXPECT_EQ(answer["Status"], "fail");
  EXPECT_EQ(answer["Log"], "Request command is wrong");
  // Bytes that are no container at all get the same answer.
  EXPECT_EQ(Send("\x01garbage\xff")["Log"], "Request command is wrong");
  EXPECT_EQ(Send("")["Log"], "Request command is wrong");
}

TEST_F(CommandDispatcherTest, CommandsMatchExactlyWithCase) {
  auto answer = Send(Request({{"Command", "sendmail"}}));
  EXPECT_EQ(answer["Command"], "sendmail");
  EXPECT_EQ(answer["Status"], "fail");
  EXPECT_EQ(answer["Log"], "Unknow command");
  EXPECT_NE(LogText().find(" [Error] Unknow command: sendmail\n"), std::string::npos);
  EXPECT_NE(LogText().find("[Corvane] Proccess command: sendmail ------------------------------\n"),
            std::string::npos);
  EXPECT_NE(LogText().find("\xCF\xEC\xD3\xA6\xC7\xEB\xC7\xF3\xCD\xEA\xB1\xCF Command: sendmail\n"),
            std::string::npos);
}

TEST_F(CommandDispatcherTest, AnswerIsOneRecordClosedByAZeroNamedEntry) {
  std::string answer = dispatcher_.Dispatch(Request({{"Command", "Nope"}}));
  EXPECT_EQ(answer,
            "1211sysRESPONSE19aResponse"
            "217Command14Nope"
            "216Status14fail"
            "213Log214Unknow command"
            "511010");
}

TEST_F(CommandDispatcherTest, AppendAddsTheAccountAndRewritesTheProfile) {
  auto answer = Config("append", joe_);
  EXPECT_EQ(answer["Command"], "ConfigMail");
  EXPECT_EQ(answer["Status"], "success");
  EXPECT_EQ(answer.count("Log"), 0u);
  auto account = registry().Find("joe@pop.local");
  ASSERT_NE(account, nullptr);
  EXPECT_EQ(account->FormatLine(), "joe,pop.local,secret,995,139,1");

  wxRecordFile profile(accountFile());
  profile.SetEncipher(true);
  ASSERT_EQ(profile.CountRecords(), 1);
  EXPECT_STREQ(profile.ReadRecord()->c_str(), "joe,pop.local,secret,995,139,1");
}

TEST_F(CommandDispatcherTest, AppendOfAKnownKeyFails) {
  Config("append", joe_);
  auto answer =
      Config("APPEND", {{"Pop3", "other.host"}, {"Login", "joe"}, {"Pwd", "x"}, {"Mobile", "1"}});
  EXPECT_EQ(answer["Status"], "success");  // a different key: joe@other.host
  answer = Config("Append", joe_);
  EXPECT_EQ(answer["Status"], "fail");
  EXPECT_EQ(answer["Log"], "Account is already exist");
  EXPECT_NE(LogText().find(" Account joe@pop.local is already exist\n"), std::string::npos);
}

TEST_F(CommandDispatcherTest, LoginWithAtSignIsTheKeyAndPortDefaultsTo110) {
  Config("append", {{"Pop3", "pop.a"}, {"Login", "ann@mail.org"}, {"Pwd", "pw"}, {"Mobile", "138"}},
         "stop");
  auto account = registry().Find("ann@mail.org");
  ASSERT_NE(account, nullptr);
  EXPECT_EQ(account->port, 110);
  EXPECT_EQ(account->polling, 0);
}

TEST_F(CommandDispatcherTest, OnlyLowerCaseStopSwitchesPollingOff) {
  Config("append", joe_, "Stop");
  EXPECT_EQ(registry().Find("joe@pop.local")->polling, 1);
}

TEST_F(CommandDispatcherTest, UpdateChangesCredentialsOfAKnownAccountOnly) {
  EXPECT_EQ(Config("update", joe_)["Log"], "Account is not exist");
  Config("append", joe_);
  auto answer = Config(
      "update",
      {{"Pop3", "pop.local"}, {"Port", "110"}, {"Login", "joe"}, {"Pwd", "new"}, {"Mobile", "137"}},
      "stop");
  EXPECT_EQ(answer["Status"], "success");
  EXPECT_EQ(registry().Find("joe@pop.local")->FormatLine(), "joe,pop.local,new,110,137,0");
}

TEST_F(CommandDispatcherTest, DeleteRemovesTheAccountAndTheProfile) {
  EXPECT_EQ(Config("delete", joe_)["Log"], "Account is not exist");
  Config("append", joe_);
  EXPECT_EQ(Config("delete", joe_)["Status"], "success");
  EXPECT_EQ(registry().Find("joe@pop.local"), nullptr);
  EXPECT_FALSE(std::filesystem::exists(accountFile()));
  EXPECT_TRUE(std::filesystem::exists(accountFile() + ".bak"));
}

TEST_F(CommandDispatcherTest, AChangeThatCannotBeSavedIsUndoneAndAnswersFail) {
  ASSERT_EQ(Config("append", joe_)["Status"], "success");
  const std::string profile = test::ReadFile(accountFile());
  // The save cannot keep its backup: something holds the backup's scratch name.
  std::filesystem::create_directories(accountFile() + ".bak.new/taken");
  Fields ann = joe_;
  ann[2].second = "ann";
  Fields joeChanged = joe_;
  joeChanged[3].second = "changed";
  EXPECT_EQ(Config("append", ann)["Log"], "Save account file error");
  EXPECT_EQ(Config("update", joeChanged, "stop")["Log"], "Save account file error");
  EXPECT_EQ(Config("delete", joe_)["Log"], "Save account file error");
  EXPECT_EQ(registry().Count(), 1u);
  ASSERT_NE(registry().Find("joe@pop.local"), nullptr);
  EXPECT_EQ(registry().Find("joe@pop.local")->FormatLine(), "joe,pop.local,secret,995,139,1");
  EXPECT_EQ(test::ReadFile(accountFile()), profile);
}

TEST_F(CommandDispatcherTest, UnknownActionAndMissingFields) {
  EXPECT_EQ(Config("rename", joe_)["Log"], "Error config parameter");
  for (const char* missing : {"Pop3", "Login", "Pwd", "Mobile"}) {
    Fields partial;
    for (const auto& field : joe_) {
      if (field.first != missing) partial.push_back(field);
    }
    EXPECT_EQ(Config("append", partial)["Log"], "The parameter of request is not enough")
        << missing;
  }
  // An empty value reads as absent.
  Fields emptyPassword = joe_;
  emptyPassword[3].second = "";
  EXPECT_EQ(Config("append", emptyPassword)["Log"], "The parameter of request is not enough");
  auto noParameters = Send(Request(
      {{"Command", "ConfigMail"}, {"Pop3", "p"}, {"Login", "l"}, {"Pwd", "w"}, {"Mobile", "m"}}));
  EXPECT_EQ(noParameters["Log"], "The parameter of request is not enough");
  // A field that would start a row of its own in the profile file. (A NUL
  // never arrives: the container cuts a value there.)
  for (const char* name : {"Pop3", "Login", "Pwd", "Mobile"}) {
    for (const char* hostile : {"x\r\nevil,pop.evil,pw,110,1,1", "x\nevil"}) {
      Fields forged = joe_;
      for (auto& field : forged) {
        if (field.first == name) field.second = *field.second + hostile;
      }
      EXPECT_EQ(Config("append", forged)["Log"], "Error config parameter") << name;
    }
  }
  EXPECT_EQ(registry().Count(), 0u);
}

}  // namespace
}  // namespace corvane
