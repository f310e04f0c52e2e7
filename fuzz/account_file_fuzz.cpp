// "account.dat" as the fuzz bytes: the registry loads it as start-up does
// (counting the enciphered records, decoding each and reading its account
// line), then every account loaded must be found under its key and must
// read back the same from the line a save would write for it.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "accounts/account_registry.h"
#include "fuzz_check.h"
#include "support/temp_dir.h"

namespace {

using corvane::fuzz::Check;

bool SameFields(const corvane::Account& a, const corvane::Account& b) {
  return a.login == b.login && a.pop3Host == b.pop3Host && a.password == b.password &&
         a.port == b.port && a.mobile == b.mobile && a.polling == b.polling;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  corvane::test::TempDir directory;
  Check(!directory.path().empty(), "no temporary directory");
  const std::string profile = directory / "account.dat";
  corvane::test::WriteFile(profile, std::string(reinterpret_cast<const char*>(data), size));

  corvane::AccountRegistry registry(profile, directory.path());
  const int count = registry.Load();
  Check(count >= 0, "an existing profile reported missing");
  Check(registry.Count() <= static_cast<size_t>(count), "more accounts than records");
  for (const auto& account : registry.Accounts()) {
    Check(registry.Find(account->Key()) == account, "an account is not found under its key");
    corvane::Account reread;
    corvane::Account::ParseLine(account->FormatLine(), reread);
    Check(SameFields(*account, reread), "an account line does not read back the same");
    Check(account->cacheDirectory.starts_with(directory.path() + "/cache/") &&
              account->cacheDirectory.find("/../") == std::string::npos,
          "a cache directory outside the cache");
  }
  return 0;
}
