#include "accounts/account.h"

#include "base/decimal_text.h"
#include "base/program_paths.h"

namespace corvane {

std::string AccountKey(std::string_view login, std::string_view pop3Host) {
  if (login.find('@') != std::string_view::npos) return std::string(login);
  std::string key(login);
  key += '@';
  key += pop3Host;
  return key;
}

std::string MailboxCacheDirectory(std::string_view programDirectory, std::string_view login,
                                  std::string_view pop3Host, int32_t port) {
  std::string directory(programDirectory);
  directory += "/cache/";
  directory += EscapeFileNamePart(login);
  directory += '@';
  directory += EscapeFileNamePart(pop3Host, "@");
  directory += ':';
  directory += std::to_string(port);
  directory += '/';
  return directory;
}

std::string Account::FormatLine() const {
  return login + ',' + pop3Host + ',' + password + ',' + std::to_string(port) + ',' + mobile + ',' +
         std::to_string(polling);
}

void Account::ParseLine(std::string_view line, Account& account) {
  // Split like a tokenizer: runs of commas count as one separator, and the
  // sixth field ends at the next comma.
  std::vector<std::string_view> tokens;
  size_t position = 0;
  while (tokens.size() < 6) {
    position = line.find_first_not_of(',', position);
    if (position == std::string_view::npos) break;
    size_t end = line.find(',', position);
    if (end == std::string_view::npos) end = line.size();
    tokens.push_back(line.substr(position, end - position));
    position = end;
  }
  if (tokens.size() < 6) return;
  account.login = tokens[0];
  account.pop3Host = tokens[1];
  account.password = tokens[2];
  account.port = ReadDecimal(tokens[3]);
  account.mobile = tokens[4];
  account.polling = ReadDecimal(tokens[5]);
  account.knownUidsLoaded = false;
  account.knownUids = KnownIds();
}

}  // namespace corvane
