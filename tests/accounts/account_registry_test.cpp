#include "accounts/account_registry.h"

#include <gtest/gtest.h>

#include <filesystem>

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

class AccountRegistryTest : public ::testing::Test {
 protected:
  auto NewRegistry() { return std::make_unique<AccountRegistry>(profile_, dir_.path()); }
  test::TempDir dir_;
  const std::string profile_ = dir_ / "account.dat", backup_ = profile_ + ".bak";
};

TEST_F(AccountRegistryTest, LinesNeedSixFieldsCachesAreOwnAndMovedAndSavesKeepOrderAndBackup) {
  // Lines need six fields, and runs of commas split once.
  const struct {
    std::string line, formatted, key;
  } cases[] = {{"joe,,pop.local,secret,995,13800000000,1,extra",
                "joe,pop.local,secret,995,13800000000,1", "joe@pop.local"},
               {"ann@x.org,pop,pw,110,1,0", "ann@x.org,pop,pw,110,1,0", "ann@x.org"},
               {"a,b,c,x110,m,on", "a,b,c,0,m,0", "a@b"},
               {"joe,pop.local,secret,110,139", ",,,0,,0", "@"}};
  for (const auto& c : cases) {
    const std::shared_ptr<Account> account = MakeAccount(c.line);
    EXPECT_EQ(account->FormatLine() + " " + account->Key(), c.formatted + " " + c.key);
  }
  // Every mailbox is one entry of cache/ of its own.
  const struct {
    std::string login, host, name;  // the directory's name under cache/
  } mailboxes[] = {{"joe", "pop.local", "joe@pop.local:110"},
                   {"x@/../../..", "pop.local", "x@%2F..%2F..%2F..@pop.local:110"},
                   {"joe", "h/../../..", "joe@h%2F..%2F..%2F..:110"},
                   {"..", "..", "%2E%2E@%2E%2E:110"},
                   {".", "pop.local", "%2E@pop.local:110"},
                   {"a\\..\\b", "pop.local", "a%5C..%5Cb@pop.local:110"},
                   {"%2e%2e", "pop.local", "%252e%252e@pop.local:110"},
                   {"joe\r\n", "pop\x01\x7F", "joe%0D%0A@pop%01%7F:110"},
                   // "@" in the host is escaped: these two are different mailboxes.
                   {"a@b", "c", "a@b@c:110"},
                   {"a", "b@c", "a@b%40c:110"}};
  for (const auto& c : mailboxes) {
    EXPECT_EQ(MailboxCacheDirectory("/gw", c.login, c.host, 110), "/gw/cache/" + c.name + "/")
        << c.login << " at " << c.host;
  }
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
  auto joe = registry->Find("joe@pop.local"), ann = registry->Find("ann@example.com");
  ASSERT_TRUE(joe && ann);
  EXPECT_EQ(joe->mailListPath, dir_.path() + "/cache/joe@pop.local:110/mail.list");
  EXPECT_EQ(joe->mailListPath, joe->cacheDirectory + "mail.list");
  EXPECT_FALSE(fs::exists(dir_ / "cache/joe@pop.local/mail.list"));
  // A login with "@" keeps it as its key, but its cache is the server's too.
  EXPECT_EQ(ann->cacheDirectory, dir_.path() + "/cache/ann@example.com@pop.local:995/");
  EXPECT_EQ(registry->Find("ann@example.com@pop.local"), nullptr);
  EXPECT_EQ(test::ReadFile(joe->mailListPath) + test::ReadFile(ann->mailListPath) +
                test::ReadFile(dir_ / "outside/mail.list") +
                test::ReadFile(dir_ / "cache/x@/mail.list"),
            "cache/joe@pop.localcache/ann@example.comoutsidecache/x@");
  // A new port moves the known-id list along, so no old mail is new again.
  joe->port = 995;
  registry->PlaceCache(*joe);
  EXPECT_EQ(joe->mailListPath, dir_.path() + "/cache/joe@pop.local:995/mail.list");
  EXPECT_EQ(test::ReadFile(joe->mailListPath), "cache/joe@pop.local");
  EXPECT_FALSE(fs::exists(dir_ / "cache/joe@pop.local:110/mail.list"));
  // Saves keep the insertion order and the previous profile as backup, or fail whole.
  registry = NewRegistry();
  EXPECT_EQ(registry->Load(), -1) << "no profile yet";
  const Lines lines = {"zed,pop.b,p1,110,1,1", "amy,pop.a,p2,995,2,0",
                       "mid@x.org,pop.c,p3,110,3,1"};
  for (const auto& line : lines) registry->Add(MakeAccount(line));
  EXPECT_TRUE(registry->Remove("amy@pop.a") && !registry->Remove("amy@pop.a"));
  registry->Add(MakeAccount(lines[1]));  // back at the end
  ASSERT_EQ(registry->Save(), 0);
  EXPECT_FALSE(fs::exists(backup_));
  const Lines saved = {lines[0], lines[2], lines[1]};
  EXPECT_EQ(ProfileLines(profile_), saved);
  EXPECT_EQ(fs::status(profile_).permissions(), fs::perms::owner_read | fs::perms::owner_write)
      << "the profile holds passwords";
  auto reloaded = NewRegistry();
  ASSERT_EQ(reloaded->Load(), 3);
  Lines order;
  for (const auto& account : reloaded->Accounts()) order.push_back(account->FormatLine());
  EXPECT_EQ(order, saved);
  registry->Remove("zed@pop.b");
  ASSERT_EQ(registry->Save(), 0);
  EXPECT_EQ(ProfileLines(backup_), saved);
  EXPECT_EQ(ProfileLines(profile_), (Lines{lines[2], lines[1]}));
  // A backup that cannot be kept (something else holds its scratch name)
  // fails the save whole: profile and backup stay as they were.
  fs::create_directories(backup_ + ".new/taken");
  registry->Remove("mid@x.org");
  EXPECT_EQ(registry->Save(), -1);
  EXPECT_EQ(ProfileLines(profile_), (Lines{lines[2], lines[1]}));
  EXPECT_EQ(ProfileLines(backup_), saved);
  EXPECT_FALSE(fs::exists(profile_ + ".new"));
  fs::remove_all(backup_ + ".new");
  registry->Remove("amy@pop.a");
  EXPECT_EQ(registry->Save(), 0);  // empty: only the backup is left
  EXPECT_FALSE(fs::exists(profile_) || fs::exists(profile_ + ".new"));
  EXPECT_EQ(ProfileLines(backup_), (Lines{lines[2], lines[1]}));
}

}  // namespace
}  // namespace corvane
