#include "accounts/account_registry.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "support/temp_dir.h"
#include "transport/wx_record_file.h"

namespace corvane {
namespace {

using test::TempDir;

std::shared_ptr<Account> MakeAccount(const std::string& line) {
  auto account = std::make_shared<Account>();
  Account::ParseLine(line, *account);
  return account;
}

// The account lines of a profile file, read with the record file directly.
std::vector<std::string> ProfileLines(const std::string& path) {
  wxRecordFile file(path);
  file.SetEncipher(true);
  std::vector<std::string> lines;
  for (int count = file.CountRecords(); count > 0; --count) {
    auto record = file.ReadRecord();
    if (!record) break;
    lines.emplace_back(record->c_str());
  }
  return lines;
}

class AccountRegistryTest : public ::testing::Test {
 protected:
  std::string accountFile() const { return dir_ / "account.dat"; }
  std::unique_ptr<AccountRegistry> NewRegistry() {
    return std::make_unique<AccountRegistry>(accountFile(), dir_.path());
  }
  TempDir dir_;
};

TEST(AccountTest, KeyIsTheLoginWhenItHoldsAnAtSign) {
  EXPECT_EQ(AccountKey("joe", "pop.example.com"), "joe@pop.example.com");
  EXPECT_EQ(AccountKey("joe@example.com", "pop.other.org"), "joe@example.com");
  EXPECT_EQ(AccountKey("", ""), "@");
}

TEST(AccountTest, LineParsingSkipsEmptyFieldsAndNeedsSix) {
  Account account;
  Account::ParseLine("joe,,pop.local,secret,995,13800000000,1,extra", account);
  EXPECT_EQ(account.login, "joe");
  EXPECT_EQ(account.pop3Host, "pop.local");
  EXPECT_EQ(account.password, "secret");
  EXPECT_EQ(account.port, 995);
  EXPECT_EQ(account.mobile, "13800000000");
  EXPECT_EQ(account.polling, 1);
  EXPECT_EQ(account.FormatLine(), "joe,pop.local,secret,995,13800000000,1");

  Account five;
  Account::ParseLine("joe,pop.local,secret,110,139", five);
  EXPECT_EQ(five.login, "");
  EXPECT_EQ(five.port, 0);
  EXPECT_EQ(five.Key(), "@");

  Account numbers;
  Account::ParseLine("a,b,c,x110,m,on", numbers);
  EXPECT_EQ(numbers.port, 0);
  EXPECT_EQ(numbers.polling, 0);
}

TEST(AccountRegistryBucketsTest, HashRunsOverSignedBytes) {
  // h = c + 4h: "ab" = 98 + 4*97 = 486.
  EXPECT_EQ(AccountRegistry::BucketOf("ab"), 486u);
  EXPECT_EQ(AccountRegistry::BucketOf(""), 0u);
  // A byte above 0x7f counts as negative: -1 negated is 1.
  EXPECT_EQ(AccountRegistry::BucketOf("\xff"), 1u);
  // 16 bytes push h past 32 bits; the bucket stays in the table.
  std::string longKey(200, 'z');
  EXPECT_LT(AccountRegistry::BucketOf(longKey), AccountRegistry::kBucketCount);
  EXPECT_EQ(AccountRegistry::kBucketCount, 10009u);
}

TEST_F(AccountRegistryTest, MissingProfileLoadsNothing) {
  auto registry = NewRegistry();
  EXPECT_EQ(registry->Load(), -1);
  EXPECT_EQ(registry->Count(), 0u);
}

TEST_F(AccountRegistryTest, AddPlacesTheCacheByServerAndPortAndRefusesATakenKey) {
  auto registry = NewRegistry();
  ASSERT_TRUE(registry->Add(MakeAccount("joe,pop.local,pw,110,139,1")));
  ASSERT_TRUE(registry->Add(MakeAccount("ann@example.com,pop.local,pw,995,138,0")));
  EXPECT_FALSE(registry->Add(MakeAccount("joe,pop.local,other,110,139,1")));

  auto joe = registry->Find("joe@pop.local");
  ASSERT_NE(joe, nullptr);
  EXPECT_EQ(joe->password, "pw");
  EXPECT_EQ(joe->cacheDirectory, dir_.path() + "/cache/joe@pop.local:110/");
  EXPECT_EQ(joe->mailListPath, dir_.path() + "/cache/joe@pop.local:110/mail.list");
  // Made only when a check has ids to keep.
  EXPECT_FALSE(std::filesystem::exists(joe->cacheDirectory));

  // A login with "@" keeps it as its key, but its cache is the server's too.
  auto ann = registry->Find("ann@example.com");
  ASSERT_NE(ann, nullptr);
  EXPECT_EQ(ann->cacheDirectory, dir_.path() + "/cache/ann@example.com@pop.local:995/");
  EXPECT_EQ(registry->Find("ann@example.com@pop.local"), nullptr);

  // A new port moves the known-id list along, so no old mail is new again.
  std::filesystem::create_directories(joe->cacheDirectory);
  test::WriteFile(joe->mailListPath, "a,b");
  joe->port = 995;
  registry->PlaceCache(*joe);
  EXPECT_EQ(joe->mailListPath, dir_.path() + "/cache/joe@pop.local:995/mail.list");
  EXPECT_EQ(test::ReadFile(joe->mailListPath), "a,b");
  EXPECT_FALSE(std::filesystem::exists(dir_.path() + "/cache/joe@pop.local:110/mail.list"));
}

TEST_F(AccountRegistryTest, AKnownIdListOfTheOldCacheLayoutMovesIntoTheNewOne) {
  // Earlier versions: cache/<key>/mail.list, the key alone for a login with "@".
  std::filesystem::create_directories(dir_ / "cache/joe@pop.local");
  std::filesystem::create_directories(dir_ / "cache/ann@example.com");
  test::WriteFile(dir_ / "cache/joe@pop.local/mail.list", "a,b");
  test::WriteFile(dir_ / "cache/ann@example.com/mail.list", "c");
  auto registry = NewRegistry();
  ASSERT_TRUE(registry->Add(MakeAccount("joe,pop.local,pw,110,139,1")));
  ASSERT_TRUE(registry->Add(MakeAccount("ann@example.com,pop.local,pw,995,138,1")));
  EXPECT_EQ(test::ReadFile(registry->Find("joe@pop.local")->mailListPath), "a,b");
  EXPECT_EQ(test::ReadFile(registry->Find("ann@example.com")->mailListPath), "c");
  EXPECT_FALSE(std::filesystem::exists(dir_ / "cache/joe@pop.local/mail.list"));
  // A key that is not one plain file name is never followed.
  std::filesystem::create_directories(dir_ / "outside");
  std::filesystem::create_directories(dir_ / "cache/x@");
  test::WriteFile(dir_ / "outside/mail.list", "x");
  ASSERT_TRUE(registry->Add(MakeAccount("x@/../../outside,pop.local,pw,110,1,1")));
  EXPECT_EQ(test::ReadFile(dir_ / "outside/mail.list"), "x");
}

TEST(MailboxCacheDirectoryTest, EveryMailboxIsOneEntryOfCacheOfItsOwn) {
  struct Case {
    std::string login;
    std::string host;
    std::string name;  // the directory's name under cache/
  };
  const std::vector<Case> cases = {
      {"joe", "pop.local", "joe@pop.local:110"},
      {"x@/../../..", "pop.local", "x@%2F..%2F..%2F..@pop.local:110"},
      {"joe", "h/../../..", "joe@h%2F..%2F..%2F..:110"},
      {"..", "..", "%2E%2E@%2E%2E:110"},
      {".", "pop.local", "%2E@pop.local:110"},
      {"a\\..\\b", "pop.local", "a%5C..%5Cb@pop.local:110"},
      {"%2e%2e", "pop.local", "%252e%252e@pop.local:110"},
      {"joe\r\n", "pop\x01\x7F", "joe%0D%0A@pop%01%7F:110"},
      // "@" in the host is escaped: these two are different mailboxes.
      {"a@b", "c", "a@b@c:110"},
      {"a", "b@c", "a@b%40c:110"},
  };
  std::set<std::string> names;
  for (const Case& c : cases) {
    std::string directory = MailboxCacheDirectory("/gw", c.login, c.host, 110);
    EXPECT_EQ(directory, "/gw/cache/" + c.name + "/") << c.login << " at " << c.host;
    names.insert(directory);
  }
  EXPECT_EQ(names.size(), cases.size());
  EXPECT_NE(MailboxCacheDirectory("/gw", "joe", "pop.local", 995),
            MailboxCacheDirectory("/gw", "joe", "pop.local", 110));
}

TEST_F(AccountRegistryTest, SaveAndLoadKeepInsertionOrder) {
  auto registry = NewRegistry();
  const std::vector<std::string> lines = {"zed,pop.b,p1,110,1,1", "amy,pop.a,p2,995,2,0",
                                          "mid@x.org,pop.c,p3,110,3,1"};
  for (const auto& line : lines) registry->Add(MakeAccount(line));
  registry->Remove("amy@pop.a");
  registry->Add(MakeAccount(lines[1]));  // back at the end
  registry->Save();

  EXPECT_EQ(ProfileLines(accountFile()), (std::vector<std::string>{lines[0], lines[2], lines[1]}));
  struct stat info;
  ASSERT_EQ(stat(accountFile().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  auto reloaded = NewRegistry();
  EXPECT_EQ(reloaded->Load(), 3);
  std::vector<std::string> order;
  for (const auto& account : reloaded->Accounts()) order.push_back(account->FormatLine());
  EXPECT_EQ(order, (std::vector<std::string>{lines[0], lines[2], lines[1]}));
}

TEST_F(AccountRegistryTest, EverySaveKeepsThePreviousProfileAsBackup) {
  auto registry = NewRegistry();
  registry->Add(MakeAccount("one,pop,p,110,1,1"));
  registry->Save();
  EXPECT_FALSE(std::filesystem::exists(accountFile() + ".bak"));

  registry->Add(MakeAccount("two,pop,p,110,2,1"));
  registry->Save();
  EXPECT_EQ(ProfileLines(accountFile() + ".bak"), std::vector<std::string>{"one,pop,p,110,1,1"});

  registry->Remove("one@pop");
  registry->Save();  // the older backup goes
  EXPECT_EQ(ProfileLines(accountFile() + ".bak"),
            (std::vector<std::string>{"one,pop,p,110,1,1", "two,pop,p,110,2,1"}));
  EXPECT_EQ(ProfileLines(accountFile()), std::vector<std::string>{"two,pop,p,110,2,1"});

  registry->Remove("two@pop");
  EXPECT_EQ(registry->Save(), 0);  // empty: only the backup is left
  EXPECT_FALSE(std::filesystem::exists(accountFile()));
  EXPECT_EQ(ProfileLines(accountFile() + ".bak"), std::vector<std::string>{"two,pop,p,110,2,1"});
  EXPECT_FALSE(std::filesystem::exists(accountFile() + ".new"));
}

TEST_F(AccountRegistryTest, ASaveThatCannotCompleteLeavesProfileAndBackupAsTheyWere) {
  auto registry = NewRegistry();
  for (int i = 0; i < 40; ++i) {
    registry->Add(MakeAccount("user" + std::to_string(i) + ",pop,p,110,1,1"));
    ASSERT_EQ(registry->Save(), 0);
  }
  const std::string profile = test::ReadFile(accountFile());
  const std::string backup = test::ReadFile(accountFile() + ".bak");
  registry->Add(MakeAccount("one-more,pop,p,110,1,1"));

  // A full disk: a child whose files may not grow past 1 KiB.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{1024, 1024};
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(registry->Save() == -1 ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  // A backup that cannot be kept: something else holds its scratch name.
  std::filesystem::create_directories(accountFile() + ".bak.new/taken");
  EXPECT_EQ(registry->Save(), -1);
  std::filesystem::remove_all(accountFile() + ".bak.new");

  EXPECT_EQ(test::ReadFile(accountFile()), profile);
  EXPECT_EQ(test::ReadFile(accountFile() + ".bak"), backup);
  EXPECT_FALSE(std::filesystem::exists(accountFile() + ".new"));
  EXPECT_EQ(registry->Save(), 0);  // and the next save that can, does
  EXPECT_EQ(ProfileLines(accountFile()).size(), 41u);
  EXPECT_EQ(test::ReadFile(accountFile() + ".bak"), profile);
}

TEST_F(AccountRegistryTest, ShortRecordLoadsAsAnEmptyAccount) {
  wxRecordFile file(accountFile());
  file.SetEncipher(true);
  file.AppendRecord("joe,pop,pw,110,139");
  file.AppendRecord("ann,pop,pw,110,138,1");
  auto registry = NewRegistry();
  EXPECT_EQ(registry->Load(), 2);
  EXPECT_NE(registry->Find("@"), nullptr);
  EXPECT_NE(registry->Find("ann@pop"), nullptr);
}

TEST_F(AccountRegistryTest, SaveKilledAtAnyMomentLeavesAWholeProfile) {
  // The old profile has 300 accounts, the new one 600; a save killed at any
  // point must leave one of the two whole under the profile's name.
  auto registry = NewRegistry();
  for (int i = 0; i < 300; ++i) {
    registry->Add(MakeAccount("old" + std::to_string(i) + ",pop,p,110,1,1"));
  }
  registry->Save();
  const std::string oldProfile = dir_ / "old.dat";
  std::filesystem::copy_file(accountFile(), oldProfile);
  for (int i = 0; i < 300; ++i) {
    registry->Add(MakeAccount("new" + std::to_string(i) + ",pop,p,110,1,1"));
  }
  for (int delayUs : {0, 200, 1000, 3000, 6000, 10000, 20000}) {
    std::filesystem::copy_file(oldProfile, accountFile(),
                               std::filesystem::copy_options::overwrite_existing);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      registry->Save();
      _exit(0);
    }
    usleep(delayUs);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    size_t lines = ProfileLines(accountFile()).size();
    EXPECT_TRUE(lines == 300 || lines == 600) << lines << " accounts after " << delayUs << " us";
  }
}

}  // namespace
}  // namespace corvane
