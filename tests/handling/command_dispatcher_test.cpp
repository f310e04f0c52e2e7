#include "handling/command_dispatcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <thread>

#include "accounts/process_registry.h"
#include "base/limits.h"
#include "base/process_log.h"
#include "handling/check_mail.h"
#include "handling/notify_program.h"
#include "support/mail_request.h"
#include "support/pop3_script.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "transport/wx_node_ref.h"
#include "transport/wx_query.h"
#include "transport/wx_record_file.h"

namespace corvane {
namespace {

using test::Fields;
using namespace std::string_literals;

// "pop3,login,pwd,mobile[,port]" as request fields.
Fields Account(const std::string& csv) {
  Fields fields;
  std::istringstream in(csv);
  for (const char* name : {"Pop3", "Login", "Pwd", "Mobile", "Port"}) {
    if (std::string value; std::getline(in, value, ',')) fields.push_back({name, value});
  }
  return fields;
}

class CommandDispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(dir_ / "log");
    g_logWriter = std::make_unique<LogWriter>(dir_ / "log/", kLogDebug);
    g_accountRegistry.store(std::make_shared<AccountRegistry>(profile_, dir_.path()));
  }
  void TearDown() override {
    g_accountRegistry.store(nullptr);
    g_logWriter.reset();
  }
  // The answer's "sysRESPONSE" fields as "Command/Status/Log", absent ones empty.
  std::string Send(const std::string& request) {
    wxQuery query;
    query.AddRecordSet();
    std::string answer = dispatcher_.Dispatch(request);
    EXPECT_TRUE(query.Parse(answer.data(), answer.size()));
    wxNodeRef response(query, query.FindNode("sysRESPONSE"));
    return response.GetValue("Command").value_or("") + "/" +
           response.GetValue("Status").value_or("") + "/" + response.GetValue("Log").value_or("");
  }
  std::string Config(const std::string& action, Fields account, const char* polling) {
    account.insert(account.begin(), {"Command", "ConfigMail"});
    return Send(test::MailRequest(account, {{"Config", action}, {"Polling", polling}}));
  }
  // The registry's line for `key`, "-" when it has none.
  std::string Line(const std::string& key) {
    auto account = g_accountRegistry.load()->Find(key);
    return account ? account->FormatLine() : "-";
  }

  test::TempDir dir_;
  const std::string profile_ = dir_ / "account.dat";
  CommandDispatcher dispatcher_;
  const Fields joe_ = Account("pop.local,joe,secret,139,995");
};

TEST_F(CommandDispatcherTest, RequestsWithoutAKnownCommandAreRefused) {
  for (std::string request : {test::MailRequest({{"Login", "joe"}}, {}), "\x01garbage\xff"s, ""s}) {
    EXPECT_EQ(Send(request), "/fail/Request command is wrong");
  }
  // Commands match exactly, with case; the answer is one record closed by a
  // zero-named entry.
  EXPECT_EQ(dispatcher_.Dispatch(test::MailRequest({{"Command", "sendmail"}}, {})),
            "1211sysRESPONSE19aResponse217Command18sendmail216Status14fail"
            "213Log214Unknow command511010");
}

TEST_F(CommandDispatcherTest, ConfigMailChangesTheRegistryAndItsProfile) {
  // Another host is another key; the port defaults to 110, only "stop"
  // switches polling off, and a login with "@" is the key itself.
  const struct {
    const char* action;
    Fields account;
    const char* polling;
    const char* answer;
    const char* key;
    const char* line;  // the key's registry line afterwards
  } steps[] = {
      {"update", joe_, "start", "fail/Account is not exist", "joe@pop.local", "-"},
      {"delete", joe_, "start", "fail/Account is not exist", "joe@pop.local", "-"},
      {"append", joe_, "start", "success/", "joe@pop.local", "joe,pop.local,secret,995,139,1"},
      {"Append", joe_, "stop", "fail/Account is already exist", "joe@pop.local",
       "joe,pop.local,secret,995,139,1"},
      {"APPEND", Account("other.host,joe,x,1"), "Stop", "success/", "joe@other.host",
       "joe,other.host,x,110,1,1"},
      {"append", Account("pop.a,ann@mail.org,pw,138"), "stop", "success/", "ann@mail.org",
       "ann@mail.org,pop.a,pw,110,138,0"},
      {"update", Account("pop.local,joe,new,137,110"), "stop", "success/", "joe@pop.local",
       "joe,pop.local,new,110,137,0"},
      {"rename", joe_, "stop", "fail/Error config parameter", "joe@pop.local",
       "joe,pop.local,new,110,137,0"},
      {"delete", joe_, "stop", "success/", "joe@pop.local", "-"}};
  for (const auto& step : steps) {
    EXPECT_EQ(Config(step.action, step.account, step.polling), "ConfigMail/"s + step.answer)
        << step.action << " " << step.key;
    EXPECT_EQ(Line(step.key), step.line) << step.action << " " << step.key;
  }
  wxRecordFile file(profile_);
  file.SetEncipher(true);
  ASSERT_EQ(file.CountRecords(), 2);
  EXPECT_EQ(file.ReadRecord(), "joe,other.host,x,110,1,1");
  EXPECT_EQ(file.ReadRecord(), "ann@mail.org,pop.a,pw,110,138,0");
}

TEST_F(CommandDispatcherTest, MissingOrHostileFieldsChangeNothing) {
  // An empty value reads as absent; CR or LF would start a row of its own in
  // the profile, a comma move its fields; past 255 bytes a field is refused. (A NUL never arrives:
  // the container cuts a value there.)
  for (size_t field = 0; field < 4; ++field) {
    for (std::string change : {"<remove>"s, ""s, "x\r\nevil,pop.evil,pw,110,1,1"s, "x\nevil"s,
                               ",1,1"s, std::string(253, 'x')}) {
      Fields account = joe_;
      auto& value = account[field].second;
      value = change.empty() ? change : *value + change;
      if (change == "<remove>") account.erase(account.begin() + static_cast<long>(field));
      EXPECT_EQ(Config("append", account, "start"),
                change.empty() || change == "<remove>"
                    ? "ConfigMail/fail/The parameter of request is not enough"
                    : "ConfigMail/fail/Error config parameter")
          << field << " " << change;
    }
  }
  EXPECT_EQ(
      Send(test::MailRequest(
          {{"Command", "ConfigMail"}, {"Pop3", "p"}, {"Login", "l"}, {"Pwd", "w"}, {"Mobile", "m"}},
          {})),
      "ConfigMail/fail/The parameter of request is not enough");
  auto registry = g_accountRegistry.load();
  EXPECT_EQ(registry->Count(), 0u);
  // 255 bytes are taken, and accounts up to the registry's bound.
  for (size_t k = 1; k < limits::kMaxAccounts; ++k) {
    auto account = std::make_shared<corvane::Account>();
    account->login = "u" + std::to_string(k);
    registry->Add(std::move(account));
  }
  EXPECT_EQ(Config("append", Account("p," + std::string(255, 'l') + ",w,m"), "start"),
            "ConfigMail/success/");
  EXPECT_EQ(Config("append", Account("p,one-more,w,m"), "start"),
            "ConfigMail/fail/Save account file error");
  EXPECT_EQ(registry->Count(), limits::kMaxAccounts);
}

TEST_F(CommandDispatcherTest, AChangeThatCannotBeSavedIsUndoneAndAnswersFail) {
  ASSERT_EQ(Config("append", joe_, "start"), "ConfigMail/success/");
  const std::string saved = test::ReadFile(profile_);
  // The save cannot keep its backup: something holds the backup's scratch name.
  std::filesystem::create_directories(profile_ + ".bak.new/taken");
  for (auto [action, account] : {std::pair{"append", Account("pop.local,ann,secret,139,995")},
                                 {"update", Account("pop.local,joe,changed,139,995")},
                                 {"delete", joe_}}) {
    EXPECT_EQ(Config(action, account, "stop"), "ConfigMail/fail/Save account file error") << action;
  }
  EXPECT_EQ(g_accountRegistry.load()->Count(), 1u);
  EXPECT_EQ(Line("joe@pop.local"), "joe,pop.local,secret,995,139,1");
  EXPECT_EQ(test::ReadFile(profile_), saved);
}

// A message not seen before is recorded as known, then announced by the
// notification program with sender and subject as plain arguments: no shell
// ever reads what a mail said.
TEST_F(CommandDispatcherTest, CheckMailAnnouncesEachNewMessageOnceWithoutAShell) {
  const std::string subject = "$(touch pwned) \"quoted\" `id`;\x1B[2J";
  test::ScopedEnv utc("TZ", "UTC");  // the notice gives the local minute
  tzset();
  const std::vector<test::Step> quit = {test::Expect("QUIT\r\n"), test::Send("+OK\r\n")};
  test::ScriptedPeer pop3(
      test::Join({test::Pop3Login("joe", "secret"),
                  test::Pop3Listing(2, "1 seen\r\n2 new\r\n"),
                  {test::Expect("TOP 2 0\r\n"),
                   test::Send("+OK\r\nFrom: ann@mail.org\r\nSubject: " + subject +
                              "\r\nDate: Tue, 14 Nov 2023 22:13:20 +0000\r\n\r\n.\r\n")},
                  quit,
                  {test::Accept()},  // the next pass: one message, known by now
                  test::Pop3Login("joe", "secret"),
                  test::Pop3Listing(1, "1 new\r\n"),
                  quit}));
  ASSERT_EQ(
      Config("append", Account("127.0.0.1,joe,secret,139," + std::to_string(pop3.port())), "start"),
      "ConfigMail/success/");
  auto joe = g_accountRegistry.load()->Find("joe@127.0.0.1");
  std::filesystem::create_directories(joe->cacheDirectory);
  test::WriteFile(joe->mailListPath, "seen");
  test::WriteFile(dir_ / "notify",
                  "#!/bin/sh\nprintf '%s|' \"$@\" > \"$0.part\" && mv \"$0.part\" \"$0.out\"\n");
  std::filesystem::permissions(dir_ / "notify", std::filesystem::perms::owner_all);

  CheckMailThread check(dir_ / "notify", std::chrono::hours(1));
  testing::internal::CaptureStdout();
  check.CheckAllAccounts(*g_accountRegistry.load());
  check.CheckAllAccounts(*g_accountRegistry.load());
  // The console shows the subject escaped; the program gets it as it is.
  EXPECT_NE(testing::internal::GetCapturedStdout().find(
                "Subject: $(touch pwned) \"quoted\" `id`;\\x1B[2J\r\n"),
            std::string::npos);
  EXPECT_TRUE(pop3.Finish()) << pop3.Errors();
  for (int i = 0; i < 1000 && !std::filesystem::exists(dir_ / "notify.out"); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(test::ReadFile(dir_ / "notify.out"),
            "139|ann@mail.org|2023-11-14 22:13|" + subject + "|");
  EXPECT_FALSE(std::filesystem::exists("pwned"));
  // The second pass's server no longer lists "seen": it leaves the list,
  // which stays on disk only between checks.
  EXPECT_EQ(test::ReadFile(joe->mailListPath), "new");
  EXPECT_FALSE(joe->knownUidsLoaded);
  // The logged command line is cut to 4095 bytes.
  EXPECT_EQ(NotifyCommandLine("/n", "1", "a", "d", "s"), "/n \"1\" \"a\" \"d\" \"s\"");
  for (size_t size : {4095u, 4096u}) {
    EXPECT_EQ(NotifyCommandLine("/n", "1", "a", "d", std::string(size - 17, 's')),
              ("/n \"1\" \"a\" \"d\" \"" + std::string(size - 17, 's') + "\"").substr(0, 4095));
  }
}

// At most so many notification programs run at once: a further one waits
// for a place, or for the check to stop.
TEST(NotifyProgramsTest, AFurtherProgramWaitsForAPlaceOrTheStop) {
  test::TempDir dir;
  // Each marks its first argument, then waits for "release" (at most 10 s).
  test::WriteFile(dir / "notify",
                  "#!/bin/sh\ncd \"$(dirname \"$0\")\" && touch \"$1\"\n"
                  "for i in $(seq 200); do [ -e release ] && exit; sleep 0.05; done\n");
  std::filesystem::permissions(dir / "notify", std::filesystem::perms::owner_all);
  NotifyPrograms programs(2);
  auto run = [&](const char* mark, bool stopping) {  // else it stops after 10 s
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    return programs.RunNotifyProgram(dir / "notify", mark, "f", "d", "s", [stopping, until] {
      return stopping || std::chrono::steady_clock::now() > until;
    });
  };
  EXPECT_EQ(run("a", false) + run("b", false), 0);
  EXPECT_EQ(run("c", true), ECANCELED);
  test::WriteFile(dir / "release", "");
  EXPECT_EQ(run("d", false), 0);
  for (int i = 0; i < 1000 && !std::filesystem::exists(dir / "d"); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(std::filesystem::exists(dir / "a") && std::filesystem::exists(dir / "d"));
  EXPECT_FALSE(std::filesystem::exists(dir / "c"));
}

// A pass checks accounts at once, up to its workers, but an account whose
// polling is off holds back every account after it until it is switched on.
TEST_F(CommandDispatcherTest, CheckMailPollsAtOnceButNeverPastAHeldAccount) {
  std::atomic<int> connected{0};
  // Each server greets only once all four checks are connected together.
  const test::Step allFour = test::Do([&connected](test::PeerSession&, std::string& error) {
    ++connected;
    for (int i = 0; i < 1000 && connected < 4; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (connected < 4) error = "the checks did not run at once";
    return error.empty();
  });
  auto mailbox = [](const std::string& login, std::vector<test::Step> first = {}) {
    return test::Join({first,
                       test::Pop3Login(login, "pw"),
                       test::Pop3Listing(0, ""),
                       {test::Expect("QUIT\r\n"), test::Send("+OK\r\n")}});
  };
  std::vector<std::unique_ptr<test::ScriptedPeer>> peers;
  for (int i = 0; i < 4; ++i) {
    const std::string login = "u" + std::to_string(i);
    peers.push_back(std::make_unique<test::ScriptedPeer>(mailbox(login, {allFour})));
    ASSERT_EQ(Config("append",
                     Account("127.0.0.1," + login + ",pw,1," + std::to_string(peers[i]->port())),
                     "start"),
              "ConfigMail/success/");
  }
  CheckMailThread(std::nullopt, std::chrono::hours(1), 4)
      .CheckAllAccounts(*g_accountRegistry.load());
  for (auto& peer : peers) EXPECT_TRUE(peer->Finish()) << peer->Errors();

  test::ScriptedPeer before(mailbox("a")), held(mailbox("h")), after(mailbox("b"));
  auto reset = std::make_shared<AccountRegistry>(profile_ + ".2", dir_.path());
  g_accountRegistry.store(reset);
  const Fields h = Account("127.0.0.1,h,pw,1," + std::to_string(held.port()));
  for (auto [login, peer, polling] :
       {std::tuple{"a", &before, "start"}, {"h", &held, "stop"}, {"b", &after, "start"}}) {
    ASSERT_EQ(
        Config("append", Account("127.0.0.1,"s + login + ",pw,1," + std::to_string(peer->port())),
               polling),
        "ConfigMail/success/");
  }
  CheckMailThread check(std::nullopt, std::chrono::hours(1), 4);
  std::thread pass([&] { check.CheckAllAccounts(*reset); });
  EXPECT_TRUE(before.Finish()) << before.Errors();
  EXPECT_EQ(after.Connections(), 0) << "checked past the held account";
  EXPECT_EQ(Config("update", h, "start"), "ConfigMail/success/");
  pass.join();
  EXPECT_TRUE(held.Finish()) << held.Errors();
  EXPECT_TRUE(after.Finish()) << after.Errors();
}

}  // namespace
}  // namespace corvane
