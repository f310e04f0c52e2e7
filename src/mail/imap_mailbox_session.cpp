#include "mail/imap_mailbox_session.h"

#include <algorithm>
#include <charconv>
#include <unordered_map>

#include "base/decimal_text.h"
#include "base/process_log.h"
#include "protocol/net_codes.h"
#include "protocol/net_error.h"
#include "stream/file_data_source.h"

namespace corvane {
namespace {

// UIDs of one header FETCH: at most 2000 * "100000," = 14 KB of command.
constexpr size_t kUidsPerFetch = 2000;

// What a listing and a new-mail notice show of a message.
const std::vector<std::string> kListedFields = {"FROM", "SUBJECT", "DATE", "CONTENT-TYPE"};

std::optional<uint32_t> ParseNumber(std::string_view text) {
  uint32_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

}  // namespace

int ImapMailboxSession::Open(const MailboxLogin& mailbox) {
  if (!SafeToSend(mailbox)) return kNetInvalidParameter;
  // 993 speaks TLS from the first byte; 143 upgrades whenever the server
  // offers it. Either way the certificate is checked as for POP3S.
  client_.SetSecurityEnabled(true);
  client_.SetCertValidation(CSecureSocket::kCertChainAndHost);
  client_.SetPort(static_cast<unsigned>(ReadDecimal(mailbox.port)));
  return client_.Open(mailbox.pop3Host->c_str(), mailbox.login->c_str(), mailbox.password->c_str());
}

void ImapMailboxSession::SetReplyTimeOut(int seconds) {
  client_.SetReplyTimeOut(seconds);
}

int ImapMailboxSession::ListIds(std::vector<std::string>& ids) {
  ids.clear();
  std::vector<uint32_t> uids;
  const int result = client_.FetchUids(uids);
  const std::string validity = std::to_string(client_.UidValidity()) + ".";
  for (uint32_t uid : uids) ids.push_back(validity + std::to_string(uid));
  return result;
}

std::optional<uint32_t> ImapMailboxSession::UidOf(const std::string& id) const {
  const size_t dot = id.find('.');
  if (dot == std::string::npos) return std::nullopt;
  auto validity = ParseNumber(std::string_view(id).substr(0, dot));
  auto uid = ParseNumber(std::string_view(id).substr(dot + 1));
  if (!validity || !uid || *validity != client_.UidValidity()) return std::nullopt;
  return uid;
}

void ImapMailboxSession::ReadHeaders(const std::vector<std::string>& ids, const HeaderSink& each) {
  if (ids.empty()) return;
  std::unordered_map<uint32_t, const std::string*> asked;
  std::vector<uint32_t> uids;
  for (const std::string& id : ids) {
    if (auto uid = UidOf(id); uid && asked.emplace(*uid, &id).second) uids.push_back(*uid);
  }
  auto take = [&](uint32_t uid, std::string bytes) {
    auto found = asked.find(uid);
    if (found == asked.end()) return;  // not asked for: the server's own idea
    const std::string& id = *found->second;
    asked.erase(found);
    std::optional<MailMessage> header = HeaderFromBytes(bytes);
    each(id, 0, header);
  };
  // One UID FETCH for many messages; scattered UIDs in pieces, so that no
  // command line grows past what servers take (often 64 KiB).
  int result = 0;
  for (size_t at = 0; at < uids.size() && result == 0; at += kUidsPerFetch) {
    const size_t last = std::min(uids.size(), at + kUidsPerFetch);
    result = client_.FetchHeaders({uids.begin() + at, uids.begin() + last}, kListedFields, take);
  }
  // What the server did not return could not be read.
  for (const auto& [uid, id] : asked) {
    std::optional<MailMessage> none;
    each(*id, result != 0 ? result : kNetTopFailed, none);
  }
}

int ImapMailboxSession::Retrieve(const std::string& id, const std::string& path, int64_t maxBytes) {
  WriteLog(kLogDebug, "Search message id from UID: %s\n", id.c_str());
  const auto uid = UidOf(id);
  if (!uid) {
    WriteLog(kLogError, "The mail is not found from UID: %s\n", id.c_str());
    return kNetUidlFailed;
  }
  FileDataSource file(path, 4096);
  const int result = client_.FetchMessage(*uid, file, maxBytes);
  if (result != 0) {
    // "Retreive": the log text's own spelling, kept on purpose.
    WriteLog(kLogError, "Retreive mail data fail: %s\n", CNetError::GetErrorString(result));
  }
  return result;
}

void ImapMailboxSession::Close() {
  client_.Logout();
}

}  // namespace corvane
