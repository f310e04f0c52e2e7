#include "mail/pop3_mailbox_session.h"

#include "base/process_log.h"
#include "protocol/net_codes.h"
#include "protocol/net_error.h"

namespace corvane {
namespace {

// A large message may take longer: twice the time-out from 2 MB, three
// times from 3 MB.
constexpr long kDoubleTimeoutSize = 2048001;
constexpr long kTripleTimeoutSize = 3072001;

}  // namespace

int Pop3MailboxSession::Open(const MailboxLogin& mailbox) {
  return OpenMailbox(client_, mailbox);
}

void Pop3MailboxSession::SetReplyTimeOut(int seconds) {
  timeout_ = seconds;
  client_.SetPOP3TimeOut(seconds);
}

int Pop3MailboxSession::ListIds(std::vector<std::string>& ids) {
  ids.clear();
  numbers_.clear();
  int count = 0;
  client_.GetNumMsgs(&count);
  if (count < 1) return 0;
  const int result = client_.GetUIDL(0);
  for (int number = 1; number <= count; ++number) {
    // A message the id list does not name cannot be asked for later.
    const char* uid = client_.GetUID(number);
    if (uid == nullptr) continue;
    ids.emplace_back(uid);
    numbers_.emplace(uid, number);
  }
  return result;
}

void Pop3MailboxSession::ReadHeaders(const std::vector<std::string>& ids, const HeaderSink& each) {
  std::vector<int> numbers;
  for (const std::string& id : ids) numbers.push_back(numbers_[id]);
  // A server that takes pipelined commands gets the TOPs ahead of their
  // replies: one round trip for many instead of one each.
  if (numbers.size() > 1 && client_.AskPipelining()) client_.SendTopsAhead(numbers, 0);
  for (size_t i = 0; i < ids.size(); ++i) {
    std::optional<MailMessage> header;
    const int result = ReadMessageHeader(client_, numbers[i], header);
    each(ids[i], result, header);
  }
}

int Pop3MailboxSession::Retrieve(const std::string& id, const std::string& path, int64_t maxBytes) {
  std::vector<std::string> ids;
  const int listed = ListIds(ids);
  WriteLog(kLogDebug, "Search message id from UID: %s\n", id.c_str());
  auto found = numbers_.find(id);
  if (found == numbers_.end()) {
    WriteLog(kLogError, "The mail is not found from UID: %s\n", id.c_str());
    return listed != 0 ? listed : kNetUidlFailed;
  }
  const int number = found->second;
  long size = 0;
  client_.GetMsgSize(number, &size);
  WriteLog(kLogDebug, "Message size is: %ld\n", size);
  // Refused before it fills the disk; the server's word is checked again
  // while the message arrives.
  if (maxBytes > 0 && size > maxBytes) {
    WriteLog(kLogError, "Message of %ld bytes is over the limit of %lld\n", size,
             static_cast<long long>(maxBytes));
    return kNetBodyTooLong;
  }
  client_.SetMaxRetrieveBytes(maxBytes);
  if (size >= kTripleTimeoutSize) {
    client_.SetPOP3TimeOut(timeout_ * 3);
  } else if (size >= kDoubleTimeoutSize) {
    client_.SetPOP3TimeOut(timeout_ * 2);
  }
  const int result = client_.RetrieveToFile(number, path.c_str());
  if (result != 0) {
    WriteLog(kLogDebug, "POP3 TimeOut is: %d\n", client_.GetPOP3TimeOut());
    // "Retreive": the log text's own spelling, kept on purpose.
    WriteLog(kLogError, "Retreive mail data fail: %s\n", CNetError::GetErrorString(result));
  }
  return result;
}

void Pop3MailboxSession::Close() {
  client_.CloseMsg();
  client_.POP3Close();
}

}  // namespace corvane
