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

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

std::shared_ptr<Account> MakeAccount(const std::string& line) {
  auto account = std::make_shared<Account>();
  Account::ParseLine(line, *account);
  return account;
}

// The account lines of a profile file, read with the record file directly.
Lines ProfileLines(const std::string& path) {
  wxRecordFile file(path);
  file.SetEncipher(true);
  Lines lines;
  for (int count = file.CountRecords(); count > 0; --count) {
    auto record = file.ReadRecord();
    if (!record) break;
    lines.emplace_back(record->c_str());
  }
  return lines;
}

TEST(AccountTest, LinesNeedSixFieldsAndRunsOfCommasSplitOnce) {
  const struct {
    std::string line, formatted, key;
  } cases[] = {
      {"joe,,pop.local,secret,995,13800000000,1,extra", "joe,pop.local,secret,995,13800000000,1",
       "joe@pop.local"},
      {"ann@x.org,pop,pw,110,1,0", "ann@x.org,pop,pw,110,1,0", "ann@x.org"},
      {"a,b,c,x110,m,on", "a,b,c,0,m,0", "a@b"},
      {"joe,pop.local,secret,110,139", ",,,0,,0", "@"},
  };
  for (const auto& c : cases) {
    std::shared_ptr<Account> account = MakeAccount(c.line);
    EXPECT_EQ(account->FormatLine(), c.formatted) << c.line;
    EXPECT_EQ(account->Key(), c.key) << c.line;
  }
  EXPECT_EQ(MakeAccount("j,h,p,995,m,1")->port, 995);
  EXPECT_EQ(MakeAccount("j,h,p,995,m,1")->polling, 1);
}

TEST(AccountTest, BucketHashRunsOverSignedBytesAndStaysInTheTable) {
  EXPECT_EQ(AccountRegistry::BucketOf("ab"), 486u);  // 98 + 4 * 97
  EXPECT_EQ(AccountRegistry::BucketOf(""), 0u);
  EXPECT_EQ(AccountRegistry::BucketOf("\xff"), 1u);       // -1, negated
  EXPECT_EQ(AccountRegistry::BucketOf("zzzzzz"), 6386u);  // 166530 % 10009
  // Past 32 bits h wraps to a negative value, which is negated.
  EXPECT_EQ(AccountRegistry::BucketOf(std::string(14, 'z')), 6643u);
  EXPECT_EQ(AccountRegistry::BucketOf(std::string(200, 'z')), 8482u);
}

TEST(AccountTest, EveryMailboxIsOneEntryOfCacheOfItsOwn) {
  const struct {
    std::string login, host, name;  // the directory's name under cache/
  } cases[] = {
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
  for (const auto& c : cases) {
    std::string directory = MailboxCacheDirectory("/gw", c.login, c.host, 110);
    EXPECT_EQ(directory, "/gw/cache/" + c.name + "/") << c.login << " at " << c.host;
    names.insert(directory);
  }
  EXPECT_EQ(names.size(), std::size(cases));
  EXPECT_EQ(MailboxCacheDirectory("/gw", "joe", "pop.local", 995), "/gw/cache/joe@pop.local:995/");
}

class AccountRegistryTest : public ::testing::Test {
 protected:
  std::unique_ptr<AccountRegistry> NewRegistry() {
    return std::make_unique<AccountRegistry>(profile_, dir_.path());
  }
  test::TempDir dir_;
  const std::string profile_ = dir_ / "account.dat", backup_ = profile_ + ".bak";
};

TEST_F(AccountRegistryTest, AddPlacesTheCacheByServerAndPortAndMovesOldKnownIdLists) {
  // Earlier versions: cache/<key>/mail.list, the key alone for a login with "@".
  for (const char* old : {"cache/joe@pop.local", "cache/ann@example.com", "outside", "cache/x@"}) {
    fs::create_directories(dir_ / old);
    test::WriteFile(dir_ / (std::string(old) + "/mail.list"), old);
  }
  auto registry = NewRegistry();
  ASSERT_TRUE(registry->Add(MakeAccount("joe,pop.local,pw,110,139,1")));
  ASSERT_TRUE(registry->Add(MakeAccount("ann@example.com,pop.local,pw,995,138,0")));
  // A key that is not one plain file name is never followed.
  ASSERT_TRUE(registry->Add(MakeAccount("x@/../../outside,pop.local,pw,110,1,1")));
  EXPECT_FALSE(registry->Add(MakeAccount("joe,pop.local,other,110,139,1")));
  EXPECT_EQ(registry->Count(), 3u);

  auto joe = registry->Find("joe@pop.local");
  ASSERT_NE(joe, nullptr);
  EXPECT_EQ(joe->password, "pw");
  EXPECT_EQ(joe->cacheDirectory, dir_.path() + "/cache/joe@pop.local:110/");
  EXPECT_EQ(joe->mailListPath, joe->cacheDirectory + "mail.list");
  EXPECT_EQ(test::ReadFile(joe->mailListPath), "cache/joe@pop.local");
  EXPECT_FALSE(fs::exists(dir_ / "cache/joe@pop.local/mail.list"));
  // A login with "@" keeps it as its key, but its cache is the server's too.
  auto ann = registry->Find("ann@example.com");
  ASSERT_NE(ann, nullptr);
  EXPECT_EQ(ann->cacheDirectory, dir_.path() + "/cache/ann@example.com@pop.local:995/");
  EXPECT_EQ(test::ReadFile(ann->mailListPath), "cache/ann@example.com");
  EXPECT_EQ(registry->Find("ann@example.com@pop.local"), nullptr);
  EXPECT_EQ(test::ReadFile(dir_ / "outside/mail.list"), "outside");
  EXPECT_EQ(test::ReadFile(dir_ / "cache/x@/mail.list"), "cache/x@");

  // A new port moves the known-id list along, so no old mail is new again.
  joe->port = 995;
  registry->PlaceCache(*joe);
  EXPECT_EQ(joe->mailListPath, dir_.path() + "/cache/joe@pop.local:995/mail.list");
  EXPECT_EQ(test::ReadFile(joe->mailListPath), "cache/joe@pop.local");
  EXPECT_FALSE(fs::exists(dir_ / "cache/joe@pop.local:110/mail.list"));
  // A mailbox that has no list yet gets no directory.
  ASSERT_TRUE(registry->Add(MakeAccount("new,pop.local,pw,110,1,1")));
  EXPECT_FALSE(fs::exists(registry->Find("new@pop.local")->cacheDirectory));
}

TEST_F(AccountRegistryTest, SavesKeepInsertionOrderAndThePreviousProfileAsBackup) {
  auto registry = NewRegistry();
  EXPECT_EQ(registry->Load(), -1) << "no profile yet";
  const Lines lines = {"zed,pop.b,p1,110,1,1", "amy,pop.a,p2,995,2,0",
                       "mid@x.org,pop.c,p3,110,3,1"};
  for (const auto& line : lines) registry->Add(MakeAccount(line));
  EXPECT_TRUE(registry->Remove("amy@pop.a"));
  EXPECT_FALSE(registry->Remove("amy@pop.a"));
  registry->Add(MakeAccount(lines[1]));  // back at the end
  ASSERT_EQ(registry->Save(), 0);
  EXPECT_FALSE(fs::exists(backup_));
  const Lines saved = {lines[0], lines[2], lines[1]};
  EXPECT_EQ(ProfileLines(profile_), saved);
  struct stat info;
  ASSERT_EQ(stat(profile_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u) << "the profile holds passwords";
  auto reloaded = NewRegistry();
  EXPECT_EQ(reloaded->Load(), 3);
  Lines order;
  for (const auto& account : reloaded->Accounts()) order.push_back(account->FormatLine());
  EXPECT_EQ(order, saved);

  registry->Remove("zed@pop.b");
  ASSERT_EQ(registry->Save(), 0);
  EXPECT_EQ(ProfileLines(backup_), saved);
  EXPECT_EQ(ProfileLines(profile_), (Lines{lines[2], lines[1]}));
  registry->Remove("mid@x.org");
  registry->Remove("amy@pop.a");
  EXPECT_EQ(registry->Save(), 0);  // empty: only the backup is left
  EXPECT_FALSE(fs::exists(profile_));
  EXPECT_FALSE(fs::exists(profile_ + ".new"));
  EXPECT_EQ(ProfileLines(backup_), (Lines{lines[2], lines[1]}));

  // A short record loads as an empty account.
  wxRecordFile file(profile_);
  file.SetEncipher(true);
  file.AppendRecord("joe,pop,pw,110,139");
  file.AppendRecord("ann,pop,pw,110,138,1");
  EXPECT_EQ(registry->Load(), 2);
  EXPECT_NE(registry->Find("@"), nullptr);
  EXPECT_NE(registry->Find("ann@pop"), nullptr);
}

TEST_F(AccountRegistryTest, ASaveThatCannotCompleteLeavesProfileAndBackupAsTheyWere) {
  auto registry = NewRegistry();
  for (int i = 0; i < 40; ++i) {
    registry->Add(MakeAccount("user" + std::to_string(i) + ",pop,p,110,1,1"));
    ASSERT_EQ(registry->Save(), 0);
  }
  const std::string profile = test::ReadFile(profile_), backup = test::ReadFile(backup_);
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
  fs::create_directories(backup_ + ".new/taken");
  EXPECT_EQ(registry->Save(), -1);
  fs::remove_all(backup_ + ".new");

  EXPECT_EQ(test::ReadFile(profile_), profile);
  EXPECT_EQ(test::ReadFile(backup_), backup);
  EXPECT_FALSE(fs::exists(profile_ + ".new"));
  EXPECT_EQ(registry->Save(), 0);  // and the next save that can, does
  EXPECT_EQ(ProfileLines(profile_).size(), 41u);
  EXPECT_EQ(test::ReadFile(backup_), profile);
}

}  // namespace
}  // namespace corvane
